#include "StoreMirror.h"

#include <exception>
#include <functional>
#include <utility>

#include "HostLog.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::chrono::milliseconds kLookAgain{100};

}  // namespace
}  // namespace details

class CStoreMirror::CTicket {
 public:
  bool is_done = false;
  EStoreResult result = EStoreResult::kFailed;
};

CStoreMirror::CStoreMirror(std::shared_ptr<IObjectStore> target) : target_(std::move(target)) {
  try {
    for (Lane& lane : lanes_) {
      lane.thread = std::thread([this, &lane] { Run(lane); });
    }
  } catch (...) {
    End();
    throw;
  }
}

CStoreMirror::~CStoreMirror() {
  End();
}

CStoreMirror::Ticket CStoreMirror::Give(const StoredName& name, std::size_t bytes, const MakeWork& make_work) noexcept {
  std::unique_lock lock(mutex_);
  if (!WaitForRoom(lock, bytes)) {
    return nullptr;
  }
  if (open_jobs_++ == 0) {
    last_progress_ = Clock::now();
  }
  open_bytes_ += bytes;
  try {
    lock.unlock();
    Job job{make_work(), bytes, std::make_shared<CTicket>()};
    lock.lock();
    Ticket ticket = job.ticket;
    Lane& lane = lanes_[std::hash<std::string>()(name.id) % lanes_.size()];
    lane.jobs.push_back(std::move(job));
    lane.has_job.notify_one();
    return ticket;
  } catch (const std::exception&) {
    if (!lock.owns_lock()) {
      lock.lock();
    }
    --open_jobs_;
    open_bytes_ -= bytes;
    Fail("memory is short");
    return nullptr;
  }
}

// Work that is larger than all of the room is taken when it is alone.
bool CStoreMirror::WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t bytes) {
  const auto has_room = [this, bytes] { return has_failed_ || open_bytes_ == 0 || open_bytes_ + bytes <= kMostBytes; };
  if (!has_room()) {
    const TansyBase::CBlockingScope blocking;
    if (!changed_.wait_for(lock, kPatience, has_room)) {
      Fail("it takes too long");
    }
  }
  return !has_failed_;
}

void CStoreMirror::WaitABit(const Ticket& ticket) {
  std::unique_lock lock(mutex_);
  const auto is_over = [this, &ticket] { return ticket->is_done || has_failed_ || is_late_; };
  if (ticket == nullptr || is_over()) {
    return;
  }
  const TansyBase::CBlockingScope blocking;
  if (!changed_.wait_for(lock, kPatience, is_over)) {
    is_late_ = true;
    changed_.notify_all();
  }
}

EStoreResult CStoreMirror::WaitForEnd(const Ticket& ticket) {
  std::unique_lock lock(mutex_);
  while (ticket != nullptr && !ticket->is_done && !has_failed_) {
    changed_.wait_for(lock, details::kLookAgain);
    if (IsSilent()) {
      Fail("it does not answer");
    }
  }
  return ticket == nullptr ? EStoreResult::kFailed : ticket->result;
}

bool CStoreMirror::HasFailed() {
  const std::lock_guard lock(mutex_);
  if (IsSilent()) {
    Fail("it does not answer");
  }
  return has_failed_;
}

bool CStoreMirror::IsSilent() const {
  return !has_failed_ && open_jobs_ > 0 && Clock::now() - last_progress_ > kSilence;
}

bool CStoreMirror::WaitUntilIdle(std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, wait, [this] { return open_jobs_ == 0; });
}

void CStoreMirror::Fail(const char* reason) {
  if (!std::exchange(has_failed_, true)) {
    HOST_LOG(logging::kError,
             "[%s]the new place of the bytes cannot be written, the old one goes on alone: %s.[%s(%d)]", reason);
  }
  changed_.notify_all();
}

void CStoreMirror::End() {
  {
    const std::lock_guard lock(mutex_);
    has_ended_ = has_failed_ = true;
    changed_.notify_all();
    for (Lane& lane : lanes_) {
      lane.has_job.notify_one();
    }
  }
  for (Lane& lane : lanes_) {
    if (lane.thread.joinable()) {
      lane.thread.join();
    }
  }
  target_.reset();
}

void CStoreMirror::Run(Lane& lane) {
  std::unique_lock lock(mutex_);
  for (;;) {
    lane.has_job.wait(lock, [this, &lane] { return has_ended_ || !lane.jobs.empty(); });
    if (has_ended_) {
      return;
    }
    Job job = std::move(lane.jobs.front());
    lane.jobs.pop_front();
    const bool is_given_up = has_failed_;
    lock.unlock();
    const EStoreResult result = is_given_up ? EStoreResult::kFailed : Do(job);
    job.work = nullptr;
    lock.lock();
    job.ticket->result = result;
    job.ticket->is_done = true;
    --open_jobs_;
    open_bytes_ -= job.bytes;
    last_progress_ = Clock::now();
    is_late_ = false;
    if (result != EStoreResult::kDone) {
      Fail(result == EStoreResult::kNoSpace ? "it is full" : "a write has failed");
    }
    changed_.notify_all();
  }
}

EStoreResult CStoreMirror::Do(const Job& job) const {
  try {
    return job.work(*target_);
  } catch (const std::exception&) {
    return EStoreResult::kFailed;
  }
}

}  // namespace Tansy::Host
