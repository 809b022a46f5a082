// Entry points of the picture server, which also owns the message loop that both servers share.
//
// Threads: any; but UninitPicServer must not be called from a storage callback, because it waits for those that run.
// Ownership: the configuration is copied.
// Errors: nothing throws; 0 is success, anything else a failure, and the log says why.
#ifndef TANSY_CLOUD_STORAGE_PICTURE_SERVER_H
#define TANSY_CLOUD_STORAGE_PICTURE_SERVER_H

#include "TansyCloudStorage/Export.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Starts the shared message loop, then the picture listeners; the second form opens HTTPS listeners too. Returns -1
// when upload and download port differ (the listeners are open all the same), else the HTTP library's error.
TANSY_CLOUD_STORAGE_API int InitPicServer(const StorageServerConfig& config);
TANSY_CLOUD_STORAGE_API int InitPicServer(const StorageServerConfig_V1& config);

// Stops the picture listeners and then the message loop, so that object requests are no longer served either. Requests
// that wait are answered with an error. When the object server is disabled too (SetObjectServerEnable(false) before
// this call), its downloads are broken off, and no storage callback is called any more once this function has returned.
TANSY_CLOUD_STORAGE_API int UninitPicServer();

// Stops or starts the picture listeners. Returns 0 also when they are in that state already, else the HTTP library's
// error.
TANSY_CLOUD_STORAGE_API int SetPicServerEnable(bool enable);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_PICTURE_SERVER_H
