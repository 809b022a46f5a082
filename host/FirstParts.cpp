#include "FirstParts.h"

#include <memory>
#include <set>
#include <vector>

#include "Catalogue.h"
#include "HostLog.h"
#include "HostSystem/Files.h"

namespace Tansy::Host {
namespace details {
namespace {

// The upload id in "<id>_<part number>"; empty for other names.
std::string TaskIdOf(const std::string& name) {
  const std::size_t mark = name.rfind('_');
  if (mark == std::string::npos || mark + 1 == name.size() ||
      name.find_first_not_of("0123456789", mark + 1) != std::string::npos) {
    return "";
  }
  return name.substr(0, mark);
}

bool Report(const std::string& what, int error) {
  HOST_LOG(logging::kError, "[%s]%s failed: %s.[%s(%d)]", what.c_str(), HostSystem::ErrorText(error).c_str());
  return false;
}

}  // namespace
}  // namespace details

bool VisitDeadFirstParts(std::time_t time, bool remove, const std::function<void(const DeadFirstPart&)>& visitor) {
  if (HostSystem::GetPathKind(kFirstPartFolder) == HostSystem::EPathKind::kMissing) {
    return true;
  }
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(kFirstPartFolder, error);
  std::vector<HostSystem::FolderEntry> entries;
  if (error == 0) {
    error = folder->List(entries);
  }
  if (error != 0) {
    return details::Report(std::string("listing ") + kFirstPartFolder, error);
  }
  // Asked after the folder: a task is there before its first file is.
  std::set<std::string> tasks;
  if (!GetTaskIds(tasks)) {
    return false;
  }
  bool complete = true;
  for (const HostSystem::FolderEntry& entry : entries) {
    const std::string task = details::TaskIdOf(entry.name);
    if (!entry.is_file || task.empty() || entry.modified > time || tasks.count(task) > 0) {
      continue;
    }
    visitor({entry.name, entry.size});
    if (const int remove_error = remove ? folder->Remove(entry.name) : 0) {
      complete = details::Report("removing first part " + entry.name, remove_error);
    }
  }
  return complete;
}

}  // namespace Tansy::Host
