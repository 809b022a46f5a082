// One ceiling for the memory that requests and answers take on their way through the process.
//
// Limits for single requests leave room for thousands of them. Without a common bound, a few hundred clients that send
// slowly, or read slowly, would use up the host's memory. So whoever keeps a client's bytes for longer than a call
// claims room for them here first: the HTTP server for request bodies and for what a socket did not take of an answer,
// handlers for the chunks of big downloads and whatever else grows with the number of clients.
#ifndef TANSY_NET_MEMORY_ACCOUNT_H
#define TANSY_NET_MEMORY_ACCOUNT_H

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace TansyNet {

// What the bytes are. All uses share the ceiling; the first two may take a part of it only, so that clients who send or
// read slowly cannot take the room of those who are served.
enum class MemoryUse : std::uint8_t {
  kArriving,  // bodies that are being received and that no handler has seen: an eighth, but room for one large body
  kAnswers,   // what sockets did not take of answers: one half
  kWork,      // all else: bodies with their handlers, chunks of big downloads
};

// Any thread.
class CMemoryAccount {
 public:
  static constexpr std::uint64_t kDefaultLimit = std::uint64_t{1} << 30;
  // Below this the parts hold no whole body and no whole answer.
  static constexpr std::uint64_t kSmallestLimit = std::uint64_t{256} << 20;

  CMemoryAccount() = default;
  CMemoryAccount(const CMemoryAccount&) = delete;
  CMemoryAccount& operator=(const CMemoryAccount&) = delete;

  // Lives as long as the process, as what it counts may.
  static CMemoryAccount& Process();

  // Bytes. What is taken already stays taken.
  void SetLimit(std::uint64_t bytes);
  std::uint64_t Limit() const;
  std::uint64_t Used() const;
  std::uint64_t Used(MemoryUse use) const;
  // Whether so much could be had at all, if nobody else had anything.
  bool CanEverTake(MemoryUse use, std::uint64_t bytes) const;
  // Somebody waits for room without a thread of his own, from now until EndWait.
  void BeginWait();
  void EndWait();
  // Whether those who hold room without moving on are to lose it: somebody waits, or more than half of
  // the part, or three quarters of the ceiling, are taken.
  bool IsShort(MemoryUse use) const;

 private:
  friend class CMemoryShare;
  using Lock = std::unique_lock<std::mutex>;

  bool HasRoom(MemoryUse use, std::uint64_t bytes) const;
  std::uint64_t PartOf(MemoryUse use) const;
  std::uint64_t& UsedFor(MemoryUse use) { return used_.at(static_cast<std::size_t>(use)); }
  std::uint64_t UsedFor(MemoryUse use) const { return used_.at(static_cast<std::size_t>(use)); }
  std::uint64_t Total() const;

  // False, with nothing taken, when it would exceed the part or the ceiling.
  bool TryTake(MemoryUse use, std::uint64_t bytes);
  bool TakeWithin(MemoryUse use, std::uint64_t bytes, std::uint32_t milliseconds);
  void GiveBack(MemoryUse use, std::uint64_t bytes);
  void Move(MemoryUse from, MemoryUse to, std::uint64_t bytes);

  mutable std::mutex mutex_;
  std::condition_variable given_back_;
  // All below is guarded by mutex_.
  std::uint64_t limit_ = kDefaultLimit;
  std::array<std::uint64_t, 3> used_{};
  unsigned waiting_ = 0;
};

// Says that its owner waits for room, which makes memory short for all who hold some.
class CMemoryWait {
 public:
  CMemoryWait() { CMemoryAccount::Process().BeginWait(); }
  ~CMemoryWait() { CMemoryAccount::Process().EndWait(); }
  CMemoryWait(const CMemoryWait&) = delete;
  CMemoryWait& operator=(const CMemoryWait&) = delete;
};

// Somebody's room in the process's account, given back with the object. One thread at a time.
class CMemoryShare {
 public:
  CMemoryShare() = default;
  explicit CMemoryShare(MemoryUse use) : use_(use) {}
  CMemoryShare(CMemoryShare&& other) noexcept;
  CMemoryShare& operator=(CMemoryShare&& other) noexcept;
  ~CMemoryShare();

  std::uint64_t Bytes() const { return bytes_; }
  // Claims so much in all, or gives back what is too much. False, with the share unchanged, when there is no room.
  bool Resize(std::uint64_t bytes);
  // The same, but waits for room; for threads that no other client depends on.
  bool ResizeWithin(std::uint64_t bytes, std::uint32_t milliseconds);
  // The bytes serve something else from now on. Never refused: the ceiling holds, the new part may be exceeded.
  void ChangeUse(MemoryUse use);

 private:
  MemoryUse use_ = MemoryUse::kWork;
  std::uint64_t bytes_ = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_MEMORY_ACCOUNT_H
