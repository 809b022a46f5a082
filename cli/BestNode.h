#ifndef TANSY_CLI_BEST_NODE_H
#define TANSY_CLI_BEST_NODE_H

#include <string>

#include "Persistence.h"
#include "Settings.h"

namespace Tansy::Cli {

// Which address the server wants uploads to `bucket` to go to, "HOST:PORT". Throws CFailure.
std::string AskBestNode(const Settings& settings, const std::string& bucket, EPatience patience = EPatience::kNone);

// The same as an address, spoken to as the server itself is: over HTTP or HTTPS. Throws CFailure.
ServerAddress BestNodeAddress(const Settings& settings, const std::string& bucket,
                              EPatience patience = EPatience::kNone);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BEST_NODE_H
