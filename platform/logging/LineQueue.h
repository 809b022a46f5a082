// Lines on their way from the threads that log to the one that writes. Internal to the logging library.
#ifndef TANSY_LOGGING_LINE_QUEUE_H
#define TANSY_LOGGING_LINE_QUEUE_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>

namespace logging::details {

// Several lines as the writing thread takes them out, in the order in which they came.
class CLineBatch {
 public:
  using Time = std::chrono::system_clock::time_point;

  // Gives the next line, whose text lives as long as the batch. Returns false after the last one.
  bool Next(Time& time, std::string_view& text);

 private:
  friend class CLineQueue;

  // Each line is a head and the text's bytes. A whole batch is one block of memory, which is used again and again.
  struct Head {
    Time time;
    std::size_t size = 0;
  };

  void Append(Time time, std::initializer_list<std::string_view> pieces);
  void DropFirst();

  std::string bytes_;
  std::size_t begin_ = 0;  // the first line that was not taken or dropped
};

// Collects lines in memory. A line wakes the writing thread only when that thread sleeps; after a batch, the thread
// looks again by itself a moment later. So a busy server pays one wake-up and one write for many lines, and a line that
// comes alone is written at once.
//
// Threads: any number may push and wait; one takes.
class CLineQueue {
 public:
  explicit CLineQueue(std::size_t most_lines) : most_lines_(most_lines) {}

  // Adds a line, whose text is all pieces together. When the queue is full, its oldest line is dropped. Throws
  // std::bad_alloc, and then the line is in none of the counts.
  void Push(std::initializer_list<std::string_view> pieces);

  // Waits for lines and moves them into `batch`; `dropped` tells how many were dropped since the start. The lines of
  // the batch before count as written from now on. Returns false when no line is left and the queue was stopped.
  bool Take(CLineBatch& batch, std::uint64_t& dropped);

  // Waits until every line that was pushed before has been written or dropped, at most this long. The time that the
  // batch in hand has taken already counts: nobody waits for a thread that has been stuck for so long.
  void WaitUntilWritten(std::chrono::milliseconds patience);
  // Makes Take return false as soon as the queue is empty, and waits for that. Returns false when a batch takes longer
  // than `patience`.
  bool Stop(std::chrono::milliseconds patience);

  std::uint64_t Dropped() const;

 private:
  using Clock = std::chrono::steady_clock;

  // When somebody who begins to wait now gives up.
  Clock::time_point Limit(std::chrono::milliseconds patience) const;

  const std::size_t most_lines_;

  mutable std::mutex mutex_;
  std::condition_variable wake_;     // for the taking thread
  std::condition_variable written_;  // for those who wait until lines are written, or for the end
  // Everything below is guarded by mutex_.
  CLineBatch waiting_;
  std::size_t waiting_lines_ = 0;
  std::size_t lines_in_hand_ = 0;  // lines of the batch that was taken last
  Clock::time_point taken_at_;     // when that was
  std::uint64_t pushed_ = 0;
  std::uint64_t dropped_ = 0;
  bool is_asleep_ = false;  // the taking thread waits until it is woken
  bool is_urgent_ = false;  // somebody wants the lines that wait written now
  bool is_stopped_ = false;
  bool has_ended_ = false;  // Take has returned false
};

}  // namespace logging::details

#endif  // TANSY_LOGGING_LINE_QUEUE_H
