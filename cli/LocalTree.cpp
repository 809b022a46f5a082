#include "LocalTree.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "LocalFile.h"

namespace Tansy::Cli {
namespace details {
namespace {

void Walk(HostSystem::IFolder& folder, const std::string& path, const std::string& prefix, LocalTree& tree) {
  std::vector<HostSystem::FolderEntry> entries;
  if (const int error = folder.List(entries); error != 0) {
    tree.failures.push_back(FailureOfFile(path + "/" + prefix, error));
    return;
  }
  bool has_unknown = false;  // one failure says it for the whole folder
  for (const HostSystem::FolderEntry& entry : entries) {
    const std::string name = prefix + entry.name;
    if (entry.error != 0) {
      if (entry.error != ENOENT && !has_unknown) {
        has_unknown = true;
        tree.failures.push_back(FailureOfFile(path + "/" + name, entry.error));
      }
    } else if (entry.is_folder) {
      std::unique_ptr<HostSystem::IFolder> below;
      if (const int error = folder.OpenFolder(entry.name, below); error != 0) {
        tree.failures.push_back(FailureOfFile(path + "/" + name, error));
      } else {
        Walk(*below, path, name + "/", tree);
      }
    } else if (!entry.is_file || IsOwnHiddenFile(entry.name)) {
      tree.skipped.push_back(name);
    } else {
      tree.files.push_back({name, entry.size});
    }
  }
}

}  // namespace
}  // namespace details

LocalTree WalkFolder(const std::string& path) {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> top = HostSystem::OpenFolder(path, error);
  if (top == nullptr) {
    throw FailureOfFile(path, error);
  }
  return WalkFolder(*top, path);
}

LocalTree WalkFolder(HostSystem::IFolder& top, const std::string& path) {
  LocalTree tree;
  details::Walk(top, path, "", tree);
  std::sort(tree.files.begin(), tree.files.end(),
            [](const LocalEntry& left, const LocalEntry& right) { return left.name < right.name; });
  std::sort(tree.skipped.begin(), tree.skipped.end());
  return tree;
}

bool IsSkipped(const LocalTree& tree, const std::string& name) {
  for (std::size_t end = name.find('/');; end = name.find('/', end + 1)) {
    if (std::binary_search(tree.skipped.begin(), tree.skipped.end(), name.substr(0, end))) {
      return true;
    }
    if (end == std::string::npos) {
      return false;
    }
  }
}

bool IsOwnHiddenFile(const std::string& name) {
  return name.starts_with(".tansy-") && (name.ends_with(".part") || name.ends_with(".pin") || name.ends_with(".lock"));
}

}  // namespace Tansy::Cli
