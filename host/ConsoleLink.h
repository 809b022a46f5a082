// Links to the S3 server that a browser uses instead of a key.
#ifndef TANSY_HOST_CONSOLE_LINK_H
#define TANSY_HOST_CONSOLE_LINK_H

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ConsolePlace.h"
#include "ConsoleSessions.h"

namespace Tansy::Host {

// One request to the S3 server that is to be signed.
struct LinkToSign {
  using NameValue = std::pair<std::string, std::string>;

  std::string method;
  std::string bucket;  // empty: the list of buckets
  std::string key;     // empty: the bucket itself
  std::vector<NameValue> query;
  std::vector<NameValue> headers;  // that the browser will send exactly so; others may be sent too, unless x-amz-...
  std::int64_t seconds = 0;        // for which it counts

  static constexpr std::int64_t kLongest = std::int64_t{7} * 24 * 3600;
};

// Says in words what is wrong with it, or why this key may not have it; the text is empty when nothing is.
std::string CheckLink(const LinkToSign& link, const ConsoleKey& key);

// Gives the link, which is signed by version 4 for the S3 server at `place`. It must have passed CheckLink.
std::string SignLink(const LinkToSign& link, const ConsoleKey& key, const ConsolePlace& place, std::string_view region,
                     std::time_t now);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_LINK_H
