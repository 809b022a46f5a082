#ifndef TANSY_CLI_OBJECT_URL_H
#define TANSY_CLI_OBJECT_URL_H

#include <string>

#include "Settings.h"

namespace Tansy::Cli {

// The name that people give to an object.
struct ObjectUrl {
  std::string bucket;
  std::string key;
  std::string file_name = {};  // name that a local copy gets; empty: the key

  // Gives "/bucket/key", the name in the protocol.
  std::string Path() const { return "/" + bucket + "/" + key; }
};

// Reads "/bucket/key", "bucket/key", "http://HOST:PORT/bucket/key" (its query is ignored), "s3://bucket/key", whose key
// may hold any bytes and becomes the name under which the object protocol knows it, or only a key when the
// settings name a bucket. Throws CFailure with kExitUsage. That includes the address of another server than that of the
// settings: requests carry signatures, which whoever receives them could use.
ObjectUrl ParseObjectUrl(const std::string& text, const Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OBJECT_URL_H
