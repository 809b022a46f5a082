#include "FirstParts.h"

#include <cerrno>
#include <memory>
#include <string_view>

#include "HostLog.h"
#include "HostSystem/Files.h"
#include "StoreRoom.h"
#include "TansyCloudStorage/ObjectServer.h"

namespace Tansy::Host {
namespace details {
namespace {

// Gives the upload id in "<id>_<part number>", or in the same with ".new" behind it, which is a file that was being
// written. The result is empty for other names.
std::string TaskIdOf(std::string name) {
  constexpr std::string_view kUnfinished = ".new";
  if (name.ends_with(kUnfinished)) {
    name.resize(name.size() - kUnfinished.size());
  }
  const std::size_t mark = name.rfind('_');
  if (mark == std::string::npos || mark + 1 == name.size() ||
      name.find_first_not_of("0123456789", mark + 1) != std::string::npos) {
    return "";
  }
  return name.substr(0, mark);
}

CStoreRoom* g_room = nullptr;  // the server may ask until the process ends

int BeginFile(std::uint64_t bytes) {
  constexpr int kNoSpace = 3;  // as the server understands it
  return g_room->Begin(bytes) ? 0 : kNoSpace;
}

void EndFile(std::uint64_t bytes) {
  g_room->End(bytes);
}

bool Report(const std::string& what, int error) {
  HOST_LOG(logging::kError, "[%s]%s failed: %s.[%s(%d)]", what.c_str(), HostSystem::ErrorText(error).c_str());
  return false;
}

}  // namespace
}  // namespace details

bool FindDeadFirstParts(const std::function<bool(std::set<std::string>& ids)>& get_tasks,
                        std::vector<DeadFirstPart>& dead) {
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
  std::set<std::string> tasks;
  if (entries.empty() || !get_tasks(tasks)) {
    return entries.empty();
  }
  for (const HostSystem::FolderEntry& entry : entries) {
    const std::string task = details::TaskIdOf(entry.name);
    if (entry.is_file && !task.empty() && tasks.count(task) == 0) {
      dead.push_back({entry.name, entry.size});
    }
  }
  return true;
}

bool RemoveFirstPart(const std::string& name) {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(kFirstPartFolder, error);
  if (error == 0) {
    error = folder->Remove(name);
  }
  if (error != 0 && error != ENOENT) {
    return details::Report("removing first part " + name, error);
  }
  HOST_LOG(logging::kNotable, "[%s]removed first part %s, its task is gone.[%s(%d)]", name.c_str());
  return true;
}

void KeepRoomBesideFirstParts() {
  int error = 0;
  if (details::g_room == nullptr) {
    std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(".", error);
    details::g_room = folder == nullptr ? nullptr : new CStoreRoom(*folder.release());
  }
  if (details::g_room == nullptr) {
    details::Report("opening the folder of first parts", error);
    return;
  }
  CloudStorage::SetFirstPartRoomCallbacks(&details::BeginFile, &details::EndFile);
}

}  // namespace Tansy::Host
