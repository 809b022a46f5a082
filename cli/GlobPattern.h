#ifndef TANSY_CLI_GLOB_PATTERN_H
#define TANSY_CLI_GLOB_PATTERN_H

#include <string_view>

namespace Tansy::Cli {

// Says whether a name fits a pattern as shells have it: "*" stands for any bytes, slashes too, "?" for one byte,
// "[ab]",
// "[a-z]" and "[!a]" for one of a set; "\" takes the next byte for itself. A "[" that is not closed stands for itself.
bool FitsPattern(std::string_view name, std::string_view pattern);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_GLOB_PATTERN_H
