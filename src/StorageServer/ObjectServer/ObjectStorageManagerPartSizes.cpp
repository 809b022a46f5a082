// What the catalogue knows of the part sizes of multipart uploads; in memory only.
#include <string>
#include <utility>
#include <vector>

#include "StorageServer/ObjectServer/ObjectStorageManager.h"

namespace Tansy::CloudStorage {

bool CObjectStorageManager::CheckPartSize(const std::string& task_id, std::uint32_t part_num, std::uint32_t size,
                                          std::uint32_t& part_size) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  const auto found = part_sizes_.find(task_id);
  if (found == part_sizes_.end()) {
    PartSizeInfo info;
    info.first_part_num = part_num;
    info.first_part_size = size;
    info.file_mutex = std::make_shared<std::mutex>();
    part_sizes_.emplace(task_id, std::move(info));
    return true;
  }
  PartSizeInfo& info = found->second;
  if (info.part_size == 0) {
    if (info.first_part_num == part_num) {
      return true;
    }
    // Only the last part may be smaller, so the lower-numbered of the first two has the size of all.
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
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  const auto found = part_sizes_.find(task_id);
  if (found == part_sizes_.end()) {
    return false;
  }
  file_mutex = found->second.file_mutex;
  return true;
}

bool CObjectStorageManager::GetFirstPartInfo(const std::string& task_id, PartSizeInfo& info) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  const auto found = part_sizes_.find(task_id);
  if (found == part_sizes_.end()) {
    return false;
  }
  info = found->second;
  return true;
}

bool CObjectStorageManager::RemovePartSizeInfo(const std::string& task_id) {
  const std::lock_guard<std::mutex> lock(part_size_mutex_);
  return part_sizes_.erase(task_id) != 0;
}

// The sweep takes tasks away and leaves their part sizes, so that a late part is still told from one of a task that
// nobody ever heard of. They must not pile up for ever: whenever there are twice as many as were needed, and some to
// spare, those without a task go. An upload id is never used again, so what is found without a task stays without one.
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
