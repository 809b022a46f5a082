#ifndef TANSY_CLI_OBJECT_URL_H
#define TANSY_CLI_OBJECT_URL_H

#include <string>

#include "Settings.h"

namespace Tansy::Cli {

// An object as people name it.
struct ObjectUrl {
  std::string bucket;
  std::string key;

  // "/bucket/key", as the protocol names it.
  std::string Path() const { return "/" + bucket + "/" + key; }
};

// Reads "/bucket/key", "bucket/key", "http://HOST:PORT/bucket/key" (whatever query it has is left out), or a key alone
// when the settings name a bucket. A whole address becomes the object server of `settings`. Throws CFailure with
// kExitUsage.
ObjectUrl ParseObjectUrl(const std::string& text, Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OBJECT_URL_H
