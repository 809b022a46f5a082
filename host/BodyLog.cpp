#include "BodyLog.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "HostLog.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kUnfinishedEnd = ".log.tmp";
// More segments than this are not kept waiting for their last bodies to be settled.
constexpr std::size_t kMostUnsealed = 8;
// At most this number of segments is written anew at a time.
constexpr int kMostRewrites = 16;
// A segment that is still being filled is closed for its gaps only when there is something to gain.
constexpr std::uint64_t kLeastGapBytes = std::uint64_t{1024} * 1024;

bool IsMostlyGaps(const CBodySegment::Facts& facts) {
  return facts.live_bytes < facts.file_bytes / 2;
}

bool HasGaps(const CBodySegment::Facts& facts) {
  return facts.live_bytes + kLeastGapBytes <= facts.file_bytes;
}

}  // namespace
}  // namespace details

void CBodyLog::Report(const char* what, const std::string& file, int error) {
  HOST_LOG(logging::kError, "[%s]%s %s/%s failed: %s.[%s(%d)]", what, kBodyLogVolume, file.c_str(),
           HostSystem::ErrorText(error).c_str());
}

int CBodyLog::Load() {
  {
    const std::unique_lock lock(segments_mutex_);
    segments_.clear();
    unreadable_.clear();
  }
  if (folder_ == nullptr) {
    const int error = OpenFolder();
    if (error != 0) {
      return error == ENOENT ? 0 : error;
    }
  }
  std::vector<HostSystem::FolderEntry> entries;
  if (const int error = folder_->List(entries)) {
    return error;
  }
  for (const HostSystem::FolderEntry& entry : entries) {
    std::uint32_t number = 0;
    if (entry.is_file && ParseSegmentFileName(entry.name, number)) {
      if (const int error = OpenSegment(entry, number)) {
        return error;
      }
      LimitOpenFiles();
      next_number_ = std::max(next_number_, number + 1);
    } else if (entry.is_file && entry.name.ends_with(details::kUnfinishedEnd) && mode_ != EMode::kLook) {
      folder_->Remove(entry.name);  // of a segment that was being written anew; the old one is there
    }
  }
  return 0;
}

int CBodyLog::OpenFolder() {
  std::unique_ptr<HostSystem::IFolder> folder;
  if (const int error = root_.OpenFolder(kBodyLogVolume, folder)) {
    return error;
  }
  segment_folder_ = std::make_unique<SegmentFolder>(*folder);
  folder_ = std::move(folder);
  return 0;
}

int CBodyLog::OpenSegment(const HostSystem::FolderEntry& entry, std::uint32_t number) {
  const auto mode = mode_ == EMode::kLook ? CBodySegment::EOpen::kLook : CBodySegment::EOpen::kServe;
  SegmentPointer segment;
  const int error = CBodySegment::Open(*segment_folder_, number, mode, segment);
  const std::unique_lock lock(segments_mutex_);
  if (error == 0) {
    segments_[number] = std::move(segment);
    return 0;
  }
  if (error == EBADMSG && entry.size <= BodyFormat::kSegmentHeadBytes) {
    // The making of a segment was cut short; nothing was written behind a head that was not durable.
    if (mode_ != EMode::kLook) {
      folder_->Remove(entry.name);
    }
    return 0;
  }
  if (error == EBADMSG) {
    HOST_LOG(logging::kError, "[%s]%s/%s is damaged: nothing can be found in it.[%s(%d)]", kBodyLogVolume,
             entry.name.c_str());
    unreadable_.push_back(entry);
    return 0;
  }
  return error == ENOENT && mode_ == EMode::kLook ? 0 : error;  // the other process may have removed it
}

