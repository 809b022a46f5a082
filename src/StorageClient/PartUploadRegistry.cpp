#include "StorageClient/PartUploadRegistry.h"

#include <utility>

namespace Tansy::CloudStorage {

bool CPartUploadRegistry::AddPart(const std::string& upload_id, const PartRecord& record) {
  const std::lock_guard lock(part_mutex_);
  PartRecord& stored = parts_[upload_id][record.part_number] = record;
  stored.data = nullptr;
  progress_.try_emplace(upload_id, SUploadProgress{record.total_parts, 0});
  return true;
}

bool CPartUploadRegistry::FinishPart(const PartRecord& record) {
  {
    const std::lock_guard lock(part_mutex_);
    const auto parts = parts_.find(record.upload_id);
    const auto progress = progress_.find(record.upload_id);
    if (parts == parts_.end() || progress == progress_.end()) {
      return false;
    }
    const auto part = parts->second.find(record.part_number);
    if (part == parts->second.end()) {
      return false;
    }
    part->second = record;
    part->second.data = nullptr;
    ++progress->second.finished;
  }
  part_finished_.notify_all();
  return true;
}

bool CPartUploadRegistry::QueryParts(const std::string& upload_id, std::int32_t& failed_status, std::int32_t& percent) {
  const std::lock_guard lock(part_mutex_);
  const auto parts = parts_.find(upload_id);
  if (parts == parts_.end() || parts->second.empty()) {
    return false;
  }
  bool finished = true;
  for (const auto& [number, part] : parts->second) {
    if (part.status != kPartUploaded) {
      failed_status = part.status;
      break;
    }
    if (!part.done) {
      finished = false;
      break;
    }
  }
  if (finished) {
    parts_.erase(parts);
  }
  const auto progress = progress_.find(upload_id);
  if (progress != progress_.end() && progress->second.total > 0) {
    percent = static_cast<std::int32_t>(std::int64_t{progress->second.finished} * 100 / progress->second.total);
  }
  return finished;
}

void CPartUploadRegistry::ForgetParts(const std::string& upload_id) noexcept {
  const std::lock_guard lock(part_mutex_);
  parts_.erase(upload_id);
}

std::int32_t CPartUploadRegistry::WaitForFinishedPart(const std::string& upload_id, std::int32_t seen,
                                                      std::chrono::milliseconds timeout) {
  std::unique_lock lock(part_mutex_);
  const auto finished = [&] {
    const auto progress = progress_.find(upload_id);
    return progress == progress_.end() ? 0 : progress->second.finished;
  };
  part_finished_.wait_for(lock, timeout, [&] { return finished() != seen; });
  return finished();
}

bool CPartUploadRegistry::FindTask(const std::string& key, std::int32_t& last_part_number, PieceTask& task) {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  if (found == pieces_.end()) {
    return false;
  }
  task = found->second;
  if (!task.pieces.empty()) {
    last_part_number = task.pieces.rbegin()->first;
  }
  return true;
}

bool CPartUploadRegistry::AddTask(const PieceTask& task) {
  const std::lock_guard lock(piece_mutex_);
  return pieces_.try_emplace(task.key, task).second;
}

bool CPartUploadRegistry::AddPiece(const std::string& key, const SPieceEntry& piece) {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  if (found == pieces_.end()) {
    return false;
  }
  found->second.pieces.insert_or_assign(piece.part_number, piece);
  return true;
}

bool CPartUploadRegistry::GetAllPieces(const std::string& key, std::list<SPartInfo>& parts) {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  if (found == pieces_.end()) {
    return false;
  }
  for (const auto& [number, piece] : found->second.pieces) {
    parts.push_back({piece.part_number, piece.size, {}});
  }
  return true;
}

bool CPartUploadRegistry::RemoveTask(const std::string& key) {
  const std::lock_guard lock(piece_mutex_);
  return pieces_.erase(key) > 0;
}

bool CPartUploadRegistry::BeginPiece(const std::string& key) {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  return found != pieces_.end() && !std::exchange(found->second.in_use, true);
}

bool CPartUploadRegistry::EndPiece(const std::string& key) noexcept {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  return found != pieces_.end() && std::exchange(found->second.in_use, false);
}

bool CPartUploadRegistry::SetTail(const std::string& key, std::shared_ptr<const std::string> tail) noexcept {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  if (found == pieces_.end()) {
    return false;
  }
  found->second.tail = std::move(tail);
  return true;
}

bool CPartUploadRegistry::RemovePiecesFrom(const std::string& key, std::int32_t part_number) noexcept {
  const std::lock_guard lock(piece_mutex_);
  const auto found = pieces_.find(key);
  if (found == pieces_.end()) {
    return false;
  }
  std::map<std::int32_t, SPieceEntry>& pieces = found->second.pieces;
  pieces.erase(pieces.lower_bound(part_number), pieces.end());
  return true;
}

}  // namespace Tansy::CloudStorage
