#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_BIG_SEND_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_BIG_SEND_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage::details {

// Runs work that waits for a client, for slow storage or for memory, each on a thread of its own. The threads' number
// is limited: further work waits for a thread that gets free, and beyond a second limit it is refused. The threads are
// detached; they are made when needed and end when nothing waits. Objects live as long as the process. Threads: any.
class CWaitingThreads : private TansyBase::CNoncopyable {
 public:
  // Runs `work` on a thread of its own, now or as soon as one is free. Returns false when it will never run.
  bool Run(std::function<void()> work);

 protected:
  // `name` is what the threads show in a debugger.
  CWaitingThreads(const char* name, std::size_t most_threads, std::size_t most_waiting)
      : name_(name), most_threads_(most_threads), most_waiting_(most_waiting) {}
  ~CWaitingThreads() = default;

 private:
  void Loop(std::function<void()> work);
  // Takes what waits next. When there is nothing, the calling thread is no longer counted, the result is false, and the
  // thread has to end.
  bool Next(std::function<void()>& work);

  const char* const name_;
  const std::size_t most_threads_;
  const std::size_t most_waiting_;
  std::mutex mutex_;  // guards the two below
  std::size_t threads_ = 0;
  std::deque<std::function<void()>> waiting_;
};

// Runs each big download on a thread of its own, which it occupies for as long as its client takes.
class CBigFileSendThreads : public CWaitingThreads {
 public:
  static constexpr std::size_t kMaxThreads = 128;
  static constexpr std::size_t kMaxWaiting = 1024;  // as many as can wait before their requests time out anyway
  static constexpr std::uint32_t kLargestChunk = 0xA00000;

  static CBigFileSendThreads& Instance();

  // How many bytes a download reads at a time; 0, or more than the largest chunk, means the largest chunk.
  void SetChunk(std::uint32_t bytes);
  std::uint32_t GetChunk() const { return chunk_.load(std::memory_order_relaxed); }

 private:
  friend class CSingleton<CBigFileSendThreads>;
  CBigFileSendThreads() : CWaitingThreads("tansy-download", kMaxThreads, kMaxWaiting) {}
  ~CBigFileSendThreads() = default;

  std::atomic<std::uint32_t> chunk_{kLargestChunk};
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_BIG_SEND_H
