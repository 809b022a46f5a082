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
// when the settings name a bucket. Throws CFailure with kExitUsage, also for the address of another server than that of
// the settings: requests carry signatures, and those are good for whoever gets them.
ObjectUrl ParseObjectUrl(const std::string& text, const Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OBJECT_URL_H
