// Entry points of the object server.
//
// Threads: InitObjectServer is called once by the host, on any thread, before the others; only SetReadLeaseCallbacks
// and SetSignatureDateWindow may come before it. All others may be called from any thread, also while requests run.
// Ownership: whatever is passed in is copied, but for the factory, which is kept for the life of the process.
// Errors: nothing throws. int results are 0 on success and a negative or non-zero code otherwise; the log says why.
#ifndef TANSY_CLOUD_STORAGE_OBJECT_SERVER_H
#define TANSY_CLOUD_STORAGE_OBJECT_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TansyCloudStorage/Export.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace KivPlatform {
class IFactoryInterface;
}

namespace Tansy::CloudStorage {

// Connects to the database, loads the catalogue and opens the listeners; the second form opens HTTPS listeners too.
// Blocks until the database accepts: it tries again every 5 s, logs the reason each time and asks the factory for the
// parameters anew. Requests are served once InitPicServer has started the message loop that both servers share. 0 also
// when the catalogue could not be read (ask IsCatalogueLoaded); -1 when upload and download port differ (the listeners
// are open all the same); else the HTTP library's error, with the listeners open that had been opened before. Called
// again with other ports it opens those and closes the old ones, which stay when the new ones cannot be opened.
TANSY_CLOUD_STORAGE_API int InitObjectServer(const StorageServerConfig& config,
                                             const std::shared_ptr<KivPlatform::IFactoryInterface>& factory);
TANSY_CLOUD_STORAGE_API int InitObjectServer(const StorageServerConfig_V1& config,
                                             const std::shared_ptr<KivPlatform::IFactoryInterface>& factory);

// Returns 0 and does nothing: the server lives as long as the process.
TANSY_CLOUD_STORAGE_API int UninitObjectServer();

// Stops or starts the listeners. 0 also when they are in that state already.
TANSY_CLOUD_STORAGE_API int SetObjectServerEnable(bool enable);

// The stored location text of an object by its path ("/bucket/key"), without the "pool_name:" prefix. False when the
// path is no object path or the object does not exist.
TANSY_CLOUD_STORAGE_API bool GetInternalURLByObjectUrl(std::string& internal_url, const std::string& object_url);

// Checks a download request that the host received itself, as the server would: `url` is the path as it was sent,
// `query` what followed its "?". None of the four is changed. On 0 `internal_url` is the location text with its
// "pool_name:" prefix. Otherwise the error code of the object protocol (-1 to -20), and `internal_url` stays.
TANSY_CLOUD_STORAGE_API int CheckObjectRequestValid(std::string& internal_url, std::string& url, std::string& method,
                                                    std::string& query, std::map<std::string, std::string>& headers);

// Frames every download that is sent in chunks with two callbacks, so that the host can keep the bytes of an object
// readable until the last chunk is out, whatever replaces or removes the object meanwhile. Counts for downloads that
// begin afterwards; a download that has begun ends with the end callback of its beginning. Null for both: no frames
// (the default). See ReadBeginCallback. Always 0.
TANSY_CLOUD_STORAGE_API int SetReadLeaseCallbacks(ReadBeginCallback begin, ReadEndCallback end);

// Appends to `locations` what StreamSaveCallback left for each upload under way that may still become an object: its
// client is still there, or all of it has come and only the row is missing. A host that looks for stored bytes without
// a row leaves these alone. An upload whose client went away in the middle is forgotten by this call; its bytes are the
// host's to free. Uploads in parts have rows of their own and are not named here. False when memory ran out.
TANSY_CLOUD_STORAGE_API bool GetUploadsUnderWay(std::vector<std::string>& locations);

// From now on both servers refuse a request whose Authorization header is right but whose Date header is missing, is no
// HTTP date, or differs from the clock by more than so many minutes; 0 (the default) compares nothing. Signatures in a
// query (tokens, signed picture addresses) carry no date and are exempt. Always 0.
TANSY_CLOUD_STORAGE_API int SetSignatureDateWindow(std::uint32_t minutes);

// Address updates for both servers (picture server first); they count for the next request. Addresses are texts without
// brackets, ports are decimal texts in the last form (0 when they are no numbers). Always 0.
TANSY_CLOUD_STORAGE_API int UpdateLocalServerIp(const std::string& ip);
TANSY_CLOUD_STORAGE_API int UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t picture_port,
                                                std::uint32_t object_port);
TANSY_CLOUD_STORAGE_API int UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_OBJECT_SERVER_H
