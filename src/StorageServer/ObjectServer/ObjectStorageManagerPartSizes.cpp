// What the catalogue knows about the part sizes of multipart uploads. This is kept in memory only; after a restart it
// is recovered from the rows of the parts and the file of the first part.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/FirstPartFile.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

using Arrived = std::vector<const ObjectTaskInfo*>;

// Gives the parts that arrived, in the order of their numbers. The row that stands for the task has size 0 until its
// part comes.
Arrived ArrivedParts(const TaskPartSet& rows) {
  Arrived parts;
  for (const ObjectTaskInfo& row : rows) {
    if (row.size > 0) {
      parts.push_back(&row);
    }
  }
  return parts;
}

// Finds the part that arrived first: a file of its size is there. Returns null when it cannot be found.
const ObjectTaskInfo* FindFirstPart(const Arrived& parts) {
  const ObjectTaskInfo* first = nullptr;
  for (const ObjectTaskInfo* part : parts) {
    std::uint64_t size = 0;
    if (!FirstPartSize(FirstPartPath(part->task_id, part->part_num), size)) {
      continue;
    }
    if (first != nullptr || size != part->size) {
      return nullptr;
    }
    first = part;
  }
  return first;
}

// Finds the part size, which all parts except the highest-numbered one have. Returns false when they differ.
bool FindPartSize(std::uint32_t& part_size, const Arrived& parts) {
  part_size = parts.size() > 1 ? parts.front()->size : 0;
  return std::all_of(parts.begin(), parts.end() - 1,
                     [part_size](const ObjectTaskInfo* part) { return part->size == part_size; });
}

// Gives what was known before the restart; nothing when no part had arrived.
PartSizeInfo Recover(const TaskPartSet& rows) {
  PartSizeInfo info;
  const Arrived parts = ArrivedParts(rows);
  if (parts.empty()) {
    return info;
  }
  const ObjectTaskInfo* first = FindFirstPart(parts);
  info.is_lost = first == nullptr || !FindPartSize(info.part_size, parts);
  if (first != nullptr) {
    info.first_part_num = first->part_num;
    info.first_part_size = first->size;
    info.first_part_path = FirstPartPath(first->task_id, first->part_num);
  }
  return info;
}

bool HasFirstPart(const PartSizeInfo& info) {
  return info.first_part_num != 0 || info.is_lost;
}

}  // namespace
}  // namespace details

// An upload that a restart interrupted goes on as if nothing had happened, or it is refused from here on: a part that
// was acknowledged and cannot be found must not become a hole in an object.
void CObjectStorageManager::RecoverPartSizes() {
  std::map<std::string, TaskPartSet> tasks;
  {
    const std::lock_guard<std::mutex> lock(task_mutex_);
    tasks = tasks_;
  }
  for (const auto& [task_id, rows] : tasks) {
    PartSizeInfo info = details::Recover(rows);
    if (!details::HasFirstPart(info)) {
      continue;
    }
    if (info.is_lost) {
      CLOUD_LOG(logging::kError, "[%s]task[%s] cannot go on, its first part is not there or not whole.[%s(%d)]",
                task_id.c_str());
    }
    info.file_mutex = std::make_shared<std::mutex>();
    const std::lock_guard<std::mutex> lock(part_size_mutex_);
    part_sizes_.try_emplace(task_id, std::move(info));
  }
}

bool CObjectStorageManager::CheckPartSize(const std::string& task_id, std::uint32_t part_num, std::uint32_t size,
                                          std::uint32_t& part_size) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  PartSizeInfo& info = part_sizes_[task_id];
  if (!info.file_mutex) {
    info.file_mutex = std::make_shared<std::mutex>();
  }
  if (!details::HasFirstPart(info)) {
    info.first_part_num = part_num;
    info.first_part_size = size;
    return true;
  }
  if (info.part_size == 0) {
    if (info.first_part_num == part_num) {
      return true;
    }
    // Only the last part may be smaller, so all parts have the size of the lower-numbered one of the first two.
    info.part_size = info.first_part_num > part_num ? size : info.first_part_size;
  }
  part_size = info.part_size;
  return false;
}

bool CObjectStorageManager::SetFirstPartInfo(const std::string& task_id, const PartSizeInfo& info) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  const auto [entry, inserted] = part_sizes_.try_emplace(task_id, info);
  if (inserted || entry->second.first_part_num != info.first_part_num) {
    return false;
  }
  entry->second.first_part_size = info.first_part_size;
  entry->second.first_part_path = info.first_part_path;
  return true;
}

bool CObjectStorageManager::GetPartFileMutex(const std::string& task_id, std::shared_ptr<std::mutex>& file_mutex) {
  const bool is_task = IsTaskThere(task_id);
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  if (!is_task && !part_sizes_.contains(task_id)) {
    return false;
  }
  PartSizeInfo& info = part_sizes_[task_id];
  if (!info.file_mutex) {
    info.file_mutex = std::make_shared<std::mutex>();
  }
  file_mutex = info.file_mutex;
  return true;
}

bool CObjectStorageManager::GetFirstPartInfo(const std::string& task_id, PartSizeInfo& info) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  const auto found = part_sizes_.find(task_id);
  if (found == part_sizes_.end() || !details::HasFirstPart(found->second)) {
    return false;
  }
  info = found->second;
  return true;
}

void CObjectStorageManager::RestorePartSize(const std::string& task_id, PartSizeInfo info) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  if (const auto found = part_sizes_.find(task_id); found != part_sizes_.end()) {
    info.file_mutex = found->second.file_mutex;
    found->second = std::move(info);
  }
}

bool CObjectStorageManager::RemovePartSizeInfo(const std::string& task_id) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  return part_sizes_.erase(task_id) != 0;
}

// The sweep removes tasks and leaves their part sizes, so that a late part of a removed task is still told from a part
// of a task that never existed. The sizes must not pile up for ever: whenever there are twice as many as were needed,
// and a minimum on top, those without a task are dropped. An upload id is never used again, so an entry without a task
// never gets one.
void CObjectStorageManager::DropPartSizesOfEndedTasks() {
  std::vector<std::string> ids;
  {
    const std::lock_guard<std::mutex> lock(part_size_mutex_);
    if (part_sizes_.size() < drop_part_sizes_at_) {
      return;
    }
    for (const auto& [task_id, info] : part_sizes_) {
      ids.push_back(task_id);
    }
  }
  {
    const std::lock_guard<std::mutex> lock(task_mutex_);
    std::erase_if(ids, [this](const std::string& task_id) { return tasks_.contains(task_id); });
  }
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  for (const std::string& task_id : ids) {
    part_sizes_.erase(task_id);
  }
  drop_part_sizes_at_ = 2 * part_sizes_.size() + kPartSizesToSpare;
}

}  // namespace Tansy::CloudStorage
