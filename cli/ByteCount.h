#ifndef TANSY_CLI_BYTE_COUNT_H
#define TANSY_CLI_BYTE_COUNT_H

#include <cstdint>
#include <string>

namespace Tansy::Cli {

// Reads a number of bytes such as "500", "64K", "10M" or "1G" (of 1024 each), at least 1. Throws CFailure with
// kExitUsage about `option`.
std::uint64_t ParseByteCount(const std::string& option, const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BYTE_COUNT_H
