#ifndef TANSY_CLI_SUGGESTION_H
#define TANSY_CLI_SUGGESTION_H

#include <string>
#include <vector>

namespace Tansy::Cli {

// Gives the word that a mistyped word probably means: it differs in one or two letters, fewer for short words. The
// result is "" when there is none.
std::string Suggest(const std::string& typed, const std::vector<std::string>& words);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SUGGESTION_H
