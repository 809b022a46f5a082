#ifndef TANSY_CLI_BEST_NODE_H
#define TANSY_CLI_BEST_NODE_H

#include <string>

#include "Persistence.h"
#include "Settings.h"

namespace Tansy::Cli {

// Asks to which address the server wants uploads to `bucket` to go, "HOST:PORT". Throws CFailure.
std::string AskBestNode(const Settings& settings, const std::string& bucket, EPatience patience = EPatience::kNone);

// Gives the same as an address, with HTTP or HTTPS as for the server itself. Throws CFailure.
ServerAddress BestNodeAddress(const Settings& settings, const std::string& bucket,
                              EPatience patience = EPatience::kNone);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BEST_NODE_H