int CBodyLog::Append(std::string_view body, StoredName& name) {
  const auto size = static_cast<std::uint32_t>(body.size());
  SegmentPointer segment;
  std::uint32_t key = 0;
  int error = Reserve(size, segment, key);
  if (error == 0) {
    error = segment->Write(key, body);
  }
  if (error == 0) {
    ++appended_;
    name = NameOf({segment->GetNumber(), key, segment->GetNonce()});
  }
  return error;
}

int CBodyLog::Reserve(std::uint32_t size, SegmentPointer& segment, std::uint32_t& key) {
  std::unique_lock lock(append_mutex_, std::defer_lock);
  TansyBase::LockWhileBlocking(lock);
  if (active_ == nullptr || !active_->HasRoom(size)) {
    const TansyBase::CBlockingScope blocking;
    if (const int error = BeginSegment()) {
      return error;
    }
  }
  segment = active_;
  key = segment->Reserve(size);
  return 0;
}

int CBodyLog::BeginSegment() {
  if (folder_ == nullptr) {
    int error = root_.MakeFolder(kBodyLogVolume);
    if (error == 0 || error == EEXIST) {
      error = root_.Sync();
    }
    if (error == 0) {
      error = OpenFolder();
    }
    if (error != 0) {
      return error;
    }
  }
  SegmentPointer segment;
  // Each try has a number of its own, because what a failed one leaves can perhaps not be removed before the next
  // start.
  if (const int error = CBodySegment::Create(*segment_folder_, next_number_++, mode_ == EMode::kFull, segment)) {
    return error;
  }
  unflushed_.push_back(segment);
  {
    const std::unique_lock lock(segments_mutex_);
    segments_[segment->GetNumber()] = segment;
  }
  active_ = std::move(segment);
  return 0;
}

bool CBodyLog::MakeDurable(const std::vector<std::string_view>& statements, std::string& error) {
  if (appended_ != flushed_ && !Flush(error)) {
    return false;
  }
  if (has_lost_ && NamesLost(statements)) {
    error = "the bytes of this object were not made durable";
    return false;
  }
  return true;
}

bool CBodyLog::Flush(std::string& error) {
  const std::lock_guard one_at_a_time(flush_mutex_);
  const std::uint64_t appended = appended_;
  std::vector<SegmentPointer> segments;
  {
    const std::lock_guard lock(append_mutex_);
    ForgetFlushed();
    segments = unflushed_;
  }
  bool done = true;
  for (const SegmentPointer& segment : segments) {
    if (const int failure = segment->Sync()) {
      has_lost_ = true;
      done = false;
      Report("flushing", SegmentFileName(segment->GetNumber()), failure);
      error = "stored bytes were not made durable: " + HostSystem::ErrorText(failure);
    }
  }
  flushed_ = appended;
  return done;
}

// To be called with append_mutex_ held.
void CBodyLog::ForgetFlushed() {
  std::erase_if(unflushed_,
                [this](const SegmentPointer& segment) { return segment != active_ && !segment->GetFacts().is_busy; });
}

// A request may be slow, and its row may come long after its bytes were lost and freed. So they are never forgotten.
bool CBodyLog::NamesLost(const std::vector<std::string_view>& statements) const {
  for (const SegmentPointer& segment : Segments()) {
    for (const std::uint32_t key : segment->GetLost()) {
      const std::string id = NameOf({segment->GetNumber(), key, segment->GetNonce()}).id;
      if (std::any_of(statements.begin(), statements.end(),
                      [&id](std::string_view statement) { return statement.find(id) != std::string_view::npos; })) {
        return true;
      }
    }
  }
  return false;
}

CBodyLog::SegmentPointer CBodyLog::SegmentOf(const StoredName& name, BodyId& id) const {
  if (!ParseBodyId(name, id)) {
    return nullptr;
  }
  const std::shared_lock lock(segments_mutex_);
  const auto found = segments_.find(id.segment);
  return found == segments_.end() || found->second->GetNonce() != id.nonce ? nullptr : found->second;
}

