#ifndef TANSY_HOST_SETTINGS_H
#define TANSY_HOST_SETTINGS_H

#include <cstddef>
#include <string>

#include "Options.h"

namespace Tansy::Host {

// A larger settings file is refused. The limit is in bytes.
inline constexpr std::size_t kLargestSettingsFile = std::size_t{1024} * 1024;

// The settings file as text values. What an option's value means is up to ApplyOptions.
struct Settings {
  OptionTexts texts;
  std::string access_key;  // keys of [credentials]; both are empty when the file has none
  std::string secret_key;
};

// Reads TOML text. `path` is for messages. `data` says whether the file may name the data folder: a file that lies in
// the data folder may not. Throws CStartFailure with kExitFailed when the text is no TOML, when a key does not exist
// (the message names it), or when a value has a wrong type.
Settings ParseSettings(const std::string& content, const std::string& path, bool may_name_data);

// Reads the file and returns false when there is none. Throws as ParseSettings does, and when the file cannot be read.
bool ReadSettings(const std::string& path, bool may_name_data, Settings& settings);

// Gives `content` with a [credentials] table of these two keys. They are put into an empty table of that name when
// there is one, at the end otherwise. Everything else, comments included, stays as it is.
std::string AddCredentials(const std::string& content, const std::string& access_key, const std::string& secret_key);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SETTINGS_H
