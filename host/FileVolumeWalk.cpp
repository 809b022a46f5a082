#include "FileVolumeWalk.h"

#include <cerrno>
#include <memory>
#include <vector>

#include "FilePlaces.h"
#include "HostLog.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kIdLength = 32;

class CWalk {
 public:
  CWalk(HostSystem::IFolder& root, std::string volume, EContent content,
        const std::function<bool(const StoredEntry&)>& visitor)
      : root_(root), volume_(std::move(volume)), content_(content), visitor_(visitor) {}

  bool Run() {
    for (const HostSystem::FolderEntry& upper : List(volume_, true)) {
      if (!IsFolder(upper)) {
        continue;
      }
      for (const HostSystem::FolderEntry& lower : List(volume_ + "/" + upper.name, false)) {
        if (IsFolder(lower) && !ShowFiles(upper.name, lower.name)) {
          return complete_;
        }
      }
    }
    return complete_;
  }

 private:
  static bool IsFolder(const HostSystem::FolderEntry& entry) { return entry.is_folder && IsHex(entry.name, 2); }

  std::vector<HostSystem::FolderEntry> List(const std::string& path, bool may_be_missing) {
    std::vector<HostSystem::FolderEntry> entries;
    std::unique_ptr<HostSystem::IFolder> folder;
    int error = root_.OpenFolder(path, folder);
    if (error == ENOENT && may_be_missing) {
      return entries;
    }
    if (error == 0) {
      error = folder->List(entries);
    }
    if (error != 0) {
      HOST_LOG(logging::kError, "[%s]listing %s failed: %s.[%s(%d)]", path.c_str(),
               HostSystem::ErrorText(error).c_str());
      complete_ = false;
    }
    return entries;
  }

  // Returns false when the visitor has seen enough.
  bool ShowFiles(const std::string& upper, const std::string& lower) {
    const std::string path = volume_ + "/" + upper + "/" + lower;
    for (const HostSystem::FolderEntry& file : List(path, false)) {
      const std::string end = file.name.size() > kIdLength ? file.name.substr(kIdLength) : "";
      if (!file.is_file || !IsHex(file.name.substr(0, kIdLength), kIdLength) || (end != ".d" && end != ".tmp")) {
        continue;
      }
      StoredEntry entry;
      entry.name = NameOfFile(volume_, upper + lower, file.name.substr(0, kIdLength));
      entry.path = path + "/" + file.name;
      entry.size = file.size;
      entry.content = content_;
      entry.is_temporary = end == ".tmp";
      if (!visitor_(entry)) {
        return false;
      }
    }
    return true;
  }

  HostSystem::IFolder& root_;
  const std::string volume_;
  const EContent content_;
  const std::function<bool(const StoredEntry&)>& visitor_;
  bool complete_ = true;
};

}  // namespace
}  // namespace details

bool WalkVolume(HostSystem::IFolder& root, const std::string& volume, EContent content,
                const std::function<bool(const StoredEntry&)>& visitor) {
  return details::CWalk(root, volume, content, visitor).Run();
}

}  // namespace Tansy::Host
