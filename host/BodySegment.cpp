#include "BodySegment.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "HostLog.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kSegmentBytes = 64 * 1024 * 1024;
// This many records of a segment that has no index are looked up at the next start.
constexpr std::size_t kMostRecords = 65536;
constexpr std::uint32_t kWindowBytes = 256 * 1024;  // more than the largest record
constexpr std::size_t kCopyBytes = std::size_t{1024} * 1024;
constexpr std::uint64_t kLeastGapBytes = 8192;
constexpr const char* kUnfinishedEnd = ".tmp";

int ReadExactly(HostSystem::IFile& file, std::uint64_t offset, std::size_t size, std::string& bytes) {
  bytes.resize(size);
  std::size_t done = 0;
  const int error = file.ReadAt(bytes.data(), size, offset, done);
  return error != 0 ? error : done < size ? EIO : 0;
}

// Looks at a file piece by piece, wherever the search leads.
class CWindow {
 public:
  CWindow(HostSystem::IFile& file, std::uint64_t size) : file_(file), size_(size) {}

  // Gives at least a record's head from `offset` on, less at the end of the file.
  int At(std::uint64_t offset, std::string_view& bytes) {
    if (offset < begin_ || offset + BodyFormat::kRecordHeadBytes > begin_ + bytes_.size()) {
      const std::uint64_t wanted = std::min<std::uint64_t>(kWindowBytes, size_ - offset);
      if (const int error = ReadExactly(file_, offset, wanted, bytes_)) {
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

bool IsBefore(const BodyEntry& entry, std::uint32_t key) {
  return entry.key < key;
}

}  // namespace
}  // namespace details

bool IsWhole(const BodyPlace& place, const char* bytes) {
  return BodyFormat::BodyCrc(place.nonce, place.key, {bytes, place.size}) == place.crc;
}

CBodySegment::CBodySegment(SegmentFolder& folder, const BodyFormat::SegmentHead& head, EOpen mode,
                           std::unique_ptr<HostSystem::IFile> file)
    : folder_(folder), head_(head), mode_(mode), file_(std::move(file)) {
  ++folder_.open;
}

CBodySegment::~CBodySegment() {
  folder_.open -= file_ == nullptr ? 0 : 1;
}

int CBodySegment::OpenFile(HostSystem::IFolder& folder, std::uint32_t number, EOpen mode,
                           std::unique_ptr<HostSystem::IFile>& file) {
  const std::string name = SegmentFileName(number);
  return mode == EOpen::kLook ? folder.OpenForReading(name, file) : folder.OpenForWriting(name, file);
}

int CBodySegment::NeedFile() noexcept try {
  if (file_ != nullptr) {
    return 0;
  }
  std::unique_ptr<HostSystem::IFile> file;
  if (const int error = OpenFile(folder_.files, head_.number, mode_, file)) {
    return error;
  }
  file_ = std::move(file);
  ++folder_.open;
  return 0;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

void CBodySegment::CloseFile() {
  const std::lock_guard lock(mutex_);
  if (index_at_ != 0 && file_.use_count() == 1) {
    file_.reset();
    --folder_.open;
  }
}

int CBodySegment::Create(SegmentFolder& folder, std::uint32_t number, bool durable,
                         std::shared_ptr<CBodySegment>& segment) {
  BodyFormat::SegmentHead head;
  head.number = number;
  unsigned char nonce[sizeof head.nonce];
  if (RAND_bytes(nonce, sizeof nonce) != 1) {
    return EIO;
  }
  for (const unsigned char byte : nonce) {
    head.nonce = head.nonce << 8 | byte;
  }
  std::unique_ptr<HostSystem::IFile> file;
  if (const int error = folder.files.Create(SegmentFileName(number), file)) {
    return error;
  }
  const std::string bytes = BodyFormat::EncodeSegmentHead(head);
  int error = file->WriteAt(bytes.data(), bytes.size(), 0);
  if (error == 0 && durable) {
    error = file->Sync();
  }
  if (error == 0 && durable) {
    error = folder.files.Sync();
  }
  if (error != 0) {
    folder.files.Remove(SegmentFileName(number));
    return error;
  }
  segment.reset(new CBodySegment(folder, head, EOpen::kServe, std::move(file)));
  segment->is_durable_ = durable;
  segment->end_ = BodyFormat::kSegmentHeadBytes;
  return 0;
}

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
  return details::ReadExactly(*file_, 0, BodyFormat::kSegmentHeadBytes, bytes) == 0 &&
         BodyFormat::DecodeSegmentHead(bytes, own) && own.nonce != head.nonce;
}

bool CBodySegment::LoadIndex(std::uint64_t file_size) {
  std::string bytes;
  BodyFormat::IndexEnd end;
  std::string states;
  if (file_size < BodyFormat::kIndexEndBytes ||
      details::ReadExactly(*file_, file_size - BodyFormat::kIndexEndBytes, BodyFormat::kIndexEndBytes, bytes) != 0 ||
      !BodyFormat::DecodeIndexEnd(bytes, file_size, end) || end.head.number != head_.number ||
      details::ReadExactly(*file_, end.offset, BodyFormat::IndexBytes(end.count), bytes) != 0 ||
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
    const auto place = std::lower_bound(entries_.begin(), entries_.end(), entry.key, &details::IsBefore);
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

bool CBodySegment::HasRoom(std::uint32_t size) const {
  const std::lock_guard lock(mutex_);
  return !is_poisoned_ && index_at_ == 0 && end_ + BodyFormat::RecordSpan(size) <= details::kSegmentBytes &&
         entries_.size() + writing_.size() < details::kMostRecords;
}

std::uint32_t CBodySegment::Reserve(std::uint32_t size) {
  const std::lock_guard lock(mutex_);
  const std::uint32_t key = end_;
  writing_.push_back(key);
  end_ += BodyFormat::RecordSpan(size);
  return key;
}

int CBodySegment::Write(std::uint32_t key, std::string_view body) {
  // However this ends, the record is not being written any more.
  struct CEnd {
    CBodySegment& segment;
    const std::uint32_t key;
    ~CEnd() {
      const std::lock_guard lock(segment.mutex_);
      std::erase(segment.writing_, key);
    }
  } const end{*this, key};
  BodyEntry entry;
  entry.key = key;
  entry.offset = key + BodyFormat::kRecordHeadBytes;
  entry.size = static_cast<std::uint32_t>(body.size());
  entry.crc = BodyFormat::BodyCrc(head_.nonce, key, body);
  std::string record;
  BodyFormat::AppendRecord(record, head_.nonce, key, body, entry.crc);
  // While records are being appended, the file is never replaced.
  int error = file_->WriteAt(record.data(), record.size(), key);
  if (error == 0) {
    error = AddWritten(entry);
  }
  if (error != 0) {
    MarkDead(entry);  // its head may be in the file, perhaps without its body
  }
  return error;
}

int CBodySegment::AddWritten(const BodyEntry& entry) {
  const std::lock_guard lock(mutex_);
  if (is_poisoned_) {
    return EIO;  // a failed flush may have dropped it, and no later flush would tell
  }
  try {
    // First what is harmless when memory runs out behind it.
    unsettled_[entry.key] = {TansyBase::TimeUtil::Uptime(), false};
    if (is_durable_) {
      unflushed_.push_back(entry.key);
    }
    const auto place = std::lower_bound(entries_.begin(), entries_.end(), entry.key, &details::IsBefore);
    entries_.insert(place, entry);
  } catch (const std::bad_alloc&) {
    unsettled_.erase(entry.key);
    return ENOMEM;
  }
  ++live_;
  live_bytes_ += BodyFormat::RecordSpan(entry.size);
  return 0;
}

int CBodySegment::Sync() {
  std::size_t written = 0;
  {
    const std::lock_guard lock(mutex_);
    written = unflushed_.size();
  }
  if (written == 0) {
    return 0;
  }
  const int error = file_->Sync();
  const std::lock_guard lock(mutex_);
  if (error == 0) {
    unflushed_.erase(unflushed_.begin(), unflushed_.begin() + static_cast<std::ptrdiff_t>(written));
    return 0;
  }
  is_poisoned_ = true;
  lost_.swap(unflushed_);  // what came during the flush is no better than what came before it
  for (const std::uint32_t key : lost_) {
    Lose(key);
  }
  return error;
}

std::vector<std::uint32_t> CBodySegment::GetLost() const {
  const std::lock_guard lock(mutex_);
  return lost_;
}

void CBodySegment::Lose(std::uint32_t key) noexcept {
  if (const auto body = unsettled_.find(key); body != unsettled_.end()) {
    body->second.failed = true;
  }
  BodyEntry* entry = FindEntry(key);
  if (entry != nullptr && entry->is_dead == 0) {
    Kill(*entry);
  }
}

void CBodySegment::Kill(BodyEntry& entry) noexcept {
  entry.is_dead = 1;
  --live_;
  live_bytes_ -= BodyFormat::RecordSpan(entry.size);
  MarkDead(entry);
}

BodyEntry* CBodySegment::FindEntry(std::uint32_t key) {
  const auto place = std::lower_bound(entries_.begin(), entries_.end(), key, &details::IsBefore);
  return place == entries_.end() || place->key != key ? nullptr : &*place;
}

int CBodySegment::Find(std::uint32_t key, BodyPlace& place) {
  const std::lock_guard lock(mutex_);
  const BodyEntry* entry = FindEntry(key);
  if (entry == nullptr || entry->is_dead != 0) {
    return ENOENT;
  }
  if (const int error = NeedFile()) {
    return error;
  }
  place = {file_, entry->offset, entry->size, entry->crc, head_.nonce, key};
  return 0;
}

bool CBodySegment::Remove(std::uint32_t key) noexcept {
  const std::lock_guard lock(mutex_);
  BodyEntry* entry = FindEntry(key);
  const bool is_there = entry != nullptr && entry->is_dead == 0;
  if (is_there) {
    Kill(*entry);
  }
  unsettled_.erase(key);
  return is_there;
}

// A mark that does not reach the disk brings bytes back that nothing names, never an object.
void CBodySegment::MarkDead(const BodyEntry& entry) noexcept try {
  int error = NeedFile();
  if (error == 0) {
    error = WriteDead(entry);
  }
  if (error != 0) {
    HOST_LOG(logging::kError, "[%s]marking a removed body in %s failed: %s.[%s(%d)]",
             SegmentFileName(head_.number).c_str(), HostSystem::ErrorText(error).c_str());
  }
} catch (const std::bad_alloc&) {
  return;  // only the line is lost
}

int CBodySegment::WriteDead(const BodyEntry& entry) {
  if (index_at_ == 0) {
    const std::uint32_t head_at = entry.offset - BodyFormat::kRecordHeadBytes;
    return file_->WriteAt(BodyFormat::kDeadRecord.data(), BodyFormat::kDeadRecord.size(),
                          head_at + BodyFormat::kRecordStateAt);
  }
  const auto number = static_cast<std::uint64_t>(&entry - entries_.data());
  return file_->WriteAt(&BodyFormat::kDead, 1, index_at_ + entries_.size() * BodyFormat::kIndexEntryBytes + number);
}

bool CBodySegment::ForEach(const std::function<bool(std::uint32_t key, std::uint32_t size)>& visitor) const {
  std::vector<BodyEntry> entries;
  {
    const std::lock_guard lock(mutex_);
    entries = entries_;
  }
  return std::all_of(entries.begin(), entries.end(), [&visitor](const BodyEntry& entry) {
    return entry.is_dead != 0 || visitor(entry.key, entry.size);
  });
}

void CBodySegment::Settle(std::uint32_t key) {
  const std::lock_guard lock(mutex_);
  unsettled_.erase(key);
}

bool CBodySegment::IsUnsettled(std::uint32_t key) const {
  const std::lock_guard lock(mutex_);
  return unsettled_.count(key) > 0;
}

std::vector<UnsettledBody> CBodySegment::GetUnsettled(std::int64_t seconds) const {
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  const std::lock_guard lock(mutex_);
  std::vector<UnsettledBody> bodies;
  bodies.reserve(unsettled_.size());
  for (const auto& [key, body] : unsettled_) {
    if (body.failed || now - body.written >= seconds) {
      bodies.push_back({key, now - body.written, body.failed});
    }
  }
  return bodies;
}

CBodySegment::Facts CBodySegment::GetFacts() const {
  const std::lock_guard lock(mutex_);
  Facts facts;
  facts.is_sealed = index_at_ != 0;
  facts.is_busy = !writing_.empty() || !unflushed_.empty();
  facts.has_lost = !lost_.empty();
  facts.live = live_;
  facts.unsettled = unsettled_.size();
  facts.live_bytes = live_bytes_;
  facts.file_bytes = end_;
  return facts;
}

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
        const auto before = std::lower_bound(fresh.begin(), fresh.end(), entry.key, &details::IsBefore);
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
    int error = details::ReadExactly(source, entry.offset, entry.size, body);
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

}  // namespace Tansy::Host
