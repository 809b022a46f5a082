// The module's object client, set up for this program, and what its errors mean to people.
#ifndef TANSY_CLI_MODULE_CLIENT_H
#define TANSY_CLI_MODULE_CLIENT_H

#include <functional>
#include <string>

#include "Failure.h"
#include "Settings.h"
#include "TansyCloudStorage/ObjectClient.h"

namespace Tansy::Cli {

// A client of its own for each transfer, so that its last error is that transfer's. `progress` may be empty; it is
// given the percentage done.
CloudStorage::CObjectClient MakeObjectClient(const Settings& settings, const std::string& bucket,
                                             const std::function<void(int percent)>& progress = {});

// What the client's last error means.
CFailure FailureOfClient(CloudStorage::CObjectClient& client, const std::string& server);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_MODULE_CLIENT_H
