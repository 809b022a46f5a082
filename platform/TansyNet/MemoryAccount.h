// How much memory the bodies of all requests may take together.
#ifndef TANSY_NET_HTTP_SERVER_MEMORY_H
#define TANSY_NET_HTTP_SERVER_MEMORY_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace TansyNet {

// Limits for single requests leave room for thousands of them: without a common bound, a few hundred clients that send
// large bodies to nobody in particular would use up the host's memory. Any thread.
class CMemoryAccount {
 public:
  static constexpr std::uint64_t kDefaultLimit = std::uint64_t{2} << 30;

  // Lives as long as the process, as bodies may.
  static CMemoryAccount& Process();

  void SetLimit(std::uint64_t bytes) { limit_.store(bytes, std::memory_order_relaxed); }
  std::uint64_t Used() const { return used_.load(std::memory_order_relaxed); }
  // False, with nothing taken, when it would exceed the limit.
  bool TryTake(std::size_t bytes);
  void GiveBack(std::size_t bytes) { used_.fetch_sub(bytes, std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> limit_{0};
  std::atomic<std::uint64_t> used_{0};
};

// One body's part of it, given back with the object.
class CMemoryShare {
 public:
  CMemoryShare() = default;
  CMemoryShare(CMemoryShare&& other) noexcept;
  CMemoryShare& operator=(CMemoryShare&& other) noexcept;
  ~CMemoryShare();

  // False, with the share unchanged, when there is no room for so much.
  bool Resize(std::size_t bytes);

 private:
  std::size_t bytes_ = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_SERVER_MEMORY_H
