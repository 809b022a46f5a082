#ifndef TANSY_CLI_DURATION_H
#define TANSY_CLI_DURATION_H

#include <cstdint>
#include <string>

namespace Tansy::Cli {

// Gives the seconds of "90s", "15m", "2h", "7d" or "4w", the value of --expires. Throws CFailure with kExitUsage.
std::int64_t ParseDuration(const std::string& text);
// Gives the second since 1970 at which something ends that is to end after a duration, or at the beginning of a day
// such as "2027-01-31" (UTC). Throws CFailure with kExitUsage.
std::int64_t ParseEnd(const std::string& text, std::int64_t now);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DURATION_H
