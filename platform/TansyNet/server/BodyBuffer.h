// Buffers that request bodies are read into.
#ifndef TANSY_NET_SERVER_BODY_BUFFER_H
#define TANSY_NET_SERVER_BODY_BUFFER_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <boost/container/static_vector.hpp>

#include "TansyNet/MemoryAccount.h"

namespace TansyNet {

// Gives back the memory of a string, or of what holds one. Assigning an empty value would not: strings keep their
// memory for what they hold next.
template <typename T>
void Release(T& holder) {
  const T gone = std::move(holder);
  holder = T();
}

// Bytes together with their share of the memory that all bodies use.
struct CountedBytes {
  std::string bytes;
  CMemoryShare share;
};

// Gives the memory that a string takes beside its own object.
std::size_t MemoryOf(const std::string& bytes);

// Prepares bytes for delivery: with the last owner, the share is given back and the memory goes to CSpareBodies.
std::shared_ptr<const std::string> ShareBytes(CountedBytes bytes);

// Keeps some memory of bodies that are done with for bodies to come, because for a large new block the operating system
// has to clear every page again, and a growing string clears it once more. Like what the heap itself keeps, it is
// nobody's share; it is at most a thirty-second of the ceiling, and nothing while memory is short. Threads: any.
class CSpareBodies {
 public:
  // Needs no memory, because the last owner of a body comes here, and may do so while there is none.
  static CSpareBodies& Process() noexcept;

  // Gives bytes that do not matter, at least `size` and not many more, or none.
  std::string Take(std::size_t size);
  void Give(std::string bytes) noexcept;
  void Clear();

 private:
  static constexpr std::size_t kMost = 64;

  CSpareBodies() = default;

  std::mutex mutex_;
  // Guarded by mutex_. The one that came last is still in the processor's cache.
  boost::container::static_vector<std::string, kMost> spares_;
  std::size_t bytes_ = 0;  // guarded by mutex_
};

// A body of known length while it arrives. The socket's bytes go straight into the string that is delivered. The string
// grows with what has come, so that a client that only announces much costs nothing.
class CBodyBuffer {
 public:
  // Begins a body and reuses the memory of `storage`, whose bytes do not matter.
  void Start(std::size_t length, MemoryUse use, CountedBytes storage = {});
  bool IsComplete() const { return used_ == length_; }
  std::size_t Used() const { return used_; }
  // Gives the room for the next bytes; it is at least one byte long unless the body is complete.
  std::span<char> Space();
  void Commit(std::size_t bytes) { used_ += bytes; }
  // Copies what it needs from the front of `input` and removes it there.
  void Consume(std::string_view& input);
  // Says how much must be claimed before more bytes are taken: at first as much as the bytes that have come, then, when
  // enough has come, as much as the whole body. So a body that has its room never waits for more of it.
  std::size_t Demand() const;
  // Returns false when there is no room for this much.
  bool ClaimMemory() { return memory_.share.Resize(Demand()); }
  // Gives the bytes; the buffer is empty afterwards.
  CountedBytes Take();

 private:
  bool UseSpare();

  CountedBytes memory_;
  std::size_t used_ = 0;
  std::size_t length_ = 0;
};

// Keeps one piece's memory for the piece after the next, because for a large new block the operating system has to
// clear every page again. Threads: any.
class CPieceStore : public std::enable_shared_from_this<CPieceStore> {
 public:
  CPieceStore() = default;
  // What is left goes to CSpareBodies, for the next upload.
  ~CPieceStore();
  CPieceStore(const CPieceStore&) = delete;
  CPieceStore& operator=(const CPieceStore&) = delete;

  // Shares `piece`; its memory comes back here when the last owner releases it.
  std::shared_ptr<const std::string> Share(CountedBytes piece);
  // Gives memory to reuse, or none.
  CountedBytes TakeSpare();

 private:
  std::mutex mutex_;
  CountedBytes spare_;  // guarded by mutex_
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_BODY_BUFFER_H
