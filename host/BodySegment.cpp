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
    const auto place = PlaceOf(entries_, entry.key);
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

// Entries are in the order of their keys.
std::vector<BodyEntry>::iterator CBodySegment::PlaceOf(std::vector<BodyEntry>& entries, std::uint32_t key) {
  return std::lower_bound(entries.begin(), entries.end(), key,
                          [](const BodyEntry& entry, std::uint32_t wanted) { return entry.key < wanted; });
}

BodyEntry* CBodySegment::FindEntry(std::uint32_t key) {
  const auto place = PlaceOf(entries_, key);
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

}  // namespace Tansy::Host
