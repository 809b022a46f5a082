#ifndef TANSY_HOST_SETTINGS_H
#define TANSY_HOST_SETTINGS_H

#include <string>

#include "Options.h"

namespace Tansy::Host {

// The settings file as text values; what an option's value means is for ApplyOptions to say.
struct Settings {
  OptionTexts texts;
  std::string access_key;  // of [credentials]; both are empty when the file has none
  std::string secret_key;
};

// Reads TOML text. `path` is for messages. `data` says whether the file may name the data folder: one that lies in it
// may not. Throws CStartFailure with kExitFailed: no TOML, keys that do not exist (named), values of a wrong type.
Settings ParseSettings(const std::string& content, const std::string& path, bool may_name_data);

// Reads the file; false when there is none. Throws as ParseSettings does, and when it cannot be read.
bool ReadSettings(const std::string& path, bool may_name_data, Settings& settings);

// `content` with a [credentials] table of these two keys: put into an empty table of that name when there is one, at
// the end otherwise. Everything else, comments included, stays as it is.
std::string AddCredentials(const std::string& content, const std::string& access_key, const std::string& secret_key);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SETTINGS_H
