#include "StorageServer/ObjectServer/BigFileStreamMgr.h"

#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::details {

namespace {

// A client that goes away in the middle of its upload leaves its record behind, because nobody reports that. When there
// are more records than this, those that have not grown for the time below are dropped.
constexpr std::size_t kManyStreams = 1024;
constexpr std::time_t kAbandonedSeconds = std::time_t{6} * 3600;
constexpr std::time_t kSweepSeconds = 60;

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
    if (Stream* const stream = streams_.Find(session_id_)) {
      stream->pieces_under_way += change;
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

CBigFileStreamMgr::Stream* CBigFileStreamMgr::Find(std::uint32_t session_id) {
  const auto stream = streams_.find(session_id);
  return stream != streams_.end() && stream->second.end == StreamEnd::kNone ? &stream->second : nullptr;
}

const CBigFileStreamMgr::Stream* CBigFileStreamMgr::Find(std::uint32_t session_id) const {
  const auto stream = streams_.find(session_id);
  return stream != streams_.end() && stream->second.end == StreamEnd::kNone ? &stream->second : nullptr;
}

bool CBigFileStreamMgr::RegisterStream(std::uint32_t session_id) {
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  const std::lock_guard<std::mutex> lock(mutex_);
  RemoveAbandoned(now);
  Stream fresh;
  fresh.last_change = now;
  fresh.store_mutex = std::make_shared<std::mutex>();
  const bool is_new = streams_.try_emplace(session_id, std::move(fresh)).second;
  live_ += is_new ? 1 : 0;
  return is_new;
}

bool CBigFileStreamMgr::IsStreamAbsent(std::uint32_t session_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return Find(session_id) == nullptr;
}

bool CBigFileStreamMgr::GetStreamInfo(ObjectInfo& info, std::uint32_t session_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Stream* const stream = Find(session_id);
  if (stream == nullptr) {
    return false;
  }
  info = stream->info;
  return true;
}

bool CBigFileStreamMgr::RemoveStream(std::uint32_t session_id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (Find(session_id) == nullptr) {
    return false;
  }
  streams_.erase(session_id);
  --live_;
  changed_.notify_all();
  return true;
}

bool CBigFileStreamMgr::UploadStream(std::uint32_t session_id, const char* data, std::uint32_t size,
                                     const std::string& bucket_name, int* storage_result) {
  const CPieceUnderWay under_way(*this, session_id);
  std::unique_lock<std::mutex> lock(mutex_);
  Stream* stream = Find(session_id);
  if (stream == nullptr) {
    CLOUD_LOG(logging::kError, "[%s]get object failed, session id[%d].[%s(%d)]", session_id);
    return false;
  }
  const std::shared_ptr<std::mutex> store_mutex = stream->store_mutex;
  lock.unlock();

  const std::lock_guard<std::mutex> turn(*store_mutex);
  lock.lock();
  stream = Find(session_id);
  if (stream == nullptr) {
    CLOUD_LOG(logging::kError, "[%s]get object failed, session id[%d].[%s(%d)]", session_id);
    return false;
  }
  std::string location = LocationText(bucket_name, stream->info.url);
  const auto offset = static_cast<std::uint32_t>(stream->info.size);
  const StreamSaveCallback callback = save_callback_;

  // The storage may take its time, and receiving threads, waiting handlers and other uploads must not wait with it.
  lock.unlock();
  const int result = StreamSave(callback, {data, size}, offset, location);
  if (result != kStorageOk) {
    CLOUD_LOG(logging::kError, "[%s]save file failed[%d].[%s(%d)]", result);
    if (storage_result != nullptr) {
      *storage_result = result;
    }
    return false;
  }
  lock.lock();
  stream = Find(session_id);
  if (stream == nullptr) {
    CLOUD_LOG(logging::kError, "[%s]get object failed, session id[%d].[%s(%d)]", session_id);
    return false;
  }
  stream->info.size += size;
  stream->info.url = std::move(location);
  stream->last_change = TansyBase::TimeUtil::Uptime();
  changed_.notify_all();
  return true;
}

bool CBigFileStreamMgr::WaitForChange(std::uint32_t session_id, std::uint64_t seen_size,
                                      std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  const Stream* stream = nullptr;
  const auto has_changed = [&] {
    stream = Find(session_id);
    return stream == nullptr || stream->info.size != seen_size;
  };
  while (!changed_.wait_for(lock, timeout, has_changed)) {
    if (stream->pieces_under_way == 0) {
      return false;
    }
  }
  return true;
}

void CBigFileStreamMgr::EndStream(std::uint32_t session_id, StreamEnd end) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto [stream, is_new] = streams_.try_emplace(session_id);
  live_ += is_new ? 1 : 0;
  End(session_id, stream->second, end);
}

StreamEnd CBigFileStreamMgr::EndOf(std::uint32_t session_id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto stream = streams_.find(session_id);
  return stream != streams_.end() ? stream->second.end : StreamEnd::kNone;
}

void CBigFileStreamMgr::NoteLastPiece(std::uint32_t session_id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (Stream* const stream = Find(session_id)) {
    stream->last_piece_came = true;
  }
}

std::vector<std::string> CBigFileStreamMgr::LocationsUnderWay(
    const std::function<bool(std::uint32_t session_id)>& is_open) {
  const auto may_go_on = [](const Stream& stream) { return stream.last_piece_came || stream.pieces_under_way > 0; };
  std::vector<std::uint32_t> in_doubt;
  std::unique_lock<std::mutex> lock(mutex_);
  for (const auto& [session_id, stream] : streams_) {
    if (stream.end == StreamEnd::kNone && !may_go_on(stream)) {
      in_doubt.push_back(session_id);
    }
  }
  // The HTTP library is asked without the lock, because it may take locks of its own to answer.
  lock.unlock();
  std::erase_if(in_doubt, is_open);
  lock.lock();
  for (const std::uint32_t session_id : in_doubt) {
    if (Stream* const stream = Find(session_id); stream != nullptr && !may_go_on(*stream)) {
      End(session_id, *stream, StreamEnd::kFailed);
    }
  }
  std::vector<std::string> locations;
  for (const auto& [session_id, stream] : streams_) {
    if (stream.end == StreamEnd::kNone && !stream.info.url.empty()) {
      locations.push_back(stream.info.url);
    }
  }
  return locations;
}

void CBigFileStreamMgr::End(std::uint32_t session_id, Stream& stream, StreamEnd end) {
  if (stream.end == StreamEnd::kNone) {
    --live_;
    if (const auto oldest = streams_.find(ended_[next_ended_]);
        oldest != streams_.end() && oldest->second.end != StreamEnd::kNone) {
      streams_.erase(oldest);
    }
    ended_[next_ended_] = session_id;
    next_ended_ = (next_ended_ + 1) % ended_.size();
  }
  stream = Stream{};  // releases what the ended stream held
  stream.end = end;
  changed_.notify_all();
}

void CBigFileStreamMgr::RemoveAbandoned(std::int64_t now) {
  if (live_ < kManyStreams || now - last_sweep_ < kSweepSeconds) {
    return;
  }
  last_sweep_ = now;
  std::vector<std::uint32_t> abandoned;
  for (const auto& [session_id, stream] : streams_) {
    if (stream.end == StreamEnd::kNone && !stream.last_piece_came && now - stream.last_change > kAbandonedSeconds) {
      abandoned.push_back(session_id);
    }
  }
  for (const std::uint32_t session_id : abandoned) {
    End(session_id, *Find(session_id), StreamEnd::kFailed);
  }
}

}  // namespace Tansy::CloudStorage::details
