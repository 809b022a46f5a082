// Entry points of the S3 server, which serves the objects of the object server to clients of the S3 protocol.
//
// Threads: any; InitS3Server comes after InitObjectServer. Its requests are served once InitPicServer has started the
// message loop that all servers share, and until UninitPicServer stops it.
// Ownership: the configuration is copied.
// Errors: nothing throws; 0 is success, anything else a failure, and the log says why.
#ifndef TANSY_CLOUD_STORAGE_S3_SERVER_H
#define TANSY_CLOUD_STORAGE_S3_SERVER_H

#include <cstdint>
#include <string>
#include <vector>

#include "TansyCloudStorage/Export.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Ports, keys and storage callbacks are those of the record that it is made from. A port of 0 opens no listener, and
// only `download_port` and `https_download_port` count. The callbacks must be those that the object server got.
struct S3ServerConfig : StorageServerConfig_V1 {
  std::string region = "us-east-1";  // clients sign for this region
  // Requests to BUCKET.DOMAIN are about that bucket; their paths name keys only. In small letters. Empty: paths name
  // the bucket whatever the host is.
  std::string domain;
  bool v2_links = true;  // links of signature version 2 are taken
  // Web pages of these origins ("https://example.org") may use the server from a browser; "*" stands for all of them.
  std::vector<std::string> cors_origins;
  // The same is true of pages that came from this port of the host that the request is sent to, by HTTP or HTTPS; 0: of
  // none.
  std::uint16_t page_port = 0;
};

// A further key, beside the pair of the configuration, which may do everything. Only the S3 server knows it.
struct S3Key {
  std::string access_key;  // no other key has it
  std::string secret_key;
  std::vector<std::string> buckets;  // those that it may use; empty: all
  bool read_only = false;            // it may list and read
  std::int64_t expires = 0;          // from this second since 1970 on it counts no more; 0: it always counts
};

// Takes these further keys instead of all that were given before. Requests that come afterwards are judged by them,
// links too; those under way go on. Returns -1, and changes nothing, when a key has no access key or
// no secret key. It may be called before InitS3Server.
TANSY_CLOUD_STORAGE_API int SetS3Keys(const std::vector<S3Key>& keys);

// Loads the attributes of objects and opens the listeners. Returns -1 when the attributes cannot be read, else the HTTP
// library's error.
TANSY_CLOUD_STORAGE_API int InitS3Server(const S3ServerConfig& config);

// Stops the listeners. Requests under way are answered.
TANSY_CLOUD_STORAGE_API int UninitS3Server();

// Stops or starts the listeners. Returns 0 also when they are in that state already.
TANSY_CLOUD_STORAGE_API int SetS3ServerEnable(bool enable);

// Changes `page_port` while the server runs.
TANSY_CLOUD_STORAGE_API int SetS3PagePort(std::uint16_t port);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_S3_SERVER_H
