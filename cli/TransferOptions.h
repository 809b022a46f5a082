// The options that all commands have which carry many files.
#ifndef TANSY_CLI_TRANSFER_OPTIONS_H
#define TANSY_CLI_TRANSFER_OPTIONS_H

#include <cstddef>
#include <vector>

#include "CommandSpec.h"

namespace Tansy::Cli {

// Gives `options` followed by --jobs and --limit-rate.
std::vector<OptionSpec> WithTransferOptions(std::vector<OptionSpec> options);

// Reads --jobs: how many files, or parts of large ones, go at the same time. A small --limit-rate allows fewer. Throws
// CFailure with kExitUsage.
std::size_t JobsOf(const CommandCall& call);
// Makes --limit-rate hold for this process, when it is given. It is called before anything is sent. Throws CFailure
// with kExitUsage.
void ApplyRateLimit(const CommandCall& call);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TRANSFER_OPTIONS_H
