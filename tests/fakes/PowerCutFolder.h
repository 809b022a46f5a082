#ifndef TANSY_TESTS_FAKES_POWER_CUT_FOLDER_H
#define TANSY_TESTS_FAKES_POWER_CUT_FOLDER_H

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "HostSystem/Files.h"

namespace Tansy::Tests {

// A file system in memory that remembers what has reached the disk: bytes only by IFile::Sync, names only by
// IFolder::Sync of the folder that holds them. Cut() forgets everything else, as the worst power failure would.
// A plan makes the n-th operation of the whole tree fail. One thread.
struct PowerCutPlan {
  int operations = 0;
  int fail_at = -1;  // counted from 0; -1: never
  int error = EIO;
  bool throws = false;                // the failing operation finds no memory
  std::uint64_t room = 0;             // bytes that may still be written; 0: that is not known
  std::function<void()> during_sync;  // what others do while a file is being synced; may be empty

  int Step() {
    const bool fails = operations++ == fail_at;
    if (fails && throws) {
      throw std::bad_alloc();
    }
    return fails ? error : 0;
  }
};

struct PowerCutNode {
  bool is_folder = false;
  std::string bytes;
  std::string bytes_on_disk;
  std::map<std::string, std::shared_ptr<PowerCutNode>> entries;
  std::map<std::string, std::shared_ptr<PowerCutNode>> entries_on_disk;

  void Cut() {
    bytes = bytes_on_disk;
    entries = entries_on_disk;
    for (const auto& [name, node] : entries) {
      node->Cut();
    }
  }
};

class CPowerCutFile final : public HostSystem::IFile {
 public:
  CPowerCutFile(std::shared_ptr<PowerCutNode> node, std::shared_ptr<PowerCutPlan> plan)
      : node_(std::move(node)), plan_(std::move(plan)) {}

  int WriteAt(const char* data, std::size_t size, std::uint64_t offset) override {
    const int error = plan_->Step();
    // A write that fails has written half of its bytes.
    const std::size_t written = error == 0 ? size : size / 2;
    if (written > 0) {
      node_->bytes.resize(std::max<std::size_t>(node_->bytes.size(), offset + written), '\0');
      std::copy_n(data, written, node_->bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    return error;
  }
  int ReadAt(char* data, std::size_t size, std::uint64_t offset, std::size_t& done) override {
    const std::size_t begin = std::min<std::size_t>(offset, node_->bytes.size());
    done = std::min(size, node_->bytes.size() - begin);
    std::copy_n(node_->bytes.begin() + static_cast<std::ptrdiff_t>(begin), done, data);
    return 0;
  }
  int GetSize(std::uint64_t& size) override {
    size = node_->bytes.size();
    return 0;
  }
  void StartWriteOut(std::uint64_t /*offset*/, std::uint64_t /*size*/) override {}
  int Sync() override {
    const int error = plan_->Step();
    if (error == 0) {
      node_->bytes_on_disk = node_->bytes;
    }
    if (plan_->during_sync) {
      plan_->during_sync();
    }
    return error;
  }

 private:
  std::shared_ptr<PowerCutNode> node_;
  std::shared_ptr<PowerCutPlan> plan_;
};

class CPowerCutFolder final : public HostSystem::IFolder {
 public:
  CPowerCutFolder(std::shared_ptr<PowerCutNode> node, std::shared_ptr<PowerCutPlan> plan)
      : node_(std::move(node)), plan_(std::move(plan)) {}

  int Create(const std::string& name, std::unique_ptr<HostSystem::IFile>& file) override {
    const auto [parent, last] = ParentOf(name);
    if (parent == nullptr || parent->entries.count(last) > 0) {
      return parent == nullptr ? ENOENT : EEXIST;
    }
    if (const int error = plan_->Step()) {
      return error;
    }
    parent->entries[last] = std::make_shared<PowerCutNode>();
    file = std::make_unique<CPowerCutFile>(parent->entries[last], plan_);
    return 0;
  }
  int OpenForReading(const std::string& name, std::unique_ptr<HostSystem::IFile>& file) override {
    const std::shared_ptr<PowerCutNode> node = Find(name);
    if (node == nullptr) {
      return ENOENT;
    }
    file = std::make_unique<CPowerCutFile>(node, plan_);
    return 0;
  }
  int OpenForWriting(const std::string& name, std::unique_ptr<HostSystem::IFile>& file) override {
    const int error = plan_->Step();
    return error == 0 ? OpenForReading(name, file) : error;
  }
  int OpenFolder(const std::string& name, std::unique_ptr<HostSystem::IFolder>& folder) override {
    const std::shared_ptr<PowerCutNode> node = Find(name);
    if (node == nullptr || !node->is_folder) {
      return node == nullptr ? ENOENT : ENOTDIR;
    }
    folder = std::make_unique<CPowerCutFolder>(node, plan_);
    return 0;
  }
  int MakeFolder(const std::string& name) override {
    const auto [parent, last] = ParentOf(name);
    if (parent == nullptr || parent->entries.count(last) > 0) {
      return parent == nullptr ? ENOENT : EEXIST;
    }
    if (const int error = plan_->Step()) {
      return error;
    }
    parent->entries[last] = std::make_shared<PowerCutNode>();
    parent->entries[last]->is_folder = true;
    return 0;
  }
  int Rename(const std::string& from, const std::string& to) override {
    const auto item = node_->entries.find(from);
    if (item == node_->entries.end()) {
      return ENOENT;
    }
    if (const int error = plan_->Step()) {
      return error;
    }
    const std::shared_ptr<PowerCutNode> node = item->second;
    node_->entries.erase(item);
    node_->entries[to] = node;
    return 0;
  }
  // The removal after a failure never fails here, because nobody could do anything about that.
  int Remove(const std::string& name) override {
    const auto [parent, last] = ParentOf(name);
    return parent != nullptr && parent->entries.erase(last) > 0 ? 0 : ENOENT;
  }
  int RemoveFolder(const std::string& name) override { return Remove(name); }
  int List(std::vector<HostSystem::FolderEntry>& entries) override {
    for (const auto& [name, node] : node_->entries) {
      entries.push_back({name, node->is_folder, !node->is_folder, node->bytes.size(), 0});
    }
    return 0;
  }
  int GetRoom(std::uint64_t& total, std::uint64_t& available) override {
    total = std::uint64_t{1} << 40;
    available = plan_->room;
    return plan_->room == 0 ? ENOSYS : 0;
  }
  int Sync() override {
    const int error = plan_->Step();
    if (error == 0) {
      node_->entries_on_disk = node_->entries;
    }
    return error;
  }

 private:
  std::shared_ptr<PowerCutNode> Find(const std::string& name) const {
    const auto [parent, last] = ParentOf(name);
    if (parent == nullptr) {
      return nullptr;
    }
    const auto item = parent->entries.find(last);
    return item == parent->entries.end() ? nullptr : item->second;
  }
  std::pair<std::shared_ptr<PowerCutNode>, std::string> ParentOf(const std::string& name) const {
    std::shared_ptr<PowerCutNode> folder = node_;
    std::string rest = name;
    for (std::size_t slash = rest.find('/'); slash != std::string::npos; slash = rest.find('/')) {
      const auto item = folder->entries.find(rest.substr(0, slash));
      if (item == folder->entries.end() || !item->second->is_folder) {
        return {nullptr, ""};
      }
      folder = item->second;
      rest = rest.substr(slash + 1);
    }
    return {folder, rest};
  }

  std::shared_ptr<PowerCutNode> node_;
  std::shared_ptr<PowerCutPlan> plan_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_POWER_CUT_FOLDER_H
