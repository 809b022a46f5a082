// What housekeeping does with a segment: notes for the next start, the index, a copy without gaps.
#include <algorithm>
#include <iterator>
#include <utility>

#include "BodySegment.h"

namespace Tansy::Host {
namespace details {
namespace {

// more than the largest record
constexpr std::size_t kCopyBytes = std::size_t{1024} * 1024;
constexpr std::uint64_t kLeastGapBytes = 8192;
constexpr const char* kUnfinishedEnd = ".tmp";

}  // namespace
}  // namespace details

void CBodySegment::NoteSettled() {
  const std::lock_guard lock(mutex_);
  std::uint32_t below = end_;
  for (const auto& [key, body] : unsettled_) {
    below = std::min(below, key);
  }
  for (const std::uint32_t key : writing_) {
    below = std::min(below, key);
  }
  if (index_at_ != 0 || below == head_.settled_below) {
    return;
  }
  const std::string bytes = BodyFormat::EncodeNumber(below);
  if (file_->WriteAt(bytes.data(), bytes.size(), BodyFormat::kSettledAt) == 0) {  // else more is looked up
    head_.settled_below = below;
  }
}

std::string CBodySegment::StatesOf(const std::vector<BodyEntry>& entries) const {
  std::string states;
  states.reserve(entries.size());
  for (const BodyEntry& entry : entries) {
    const char living = unsettled_.count(entry.key) > 0 ? BodyFormat::kUnsettled : BodyFormat::kLive;
    states += entry.is_dead != 0 ? BodyFormat::kDead : living;
  }
  return states;
}

// The end of the index, which makes it one, comes last: a power failure may keep any part of what is not flushed, and a
// state that is not what was written could stand for a removal.
int CBodySegment::Seal() {
  std::uint32_t at = 0;
  std::string states;
  std::string index;
  {
    const std::lock_guard lock(mutex_);
    at = BodyFormat::AlignUp(end_);
    states = StatesOf(entries_);
    index = BodyFormat::EncodeIndex(head_, at, entries_, states);
  }
  const std::size_t end_at = index.size() - BodyFormat::kIndexEndBytes;
  int error = file_->WriteAt(index.data(), end_at, at);
  if (error == 0) {
    error = file_->Sync();
  }
  if (error != 0) {
    return error;
  }
  const std::lock_guard lock(mutex_);
  index_at_ = at;
  for (std::size_t i = 0; i < states.size(); ++i) {  // some may have been removed meanwhile
    if (entries_[i].is_dead != 0 && states[i] != BodyFormat::kDead) {
      MarkDead(entries_[i]);
    }
  }
  error = file_->WriteAt(index.data() + end_at, BodyFormat::kIndexEndBytes, at + end_at);
  if (error != 0) {
    index_at_ = 0;
    return error;
  }
  end_ = at + static_cast<std::uint32_t>(index.size());
  entries_.shrink_to_fit();
  return 0;
}

int CBodySegment::Rewrite() {
  std::vector<BodyEntry> old;
  std::shared_ptr<HostSystem::IFile> source;
  {
    const std::lock_guard lock(mutex_);
    if (const int error = NeedFile()) {
      return error;
    }
    source = file_;
    std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(old),
                 [](const BodyEntry& entry) { return entry.is_dead == 0; });
  }
  const std::string name = SegmentFileName(head_.number);
  const std::string unfinished = name + details::kUnfinishedEnd;
  std::unique_ptr<HostSystem::IFile> created;
  folder_.files.Remove(unfinished);
  int error = folder_.files.Create(unfinished, created);
  std::shared_ptr<HostSystem::IFile> target = std::move(created);
  std::vector<BodyEntry> fresh;
  if (error == 0) {
    error = Copy(*source, *target, old, fresh);
  }
  if (error == 0) {
    error = target->Sync();
  }
  if (error == 0) {
    const std::lock_guard lock(mutex_);
    error = folder_.files.Rename(unfinished, name);
    if (error == 0) {
      std::swap(entries_, fresh);
      std::swap(file_, target);
      const BodyEntry* last = entries_.empty() ? nullptr : &entries_.back();
      index_at_ = last == nullptr ? BodyFormat::kSegmentHeadBytes : BodyFormat::AlignUp(last->offset + last->size);
      end_ =
          index_at_ + static_cast<std::uint32_t>(BodyFormat::IndexBytes(static_cast<std::uint32_t>(entries_.size())));
      // Some may have been removed while they were copied; `fresh` is what the old file held.
      for (BodyEntry& entry : entries_) {
        const auto before = PlaceOf(fresh, entry.key);
        if (before->is_dead != 0) {
          entry.is_dead = 1;
          MarkDead(entry);
        }
      }
      CountEntries();
    }
  }
  if (error != 0) {
    folder_.files.Remove(unfinished);
    return error;
  }
  // Should the old file come back after a power failure, it holds the same bodies.
  folder_.files.Sync();
  return 0;
}

// Copies bodies into an empty file and writes its index.
int CBodySegment::Copy(HostSystem::IFile& source, HostSystem::IFile& target, const std::vector<BodyEntry>& old,
                       std::vector<BodyEntry>& fresh) {
  fresh = old;
  std::string buffer = BodyFormat::EncodeSegmentHead(head_);
  std::uint32_t written = 0;
  std::string body;
  const auto write = [&target, &buffer, &written] {
    const int error = target.WriteAt(buffer.data(), buffer.size(), written);
    written += static_cast<std::uint32_t>(buffer.size());
    buffer.clear();
    return error;
  };
  for (BodyEntry& entry : fresh) {
    int error = HostSystem::ReadExactly(source, entry.offset, entry.size, body);
    entry.offset = written + static_cast<std::uint32_t>(buffer.size()) + BodyFormat::kRecordHeadBytes;
    BodyFormat::AppendRecord(buffer, head_.nonce, entry.key, body, entry.crc);
    if (error == 0 && buffer.size() >= details::kCopyBytes) {
      error = write();
    }
    if (error != 0) {
      return error;
    }
  }
  const std::uint32_t index_at = written + static_cast<std::uint32_t>(buffer.size());
  std::string states;
  {
    const std::lock_guard lock(mutex_);
    states = StatesOf(fresh);
  }
  buffer += BodyFormat::EncodeIndex(head_, index_at, fresh, states);
  return write();
}

void CBodySegment::FreeGaps() {
  const std::lock_guard lock(mutex_);
  if (live_bytes_ == gaps_freed_at_) {
    return;  // there are no new ones
  }
  if (NeedFile() != 0 || file_.use_count() > 1) {
    return;  // somebody may be reading a body that was removed meanwhile
  }
  gaps_freed_at_ = live_bytes_;
  std::uint64_t begin = BodyFormat::kSegmentHeadBytes;
  const auto free_until = [this, &begin](std::uint64_t end) {
    if (end >= begin + details::kLeastGapBytes) {
      file_->FreeRange(begin, end - begin);
    }
  };
  for (const BodyEntry& entry : entries_) {  // offsets rise as keys do
    if (entry.is_dead == 0) {
      free_until(entry.offset - BodyFormat::kRecordHeadBytes);
      begin = std::uint64_t{entry.offset} + entry.size;
    }
  }
  free_until(index_at_ == 0 ? end_ : index_at_);
}

}  // namespace Tansy::Host
