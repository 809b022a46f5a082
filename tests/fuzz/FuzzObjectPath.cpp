// Request paths taken apart into bucket and key.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Require.h"
#include "StorageServer/ObjectServer/ObjectServer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(data, data + size);
  const auto slashes = std::count(path.begin(), path.end(), '/');
  std::string bucket;
  std::string key;
  const bool good = Tansy::CloudStorage::CObjectServer::ParseUrl(bucket, key, path);
  Require(good == (path.starts_with('/') && slashes <= 2));
  if (good) {
    // Nothing is added, lost or decoded.
    Require(path == "/" + bucket + (slashes == 2 ? "/" + key : ""));
    Require(slashes == 2 || key.empty());
    Require(bucket.find('/') == std::string::npos && key.find('/') == std::string::npos);
  }
  return 0;
}
