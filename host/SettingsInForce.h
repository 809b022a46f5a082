#ifndef TANSY_HOST_SETTINGS_IN_FORCE_H
#define TANSY_HOST_SETTINGS_IN_FORCE_H

#include <string>
#include <utility>
#include <vector>

#include "Options.h"

namespace Tansy::Host {

// Gives the value of every option, in the order of OptionTable, written as the option takes it; "" stands for one that
// is not set. Lists have commas between their values. There is no secret in it: of a database's URL, password and
// parameters are left out.
std::vector<std::pair<std::string, std::string>> SettingsInForce(const HostOptions& options);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SETTINGS_IN_FORCE_H