bool CBodyLog::HasSegment(const StoredName& name) const {
  BodyId id;
  return SegmentOf(name, id) != nullptr;
}

int CBodyLog::Find(const StoredName& name, BodyPlace& place) const {
  BodyId id;
  const SegmentPointer segment = SegmentOf(name, id);
  if (segment == nullptr) {
    return ENOENT;
  }
  const int error = segment->Find(id.key, place);
  LimitOpenFiles();
  return error;
}

void CBodyLog::Remove(const StoredName& name) {
  BodyId id;
  if (const SegmentPointer segment = SegmentOf(name, id)) {
    segment->Remove(id.key);
    LimitOpenFiles();
  }
}

// Objects that live long may leave few bodies in each of very many segments. What is needed often is soon open again.
void CBodyLog::LimitOpenFiles() const {
  if (segment_folder_->open <= close_above_) {
    return;
  }
  for (const SegmentPointer& segment : Segments()) {
    segment->CloseFile();
  }
  // When many cannot be closed, a try for each body would be in vain.
  close_above_ = std::max(kMostOpenFiles, 2 * segment_folder_->open);
}

std::vector<CBodyLog::SegmentPointer> CBodyLog::Segments() const {
  const std::shared_lock lock(segments_mutex_);
  std::vector<SegmentPointer> segments;
  segments.reserve(segments_.size());
  for (const auto& [number, segment] : segments_) {
    segments.push_back(segment);
  }
  return segments;
}

bool CBodyLog::ForEach(const std::function<bool(const StoredEntry&)>& visitor) const {
  std::string bytes;
  for (const SegmentPointer& segment : Segments()) {
    const bool goes_on = segment->ForEach([&](std::uint32_t key, std::uint32_t size) {
      BodyPlace place;
      int error = segment->Find(key, place);
      if (error == ENOENT) {
        return true;  // it was removed meanwhile
      }
      bytes.resize(size);
      std::size_t done = 0;
      if (error == 0) {
        error = place.file->ReadAt(bytes.data(), size, place.offset, done);
      }
      StoredEntry entry;
      entry.is_damaged = error != 0 || done < size || !IsWhole(place, bytes.data());
      entry.name = NameOf({segment->GetNumber(), key, segment->GetNonce()});
      entry.path = FilePath(entry.name);
      entry.size = size;
      return visitor(entry);
    });
    if (!goes_on) {
      return false;
    }
    LimitOpenFiles();
  }
  std::vector<HostSystem::FolderEntry> unreadable;
  {
    const std::shared_lock lock(segments_mutex_);
    unreadable = unreadable_;
  }
  return std::all_of(unreadable.begin(), unreadable.end(), [&visitor](const HostSystem::FolderEntry& file) {
    StoredEntry entry;
    entry.path = std::string(kBodyLogVolume) + "/" + file.name;
    entry.size = file.size;
    entry.is_damaged = true;
    return visitor(entry);
  });
}

void CBodyLog::Settle(const StoredName& name) {
  BodyId id;
  if (const SegmentPointer segment = SegmentOf(name, id)) {
    segment->Settle(id.key);
  }
}

bool CBodyLog::IsUnsettled(const StoredName& name) const {
  BodyId id;
  const SegmentPointer segment = SegmentOf(name, id);
  return segment != nullptr && segment->IsUnsettled(id.key);
}

void CBodyLog::AddUnsettled(std::int64_t seconds, std::vector<NewBytes>& bodies) const {
  for (const SegmentPointer& segment : Segments()) {
    const std::vector<UnsettledBody> unsettled = segment->GetUnsettled(seconds);
    bodies.reserve(bodies.size() + unsettled.size());
    for (const UnsettledBody& body : unsettled) {
      bodies.push_back({NameOf({segment->GetNumber(), body.key, segment->GetNonce()}), body.seconds, body.failed});
    }
  }
}

