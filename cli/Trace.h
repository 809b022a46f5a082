#ifndef TANSY_CLI_TRACE_H
#define TANSY_CLI_TRACE_H

#include <string>

namespace Tansy::Cli {

// Shows, from now on, every request of this process and its answer on standard error, without anything by which others
// could sign in the user's name. It is called once, before anything is sent.
void ShowRequests();

// Masks values that anybody who reads them could use: signatures, and the tokens of links. The access key stays
// readable.
std::string MaskSecrets(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRACE_H
