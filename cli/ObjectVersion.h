#ifndef TANSY_CLI_OBJECT_VERSION_H
#define TANSY_CLI_OBJECT_VERSION_H

#include <cstdint>
#include <optional>
#include <string>

#include "ObjectUrl.h"
#include "Persistence.h"
#include "Settings.h"

namespace Tansy::Cli {

// Identifies one content of an object.
struct ObjectVersion {
  std::uint64_t size = 0;
  std::string tag;  // the server's ETag; empty when the server sends none

  bool operator==(const ObjectVersion&) const = default;
};

// Asks for the object as it is now. Throws CFailure about `url`.
ObjectVersion AskVersion(const Settings& settings, const ObjectUrl& url, EPatience patience = EPatience::kNone);
// Does the same, but gives nothing when there is no such object.
std::optional<ObjectVersion> FindVersion(const Settings& settings, const ObjectUrl& url, EPatience patience);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OBJECT_VERSION_H