void CBodyLog::Tidy(const std::function<bool()>& is_stopping) {
  std::string ignored;
  if (mode_ == EMode::kFull && appended_ != flushed_) {
    Flush(ignored);
  }
  Round round;
  round.is_short = room_ != nullptr && room_->IsShort();
  RetireActive(round);
  // A segment that is begun between these two looks is either not in the list, or it is the active one.
  std::vector<SegmentPointer> closed = Segments();
  SegmentPointer active;
  {
    const std::lock_guard lock(append_mutex_);
    active = active_;
  }
  std::erase(closed, active);
  if (active != nullptr) {
    active->NoteSettled();
  }
  round.unsealed = static_cast<std::size_t>(std::count_if(
      closed.begin(), closed.end(), [](const SegmentPointer& segment) { return !segment->GetFacts().is_sealed; }));
  for (auto segment = closed.begin(); segment != closed.end() && !(is_stopping && is_stopping()); ++segment) {
    TidyClosed(**segment, round);
  }
  if (!closed.empty()) {
    close_above_ = kMostOpenFiles;  // those that could not be closed before have their index now
    LimitOpenFiles();
  }
  if (round.has_dropped) {
    folder_->Sync();  // a whole segment that came back after a power failure would be much that nothing names
  }
}

void CBodyLog::TidyClosed(CBodySegment& segment, Round& round) {
  const CBodySegment::Facts facts = segment.GetFacts();
  int error = 0;
  segment.NoteSettled();
  if (facts.is_busy) {
    return;
  }
  if (facts.live == 0 && facts.unsettled == 0 && !facts.has_lost) {
    Drop(segment);
    round.has_dropped = true;
  } else if (!facts.is_sealed && (facts.unsettled == 0 || round.unsealed > details::kMostUnsealed)) {
    error = segment.Seal();
    round.unsealed -= error == 0 ? 1 : 0;
  } else if (facts.is_sealed && details::IsMostlyGaps(facts) && round.rewrites < details::kMostRewrites) {
    error = WriteAnew(segment, facts);
    ++round.rewrites;
  } else if (round.is_short && details::HasGaps(facts)) {
    segment.FreeGaps();
  }
  if (error != 0) {
    Report("tidying", SegmentFileName(segment.GetNumber()), error);
  }
  if (HostSystem::IsNoSpace(error)) {
    segment.FreeGaps();  // there may be room for it the next time
  }
}

int CBodyLog::WriteAnew(CBodySegment& segment, const CBodySegment::Facts& facts) {
  if (room_ == nullptr) {
    return segment.Rewrite();
  }
  const CStoreRoom::CClaim room(*room_, facts.live_bytes);
  if (room) {
    return segment.Rewrite();
  }
  segment.FreeGaps();  // there may be room for a copy the next time
  return 0;
}

// Closes the segment that is being filled when there is much to free in it, and lets go of those that were closed: who
// holds a segment that is removed holds its room.
void CBodyLog::RetireActive(const Round& round) {
  const std::lock_guard lock(append_mutex_);
  if (active_ != nullptr) {
    const CBodySegment::Facts facts = active_->GetFacts();
    const bool is_empty = facts.live == 0 && facts.file_bytes > BodyFormat::kSegmentHeadBytes;
    const bool is_mostly_gaps = details::IsMostlyGaps(facts) && facts.file_bytes >= details::kLeastGapBytes;
    if (is_empty || is_mostly_gaps || (round.is_short && details::HasGaps(facts))) {
      active_ = nullptr;
    }
  }
  ForgetFlushed();
}

void CBodyLog::Drop(const CBodySegment& segment) {
  const std::string file = SegmentFileName(segment.GetNumber());
  {
    const std::unique_lock lock(segments_mutex_);
    segments_.erase(segment.GetNumber());
  }
  const int error = folder_->Remove(file);
  if (error != 0 && error != ENOENT) {
    Report("removing", file, error);
  }
}

}  // namespace Tansy::Host
