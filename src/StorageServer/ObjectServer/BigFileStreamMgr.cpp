#include "StorageServer/ObjectServer/BigFileStreamMgr.h"

#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::details {

namespace {

// A client that goes away in the middle of its upload leaves its record behind, because nobody tells. Past this many
// records those that have not grown for so long are dropped.
constexpr std::size_t kManyStreams = 1024;
constexpr std::time_t kAbandonedSeconds = std::time_t{6} * 3600;
constexpr std::time_t kSweepSeconds = 60;
// More than there are connections, so that the end of every stream that may still send is remembered.
constexpr std::size_t kRememberedEnds = 16384;

}  // namespace

// Counts a piece as under way, from before it waits for its turn until its outcome is known.
class CBigFileStreamMgr::CPieceUnderWay {
 public:
  CPieceUnderWay(CBigFileStreamMgr& streams, std::uint32_t session_id) : streams_(streams), session_id_(session_id) {
    Count(1);
  }
  ~CPieceUnderWay() { Count(-1); }
  CPieceUnderWay(const CPieceUnderWay&) = delete;
  CPieceUnderWay& operator=(const CPieceUnderWay&) = delete;

 private:
  void Count(int change) {
    const std::lock_guard<std::mutex> lock(streams_.mutex_);
    if (const auto stream = streams_.streams_.find(session_id_); stream != streams_.streams_.end()) {
      stream->second.pieces_under_way += change;
    }
  }

  CBigFileStreamMgr& streams_;
  const std::uint32_t session_id_;
};

CBigFileStreamMgr& CBigFileStreamMgr::Instance() {
  return CSingleton<CBigFileStreamMgr>::Instance();
}

bool CBigFileStreamMgr::SetSaveCallback(StreamSaveCallback callback) {
  const std::lock_guard<std::mutex> lock(mutex_);
  save_callback_ = callback;
  return true;
}

bool CBigFileStreamMgr::RegisterStream(std::uint32_t session_id) {
  const std::time_t now = TansyBase::TimeUtil::Now();
  const std::lock_guard<std::mutex> lock(mutex_);
  RemoveAbandoned(now);
  Stream stream;
  stream.last_change = now;
  return streams_.try_emplace(session_id, std::move(stream)).second;
}

bool CBigFileStreamMgr::IsStreamAbsent(std::uint32_t session_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return !streams_.contains(session_id);
}

bool CBigFileStreamMgr::GetStreamInfo(ObjectInfo& info, std::uint32_t session_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto stream = streams_.find(session_id);
  if (stream == streams_.end()) {
    return false;
  }
  info = stream->second.info;
  return true;
}

bool CBigFileStreamMgr::RemoveStream(std::uint32_t session_id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const bool removed = streams_.erase(session_id) > 0;
  changed_.notify_all();
  return removed;
}

bool CBigFileStreamMgr::UploadStream(std::uint32_t session_id, const char* data, std::uint32_t size,
                                     const std::string& bucket_name) {
  const CPieceUnderWay under_way(*this, session_id);
  const std::lock_guard<std::mutex> store_lock(store_mutex_);
  std::unique_lock<std::mutex> lock(mutex_);
  auto stream = streams_.find(session_id);
  if (stream == streams_.end()) {
    CLOUD_LOG(logging::kError, "[%s]get object failed, session id[%d].[%s(%d)]", session_id);
    return false;
  }
  std::string location = LocationText(bucket_name, stream->second.info.url);
  const auto offset = static_cast<std::uint32_t>(stream->second.info.size);
  const StreamSaveCallback callback = save_callback_;

  // The storage may take its time; receiving threads and waiting handlers must not wait with it.
  lock.unlock();
  const int result = StreamSave(callback, {data, size}, offset, location);
  if (result != kStorageOk) {
    CLOUD_LOG(logging::kError, "[%s]save file failed[%d].[%s(%d)]", result);
    return false;
  }
  lock.lock();
  stream = streams_.find(session_id);
  if (stream == streams_.end()) {
    CLOUD_LOG(logging::kError, "[%s]get object failed, session id[%d].[%s(%d)]", session_id);
    return false;
  }
  stream->second.info.size += size;
  stream->second.info.url = std::move(location);
  stream->second.last_change = TansyBase::TimeUtil::Now();
  changed_.notify_all();
  return true;
}

bool CBigFileStreamMgr::WaitForChange(std::uint32_t session_id, std::uint64_t seen_size,
                                      std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  auto stream = streams_.end();
  const auto has_changed = [&] {
    stream = streams_.find(session_id);
    return stream == streams_.end() || stream->second.info.size != seen_size;
  };
  while (!changed_.wait_for(lock, timeout, has_changed)) {
    if (stream->second.pieces_under_way == 0) {
      return false;
    }
  }
  return true;
}

void CBigFileStreamMgr::EndStream(std::uint32_t session_id, StreamEnd end) {
  const std::lock_guard<std::mutex> lock(mutex_);
  streams_.erase(session_id);
  RememberEnd(session_id, end);
  changed_.notify_all();
}

StreamEnd CBigFileStreamMgr::EndOf(std::uint32_t session_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto end = ended_.find(session_id);
  return end != ended_.end() ? end->second : StreamEnd::kNone;
}

void CBigFileStreamMgr::NoteLastPiece(std::uint32_t session_id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (const auto stream = streams_.find(session_id); stream != streams_.end()) {
    stream->second.last_piece_came = true;
  }
}

void CBigFileStreamMgr::RememberEnd(std::uint32_t session_id, StreamEnd end) {
  if (ended_.insert_or_assign(session_id, end).second) {
    ended_order_.push_back(session_id);
  }
  if (ended_order_.size() > kRememberedEnds) {
    ended_.erase(ended_order_.front());
    ended_order_.pop_front();
  }
}

void CBigFileStreamMgr::RemoveAbandoned(std::time_t now) {
  if (streams_.size() < kManyStreams || now - last_sweep_ < kSweepSeconds) {
    return;
  }
  last_sweep_ = now;
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    if (!stream->second.last_piece_came && now - stream->second.last_change > kAbandonedSeconds) {
      RememberEnd(stream->first, StreamEnd::kFailed);
      stream = streams_.erase(stream);
    } else {
      ++stream;
    }
  }
}

}  // namespace Tansy::CloudStorage::details
