#include "Settings.h"

#include <toml++/toml.h>
#include <algorithm>

#include <cerrno>
#include <string_view>
#include <vector>

#include "HostSystem/Files.h"
#include "PrintableText.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::string_view kCredentials = "credentials";
constexpr std::string_view kAccessKey = "access_key";
constexpr std::string_view kSecretKey = "secret_key";

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
  throw CStartFailure(kExitFailed, "settings file " + path + ": " + what);
}

toml::table ParseToml(const std::string& content, const std::string& path) {
  try {
    return toml::parse(content);
  } catch (const toml::parse_error& error) {
    // The parser's own message is left out, because it may quote the line, and the line may hold a secret.
    Fail(path, "line " + std::to_string(error.source().begin.line) + " is not valid TOML");
  }
}

// Returns null for a name that no settings file can hold.
const OptionRow* FindOption(std::string_view name) {
  const auto row = std::find_if(OptionTable().begin(), OptionTable().end(),
                                [name](const OptionRow& option) { return name == option.name; });
  return name == "config" || row == OptionTable().end() ? nullptr : &*row;
}

std::string TextValue(const toml::node& node, const std::string& path, const std::string& key) {
  if (const auto* text = node.as_string()) {
    return text->get();
  }
  if (const auto* number = node.as_integer()) {
    return std::to_string(number->get());
  }
  Fail(path, key + " must be a text or a whole number");
}

// Joins the texts of an array with commas, as on the command line; a single text counts as an array of one.
std::string ListValue(const toml::node& node, const std::string& path, const std::string& key) {
  const toml::array* array = node.as_array();
  if (array == nullptr) {
    return TextValue(node, path, key);
  }
  std::string joined;
  for (const toml::node& item : *array) {
    joined += (joined.empty() ? "" : ",") + TextValue(item, path, key);
  }
  return joined;
}

void ReadCredentials(const toml::node& node, const std::string& path, Settings& settings,
                     std::vector<std::string>& unknown) {
  const toml::table* table = node.as_table();
  if (table == nullptr) {
    Fail(path, "credentials must be a table: [credentials]");
  }
  for (const auto& [key, value] : *table) {
    const std::string name = "credentials." + std::string(key.str());
    if (key.str() != kAccessKey && key.str() != kSecretKey) {
      unknown.push_back(name);
      continue;
    }
    if (!value.is_string() || value.as_string()->get().empty()) {
      Fail(path, name + " must be a text that is not empty");
    }
    (key.str() == kAccessKey ? settings.access_key : settings.secret_key) = value.as_string()->get();
  }
  if (settings.access_key.empty() != settings.secret_key.empty()) {
    Fail(path, "[credentials] needs both access_key and secret_key, or neither");
  }
}

std::string Joined(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) {
    joined += (joined.empty() ? "" : ", ") + Printable(name);
  }
  return joined;
}

std::string TomlString(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + "\"";
}

// Gives the place where the line after the header of an existing [credentials] table begins; npos when there is no such
// header.
std::size_t AfterCredentialsHeader(const std::string& content) {
  const toml::table root = toml::parse(content);
  const toml::node* node = root.get(kCredentials);
  if (node == nullptr) {
    return std::string::npos;
  }
  std::size_t position = 0;
  for (toml::source_index line = node->source().begin.line; line > 0 && position != std::string::npos; --line) {
    position = content.find('\n', position);
    position = position == std::string::npos ? content.size() : position + 1;
  }
  return position;
}

}  // namespace
}  // namespace details

Settings ParseSettings(const std::string& content, const std::string& path, bool may_name_data) {
  Settings settings;
  std::vector<std::string> unknown;
  for (const auto& [key, value] : details::ParseToml(content, path)) {
    const std::string name(key.str());
    if (name == details::kCredentials) {
      details::ReadCredentials(value, path, settings, unknown);
      continue;
    }
    const OptionRow* option = details::FindOption(name);
    if (option == nullptr) {
      unknown.push_back(name);
    } else if (name == "data" && !may_name_data) {
      details::Fail(path, "data cannot be set in a file that lies in the data folder");
    } else {
      settings.texts[name] =
          option->is_list ? details::ListValue(value, path, name) : details::TextValue(value, path, name);
    }
  }
  if (!unknown.empty()) {
    details::Fail(path, std::string(unknown.size() == 1 ? "unknown key " : "unknown keys ") + details::Joined(unknown));
  }
  return settings;
}

bool ReadSettings(const std::string& path, bool may_name_data, Settings& settings) {
  std::string content;
  const int error = HostSystem::ReadWholeFile(path, kLargestSettingsFile, content);
  if (error == ENOENT) {
    return false;
  }
  if (error != 0) {
    details::Fail(path, "cannot be read: " + HostSystem::ErrorText(error));
  }
  settings = ParseSettings(content, path, may_name_data);
  return true;
}

std::string AddCredentials(const std::string& content, const std::string& access_key, const std::string& secret_key) {
  const std::string keys = std::string(details::kAccessKey) + " = " + details::TomlString(access_key) + "\n" +
                           std::string(details::kSecretKey) + " = " + details::TomlString(secret_key) + "\n";
  std::string result = content;
  if (!result.empty() && result.back() != '\n') {
    result += '\n';
  }
  const std::size_t position = details::AfterCredentialsHeader(result);
  if (position != std::string::npos) {
    return result.insert(position, keys);
  }
  return result + (result.empty() ? "" : "\n") + "[credentials]\n" + keys;
}

}  // namespace Tansy::Host
