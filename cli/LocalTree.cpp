#include "LocalTree.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "LocalFile.h"

namespace Tansy::Cli {
namespace details {
namespace {

// The names in a folder lie behind its own name and a slash.
std::string SortKey(const HostSystem::FolderEntry& entry) {
  return entry.error == 0 && entry.is_folder ? entry.name + "/" : entry.name;
}

bool IsBefore(const HostSystem::FolderEntry& left, const HostSystem::FolderEntry& right) {
  return SortKey(left) < SortKey(right);
}

}  // namespace
}  // namespace details

CLocalWalk::CLocalWalk(HostSystem::IFolder& top, std::string path) : top_(top), path_(std::move(path)) {
  Enter(nullptr, "");
}

void CLocalWalk::Enter(std::unique_ptr<HostSystem::IFolder> folder, const std::string& prefix) {
  Level level;
  level.prefix = prefix;
  HostSystem::IFolder& opened = folder == nullptr ? top_ : *folder;
  if (const int error = opened.List(level.entries); error != 0) {
    left_out_.failures.push_back(FailureOfFile(path_ + "/" + prefix, error));
    return;
  }
  std::sort(level.entries.begin(), level.entries.end(), details::IsBefore);
  level.folder = std::move(folder);
  levels_.push_back(std::move(level));
}

std::optional<LocalEntry> CLocalWalk::Next() {
  while (!levels_.empty()) {
    Level& level = levels_.back();
    if (level.next == level.entries.size()) {
      levels_.pop_back();
      continue;
    }
    const HostSystem::FolderEntry entry = std::move(level.entries[level.next++]);
    if (std::optional<LocalEntry> file = Take(entry)) {
      return file;
    }
  }
  return std::nullopt;
}

std::optional<LocalEntry> CLocalWalk::Take(const HostSystem::FolderEntry& entry) {
  const Level& level = levels_.back();
  const std::string name = level.prefix + entry.name;
  if (entry.error != 0) {
    const bool is_said = has_unknown_ && unknown_in_ == level.prefix;
    if (entry.error != ENOENT && !is_said) {
      has_unknown_ = true;
      unknown_in_ = level.prefix;
      left_out_.failures.push_back(FailureOfFile(path_ + "/" + name, entry.error));
    }
  } else if (entry.is_folder) {
    HostSystem::IFolder& folder = level.folder == nullptr ? top_ : *level.folder;
    std::unique_ptr<HostSystem::IFolder> below;
    if (const int error = folder.OpenFolder(entry.name, below); error != 0) {
      left_out_.failures.push_back(FailureOfFile(path_ + "/" + name, error));
    } else {
      Enter(std::move(below), name + "/");
    }
  } else if (!entry.is_file || IsOwnHiddenFile(entry.name)) {
    left_out_.skipped.push_back(name);
  } else {
    return LocalEntry{name, entry.size};
  }
  return std::nullopt;
}

std::unique_ptr<HostSystem::IFolder> OpenToWalk(const std::string& path) {
  int error = 0;
  std::unique_ptr<HostSystem::IFolder> top = HostSystem::OpenFolder(path, error);
  if (top == nullptr) {
    throw FailureOfFile(path, error);
  }
  return top;
}

LocalTree WalkFolder(const std::string& path) {
  return WalkFolder(*OpenToWalk(path), path);
}

LocalTree WalkFolder(HostSystem::IFolder& top, const std::string& path) {
  CLocalWalk walk(top, path);
  std::vector<LocalEntry> files;
  while (std::optional<LocalEntry> file = walk.Next()) {
    files.push_back(std::move(*file));
  }
  LocalTree tree = walk.LeftOut();
  tree.files = std::move(files);
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
