#include "Configuration.h"

#include "HostSystem/Files.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

std::string FolderOf(const std::string& path) {
  return path.substr(0, path.find_last_of('/') + 1);
}

bool IsAbsolute(const std::string& path) {
  return HostSystem::AbsolutePath(path) == path;
}

}  // namespace
}  // namespace details

FoundSettings FindSettings(const OptionTexts& given) {
  FoundSettings found;
  HostOptions scratch;
  ApplyOptions(scratch, given, "", "--", kExitUsage);
  if (!scratch.config.empty()) {
    found.config_path = HostSystem::AbsolutePath(scratch.config);
    if (!ReadSettings(found.config_path, true, found.settings)) {
      throw CStartFailure(kExitFailed, "settings file " + found.config_path + " does not exist");
    }
  }
  found.data = scratch.data;
  const auto setting = found.settings.texts.find("data");
  if (setting != found.settings.texts.end() && !given.contains("data")) {
    const bool is_absolute = details::IsAbsolute(setting->second);
    found.data = (is_absolute ? "" : details::FolderOf(found.config_path)) + setting->second;
  }
  return found;
}

}  // namespace Tansy::Host
