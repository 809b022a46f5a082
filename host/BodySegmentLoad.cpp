// What is known of a segment's records when it is opened: from its index, or by a search for them.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "BodySegment.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kWindowBytes = 256 * 1024;  // more than the largest record

// Looks at a file piece by piece, wherever the search leads.
class CWindow {
 public:
  CWindow(HostSystem::IFile& file, std::uint64_t size) : file_(file), size_(size) {}

  // Gives at least a record's head from `offset` on, less at the end of the file.
  int At(std::uint64_t offset, std::string_view& bytes) {
    if (offset < begin_ || offset + BodyFormat::kRecordHeadBytes > begin_ + bytes_.size()) {
      const std::uint64_t wanted = std::min<std::uint64_t>(kWindowBytes, size_ - offset);
      if (const int error = HostSystem::ReadExactly(file_, offset, wanted, bytes_)) {
        return error;
      }
      begin_ = offset;
    }
    bytes = std::string_view(bytes_).substr(offset - begin_);
    return 0;
  }

 private:
  HostSystem::IFile& file_;
  const std::uint64_t size_;
  std::uint64_t begin_ = 0;
  std::string bytes_;
};

}  // namespace
}  // namespace details

int CBodySegment::Open(SegmentFolder& folder, std::uint32_t number, EOpen mode,
                       std::shared_ptr<CBodySegment>& segment) {
  std::unique_ptr<HostSystem::IFile> file;
  int error = OpenFile(folder.files, number, mode, file);
  if (error == 0) {
    std::shared_ptr<CBodySegment> opened(new CBodySegment(folder, {number, 0}, mode, std::move(file)));
    error = opened->Load();
    if (error == 0) {
      segment = std::move(opened);
    }
  }
  return error;
}

int CBodySegment::Load() {
  std::uint64_t size = 0;
  if (const int error = file_->GetSize(size)) {
    return error;
  }
  end_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, UINT32_MAX - details::kWindowBytes));
  if (!LoadIndex(size)) {
    if (const int error = Search(end_)) {
      return error;
    }
  }
  CountEntries();
  return 0;
}

// A body at the end of a file may look like an index, but whoever sent it does not know the segment's nonce. Where the
// segment's own head is damaged, nothing tells them apart.
bool CBodySegment::IsOfAnotherNonce(const BodyFormat::SegmentHead& head) const {
  std::string bytes;
  BodyFormat::SegmentHead own;
  return HostSystem::ReadExactly(*file_, 0, BodyFormat::kSegmentHeadBytes, bytes) == 0 &&
         BodyFormat::DecodeSegmentHead(bytes, own) && own.nonce != head.nonce;
}

bool CBodySegment::LoadIndex(std::uint64_t file_size) {
  std::string bytes;
  BodyFormat::IndexEnd end;
  std::string states;
  if (file_size < BodyFormat::kIndexEndBytes ||
      HostSystem::ReadExactly(*file_, file_size - BodyFormat::kIndexEndBytes, BodyFormat::kIndexEndBytes, bytes) != 0 ||
      !BodyFormat::DecodeIndexEnd(bytes, file_size, end) || end.head.number != head_.number ||
      HostSystem::ReadExactly(*file_, end.offset, BodyFormat::IndexBytes(end.count), bytes) != 0 ||
      !BodyFormat::DecodeIndex(bytes, end, entries_, states) || IsOfAnotherNonce(end.head)) {
    entries_.clear();
    return false;
  }
  head_ = end.head;
  index_at_ = end.offset;
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (states[i] == BodyFormat::kUnsettled) {
      unsettled_[entries_[i].key] = {now, true};
    }
  }
  return true;
}

// A write that a crash or a full disk cut short leaves a gap, so the search goes on behind what is no record.
int CBodySegment::Search(std::uint64_t file_size) {
  details::CWindow window(*file_, file_size);
  std::string_view bytes;
  BodyFormat::SegmentHead head;
  if (file_size < BodyFormat::kSegmentHeadBytes) {
    return EBADMSG;
  }
  if (const int error = window.At(0, bytes)) {
    return error;
  }
  if (!BodyFormat::DecodeSegmentHead(bytes, head) || head.number != head_.number) {
    return EBADMSG;
  }
  head_ = head;
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  std::uint64_t offset = BodyFormat::kSegmentHeadBytes;
  while (offset + BodyFormat::kRecordHeadBytes <= file_size) {
    if (const int error = window.At(offset, bytes)) {
      return error;
    }
    BodyEntry entry;
    if (!BodyFormat::DecodeRecordHead(bytes, head_.nonce, entry) ||
        offset + BodyFormat::kRecordHeadBytes + entry.size > file_size) {
      offset += BodyFormat::kAlignment;
      continue;
    }
    entry.offset = static_cast<std::uint32_t>(offset) + BodyFormat::kRecordHeadBytes;
    offset += BodyFormat::RecordSpan(entry.size);
    const auto place = PlaceOf(entries_, entry.key);
    if (place == entries_.end() || place->key != entry.key) {
      entries_.insert(place, entry);
      if (entry.is_dead == 0 && entry.key >= head_.settled_below) {
        unsettled_[entry.key] = {now, true};
      }
    }
  }
  return 0;
}

void CBodySegment::CountEntries() {
  live_ = 0;
  live_bytes_ = 0;
  for (const BodyEntry& entry : entries_) {
    if (entry.is_dead == 0) {
      ++live_;
      live_bytes_ += BodyFormat::RecordSpan(entry.size);
    }
  }
}

}  // namespace Tansy::Host
