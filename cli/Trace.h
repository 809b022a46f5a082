#ifndef TANSY_CLI_TRACE_H
#define TANSY_CLI_TRACE_H

#include <string>

namespace Tansy::Cli {

// From now on every request of this process and its answer are shown on standard error, without what would let others
// sign in the user's name. Called once, before anything is sent.
void ShowRequests();

// `text` with the values masked that are good for whoever reads them: signatures, and the tokens of links. The access
// key stays readable.
std::string MaskSecrets(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRACE_H
