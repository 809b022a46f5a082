// One ceiling for the memory that requests and answers take on their way through the process.
//
// Limits for single requests leave room for thousands of them. Without a common bound, a few hundred clients that send
// slowly, or read slowly, would use up the host's memory. So code that keeps a client's bytes for longer than a call
// claims room for them here first: the HTTP server for request bodies and for the part of an answer that a socket did
// not take, handlers for the chunks of big downloads and for everything else that grows with the number of clients.
#ifndef TANSY_NET_MEMORY_ACCOUNT_H
#define TANSY_NET_MEMORY_ACCOUNT_H

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace TansyNet {

// Says what the bytes are. All uses share the ceiling. The first two may take only a part of it, so that clients who
// send or read slowly cannot take the room of clients who are being served.
enum class MemoryUse : std::uint8_t {
  kArriving,  // bodies that arrive and that no handler has seen: an eighth, but room for one large body
  kAnswers,   // parts of answers that sockets did not take: one half
  kWork,      // everything else: bodies with their handlers, chunks of big downloads
};

// Threads: any.
class CMemoryAccount {
 public:
  static constexpr std::uint64_t kDefaultLimit = std::uint64_t{1} << 30;
  // With a smaller limit, the parts would hold no whole body and no whole answer.
  static constexpr std::uint64_t kSmallestLimit = std::uint64_t{256} << 20;

  CMemoryAccount() = default;
  CMemoryAccount(const CMemoryAccount&) = delete;
  CMemoryAccount& operator=(const CMemoryAccount&) = delete;

  // The account of the process. It lives as long as the process, because what it counts may do so too. Needs no
  // memory, because bodies are given back while there is none.
  static CMemoryAccount& Process() noexcept;

  // Sets the ceiling in bytes. What is taken already stays taken.
  void SetLimit(std::uint64_t bytes);
  std::uint64_t Limit() const;
  std::uint64_t Used() const;
  std::uint64_t Used(MemoryUse use) const;
  // Says whether this many bytes could be taken at all, if nobody else had any.
  bool CanEverTake(MemoryUse use, std::uint64_t bytes) const;
  // Says that somebody waits for room without a thread of his own, from now until EndWait.
  void BeginWait();
  void EndWait();
  // Says whether holders of room that make no progress must lose it: somebody waits, or more than half of the part, or
  // three quarters of the ceiling, are taken.
  bool IsShort(MemoryUse use) const;

 private:
  friend class CMemoryShare;
  using Lock = std::unique_lock<std::mutex>;

  bool HasRoom(MemoryUse use, std::uint64_t bytes) const;
  std::uint64_t PartOf(MemoryUse use) const;
  std::uint64_t& UsedFor(MemoryUse use) { return used_.at(static_cast<std::size_t>(use)); }
  std::uint64_t UsedFor(MemoryUse use) const { return used_.at(static_cast<std::size_t>(use)); }
  std::uint64_t Total() const;

  // Returns false and takes nothing when the bytes would exceed the part or the ceiling.
  bool TryTake(MemoryUse use, std::uint64_t bytes);
  bool TakeWithin(MemoryUse use, std::uint64_t bytes, std::uint32_t milliseconds);
  void GiveBack(MemoryUse use, std::uint64_t bytes);
  void Move(MemoryUse from, MemoryUse to, std::uint64_t bytes);

  mutable std::mutex mutex_;
  std::condition_variable given_back_;
  // Everything below is guarded by mutex_.
  std::uint64_t limit_ = kDefaultLimit;
  std::array<std::uint64_t, 3> used_{};
  unsigned waiting_ = 0;
};

// Says that its owner waits for room. This makes memory count as short for everybody who holds some.
class CMemoryWait {
 public:
  CMemoryWait() { CMemoryAccount::Process().BeginWait(); }
  ~CMemoryWait() { CMemoryAccount::Process().EndWait(); }
  CMemoryWait(const CMemoryWait&) = delete;
  CMemoryWait& operator=(const CMemoryWait&) = delete;
};

// A share of the process's account, which is given back when the object is destroyed. Threads: one at a time.
class CMemoryShare {
 public:
  CMemoryShare() = default;
  explicit CMemoryShare(MemoryUse use) : use_(use) {}
  CMemoryShare(CMemoryShare&& other) noexcept;
  CMemoryShare& operator=(CMemoryShare&& other) noexcept;
  ~CMemoryShare();

  std::uint64_t Bytes() const { return bytes_; }
  // Makes the share this large in all: it claims more or gives back the rest. Returns false and leaves the share
  // unchanged when there is no room.
  bool Resize(std::uint64_t bytes);
  // Does the same but waits for room. It is for threads on which no other client depends.
  bool ResizeWithin(std::uint64_t bytes, std::uint32_t milliseconds);
  // Says that the bytes serve another use from now on. This is never refused: the ceiling still holds, but the new use
  // may exceed its part.
  void ChangeUse(MemoryUse use);

 private:
  MemoryUse use_ = MemoryUse::kWork;
  std::uint64_t bytes_ = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_MEMORY_ACCOUNT_H
