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

// Runs each big download on a thread of its own. A download occupies its thread for as long as its client takes, so
// their number is limited: further downloads wait for a thread that gets free, and beyond a second limit they are
// refused. The threads are detached; they are made when needed and end when nothing waits. Threads: any.
class CBigFileSendThreads : private TansyBase::CNoncopyable {
 public:
  static constexpr std::size_t kMaxThreads = 128;
  static constexpr std::size_t kMaxWaiting = 1024;  // as many as can wait before their requests time out anyway
  static constexpr std::uint32_t kLargestChunk = 0xA00000;

  static CBigFileSendThreads& Instance();

  // Runs `send` on a thread of its own, now or as soon as one is free. Returns false when it will never run.
  bool Run(std::function<void()> send);

  // How many bytes a download reads at a time; 0, or more than the largest chunk, means the largest chunk.
  void SetChunk(std::uint32_t bytes);
  std::uint32_t GetChunk() const { return chunk_.load(std::memory_order_relaxed); }

 private:
  friend class CSingleton<CBigFileSendThreads>;
  CBigFileSendThreads() = default;
  ~CBigFileSendThreads() = default;

  void Loop(std::function<void()> send);
  // Takes the next waiting download. When there is none, the calling thread is no longer counted, the result is false,
  // and the thread has to end.
  bool Next(std::function<void()>& send);

  std::atomic<std::uint32_t> chunk_{kLargestChunk};
  std::mutex mutex_;  // guards the two below
  std::size_t threads_ = 0;
  std::deque<std::function<void()>> waiting_;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_BIG_SEND_H
