// What the server that takes a request says about it while it runs.
#ifndef TANSY_NET_WIRE_REQUEST_NOTE_H
#define TANSY_NET_WIRE_REQUEST_NOTE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace TansyNet {

class COperation;

inline std::int64_t SteadyNanoseconds() noexcept {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Shared by a connection and whoever handles its request. Threads: any.
struct RequestNote {
  std::atomic<COperation*> operation{nullptr};
  std::atomic<std::int64_t> opened{0};  // when its handler began; 0 before that, and when nobody wants to know
  bool is_timed = false;                // somebody wants to know; it does not change while a request runs
};

// Says which kind of request this is, as far as it is known.
inline void NameOperation(const std::shared_ptr<RequestNote>& note, COperation& operation) noexcept {
  if (note != nullptr) {
    note->operation.store(&operation, std::memory_order_relaxed);
  }
}

// Says the same, and that the handling of the request begins.
inline void BeginOperation(const std::shared_ptr<RequestNote>& note, COperation& operation) noexcept {
  NameOperation(note, operation);
  if (note != nullptr && note->is_timed) {
    note->opened.store(SteadyNanoseconds(), std::memory_order_relaxed);
  }
}

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_REQUEST_NOTE_H
