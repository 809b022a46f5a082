#ifndef TANSY_HOST_CONFIGURATION_H
#define TANSY_HOST_CONFIGURATION_H

#include <string>

#include "Options.h"
#include "Settings.h"

namespace Tansy::Host {

// What the command line says about where settings and data are.
struct FoundSettings {
  std::string config_path;  // of the file that was named; empty: the one in the data folder, which was not read yet
  Settings settings;        // of the file that was named
  std::string data;         // the data folder
};

// Checks the options of the command line and reads the settings file that they name. Throws CStartFailure.
FoundSettings FindSettings(const OptionTexts& given);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONFIGURATION_H
