// The requests of the picture protocol, client side.
#ifndef TANSY_SRC_STORAGE_CLIENT_PICTURE_PROTO_CLIENT_H
#define TANSY_SRC_STORAGE_CLIENT_PICTURE_PROTO_CLIENT_H

#include <cstdint>
#include <memory>
#include <string>

#include "StorageClient/HttpExchange.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// The fields in which one signed request of the picture protocol differs from another.
struct SPictureRequest {
  std::string method = "GET";
  std::string base;         // scheme, host and port
  std::string resource;     // path and query
  std::string host;         // value of the Host header; empty stands for that of `base`
  std::string form_type;    // content type of a form, as it is sent
  std::string signed_type;  // content type as it is signed
  std::string body;
  std::uint64_t max_answer_bytes = 0;
};

// Sends the requests of one call of a client, and keeps the serial id that ties a best-node request to its upload. Each
// member sends one HTTP request, or two when a download is redirected; no request is repeated. Only status 200 is
// success. Errors: a member returns false, writes a log line and leaves the reason in Failure(). Threads: one at a
// time.
class CPicProtoClient : private TansyBase::CNoncopyable {
 public:
  // `conf` is not empty.
  explicit CPicProtoClient(std::shared_ptr<const SStorageServerConfig> conf);

  // Asks the server that the configuration names which gateway takes the upload.
  bool GetBestNode(std::string& address, std::string& port, std::string& token);
  // Gives scheme, host and port of that gateway.
  std::string GatewayLocation(const std::string& address, const std::string& port) const;
  // Uploads to the gateway with the token that it gave; `url` becomes the picture's address.
  bool UploadPic(std::string& url, const std::string& location, const std::string& token, const char* data,
                 std::uint32_t size);
  // `url` is a path, or an absolute URL of the configured server; any other text is refused before anything is sent.
  // `*data` is new[]-allocated and belongs to the caller.
  bool DownloadPic(char** data, std::uint32_t& size, const std::string& url);

  // Signs and sends a request; it returns true whatever the answer's status.
  bool SendObjectMsg(SHttpExchange& exchange, const SPictureRequest& parts);

  // Says why the operation that returned false did so.
  const SClientFailure& Failure() const { return failure_; }

 private:
  // Finds the place to ask for a picture. Returns false when that is no server that the client may sign for.
  bool LocatePicture(SPictureRequest& parts, const std::string& url);
  bool FollowRedirect(SHttpExchange& exchange, const SPictureRequest& first);
  std::string UploadBody(const std::string& token, const char* data, std::uint32_t size) const;

  const std::shared_ptr<const SStorageServerConfig> conf_;
  const std::string upload_host_;  // address and port
  const std::string download_host_;
  std::string serial_id_;
  SClientFailure failure_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PICTURE_PROTO_CLIENT_H
