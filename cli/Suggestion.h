#ifndef TANSY_CLI_SUGGESTION_H
#define TANSY_CLI_SUGGESTION_H

#include <string>
#include <vector>

namespace Tansy::Cli {

// The word that was probably meant by a mistyped one: one or two letters away, fewer for short words. "" when there is
// none.
std::string Suggest(const std::string& typed, const std::vector<std::string>& words);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SUGGESTION_H
