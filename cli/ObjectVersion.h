#ifndef TANSY_CLI_OBJECT_VERSION_H
#define TANSY_CLI_OBJECT_VERSION_H

#include <cstdint>
#include <optional>
#include <string>

#include "ObjectUrl.h"
#include "Persistence.h"
#include "Settings.h"

namespace Tansy::Cli {

// What tells one content of an object from the next.
struct ObjectVersion {
  std::uint64_t size = 0;
  std::string tag;  // the server's ETag; empty when the server gives none

  bool operator==(const ObjectVersion&) const = default;
};

// The object as it is now. Throws CFailure about `url`.
ObjectVersion AskVersion(const Settings& settings, const ObjectUrl& url, EPatience patience = EPatience::kNone);
// The same, or nothing when there is no such object.
std::optional<ObjectVersion> FindVersion(const Settings& settings, const ObjectUrl& url, EPatience patience);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OBJECT_VERSION_H
