// Client of the picture protocol.
#ifndef TANSY_CLOUD_STORAGE_PICTURE_CLIENT_H
#define TANSY_CLOUD_STORAGE_PICTURE_CLIENT_H

#include <cstdint>
#include <memory>
#include <string>

#include "TansyCloudStorage/ClientFailure.h"
#include "TansyCloudStorage/Export.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

struct PictureImpl;

// Uploads pictures to a picture server and reads them back. A client is a thin handle: copies share configuration and
// last failure. Threads: any number of threads may use one client. Errors: an operation returns false and leaves the
// reason in GetLastFailure and in the log; neither the operations nor the constructor throw.
//
// Signed requests go to the configured server and to the gateway that it names for an upload.
class TANSY_CLOUD_STORAGE_API CPictureClient {
 public:
  // Copies the configuration; its progress function is not called. When memory runs out for that, every operation fails
  // with kOutOfResources.
  explicit CPictureClient(const SStorageServerConfig& config);

  // Checks the configuration: keys, address, pool name and both ports must be there.
  bool Init();
  // Does nothing and returns true.
  bool Uninit();

  // Uploads at most 33554432 bytes; `url` becomes the picture's address, and stays as it is on failure. The upload goes
  // to the gateway that the server at `ip` and `upload_port` names. `data` stays the caller's.
  bool UploadPicture(std::string& url, const char* data, std::uint32_t size);
  // Fetches a picture by its address: a path is asked of the server at `ip` and `download_port`. A whole URL must name
  // the configured server, by scheme, address and one of the two ports; any other is refused before anything is sent
  // (kForeignAddress). One redirect (300 to 309) is followed on the same server. `*data` is new[]-allocated and not
  // NUL-terminated; the caller frees it with delete[]. Both outputs are set on success only.
  bool DownloadPicture(char** data, std::uint32_t& size, const std::string& url);
  // Does nothing and returns true: pictures are removed by the server's host.
  bool RemoveFileByUrl(const std::string& url);

  // Gives the last failure of this client and its copies; successes do not clear it.
  SClientFailure GetLastFailure() const noexcept;

 private:
  std::shared_ptr<PictureImpl> ptr_conf_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_PICTURE_CLIENT_H
