#include "logging/LineQueue.h"

#include <cstring>
#include <utility>

namespace logging::details {
namespace {

// After a batch the writing thread lets lines gather for this long. What a crash can lose is the lines of this time.
constexpr std::chrono::milliseconds kGatherTime{10};
// A batch that grew beyond this gives its memory back.
constexpr std::size_t kBytesToKeep = std::size_t{1} << 20;
// Room of dropped lines is used again once there is this much of it.
constexpr std::size_t kBytesToCloseUp = std::size_t{64} * 1024;

}  // namespace

void CLineBatch::Append(Time time, std::initializer_list<std::string_view> pieces) {
  Head head{time};
  for (const std::string_view piece : pieces) {
    head.size += piece.size();
  }
  char head_bytes[sizeof head];
  std::memcpy(head_bytes, &head, sizeof head);
  // All memory is there before the first byte is, because half a line could not be read back.
  bytes_.reserve(bytes_.size() + sizeof head + head.size);
  bytes_.append(head_bytes, sizeof head);
  for (const std::string_view piece : pieces) {
    bytes_.append(piece);
  }
}

bool CLineBatch::Next(Time& time, std::string_view& text) {
  if (begin_ == bytes_.size()) {
    return false;
  }
  Head head;
  std::memcpy(&head, bytes_.data() + begin_, sizeof head);
  time = head.time;
  text = std::string_view(bytes_).substr(begin_ + sizeof head, head.size);
  begin_ += sizeof head + head.size;
  return true;
}

void CLineBatch::DropFirst() {
  Time time;
  std::string_view text;
  Next(time, text);
  if (begin_ >= kBytesToCloseUp && begin_ >= bytes_.size() / 2) {
    bytes_.erase(0, begin_);
    begin_ = 0;
  }
}

void CLineQueue::Push(std::initializer_list<std::string_view> pieces) {
  bool wake = false;
  {
    const std::lock_guard lock(mutex_);
    // The time is taken here, so that the times in the log never go back.
    waiting_.Append(std::chrono::system_clock::now(), pieces);
    ++pushed_;
    ++waiting_lines_;
    if (waiting_lines_ > most_lines_) {
      waiting_.DropFirst();
      --waiting_lines_;
      ++dropped_;
    }
    // A queue that is half full does not wait until the thread looks by itself.
    const bool is_filling = waiting_lines_ > most_lines_ / 2 && !is_urgent_;
    wake = is_asleep_ || is_filling;
    is_asleep_ = false;
    is_urgent_ = is_urgent_ || is_filling;
  }
  if (wake) {
    wake_.notify_one();
  }
}

bool CLineQueue::Take(CLineBatch& batch, std::uint64_t& dropped) {
  batch.bytes_.clear();
  batch.begin_ = 0;
  if (batch.bytes_.capacity() > kBytesToKeep) {
    batch.bytes_ = std::string();
  }
  std::unique_lock lock(mutex_);
  const bool had_lines = std::exchange(lines_in_hand_, 0) > 0;
  written_.notify_all();
  if (had_lines) {
    wake_.wait_for(lock, kGatherTime, [this] { return is_urgent_ || is_stopped_; });
  }
  is_asleep_ = waiting_lines_ == 0;
  wake_.wait(lock, [this] { return waiting_lines_ > 0 || is_stopped_; });
  is_asleep_ = false;
  is_urgent_ = false;
  std::swap(batch, waiting_);
  lines_in_hand_ = std::exchange(waiting_lines_, 0);
  taken_at_ = Clock::now();
  dropped = dropped_;
  has_ended_ = lines_in_hand_ == 0;
  if (has_ended_) {
    written_.notify_all();
  }
  return !has_ended_;
}

CLineQueue::Clock::time_point CLineQueue::Limit(std::chrono::milliseconds patience) const {
  return (lines_in_hand_ > 0 ? taken_at_ : Clock::now()) + patience;
}

void CLineQueue::WaitUntilWritten(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  is_urgent_ = true;
  wake_.notify_one();
  const std::uint64_t last = pushed_;
  written_.wait_until(lock, Limit(patience),
                      [this, last] { return pushed_ - waiting_lines_ - lines_in_hand_ >= last; });
}

bool CLineQueue::Stop(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  is_stopped_ = true;
  wake_.notify_one();
  while (!has_ended_) {
    const Clock::time_point limit = Limit(patience);
    if (Clock::now() >= limit) {
      return false;
    }
    written_.wait_until(lock, limit);
  }
  return true;
}

std::uint64_t CLineQueue::Dropped() const {
  const std::lock_guard lock(mutex_);
  return dropped_;
}

}  // namespace logging::details
