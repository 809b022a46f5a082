// Buffers that request bodies are read into.
#ifndef TANSY_NET_SERVER_BODY_BUFFER_H
#define TANSY_NET_SERVER_BODY_BUFFER_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "TansyNet/MemoryAccount.h"

namespace TansyNet {

// Bytes together with their part of the memory that all bodies share.
struct CountedBytes {
  std::string bytes;
  CMemoryShare share;
};

// What a string takes beyond itself.
std::size_t MemoryOf(const std::string& bytes);

// For delivery: the share is given back with the last owner.
std::shared_ptr<const std::string> ShareBytes(CountedBytes bytes);

// A body of known length on its way in. The socket's bytes go straight into the string that is delivered; the string
// grows with what has come, so that a client that only announces much costs nothing.
class CBodyBuffer {
 public:
  // Continues in `storage`, whose bytes are of no interest but whose memory is.
  void Start(std::size_t length, MemoryUse use, CountedBytes storage = {});
  bool IsComplete() const { return used_ == length_; }
  std::size_t Used() const { return used_; }
  // Where the next bytes belong: at least one byte long unless the body is complete.
  std::span<char> Space();
  void Commit(std::size_t bytes) { used_ += bytes; }
  // Copies what it needs from the front of `input` and removes it there.
  void Consume(std::string_view& input);
  // What is to be claimed before more bytes are taken: at first what they have come to, then, when a body has shown
  // that it really comes, all that it will be. So a body that has its room never waits for more of it.
  std::size_t Demand() const;
  // False when there is no room for so much.
  bool ClaimMemory() { return memory_.share.Resize(Demand()); }
  // The bytes; the buffer is empty afterwards.
  CountedBytes Take();

 private:
  CountedBytes memory_;
  std::size_t used_ = 0;
  std::size_t length_ = 0;
};

// Keeps one piece's memory for the piece after the next: large blocks that come and go cost the operating system's
// clearing of every page again. Any thread.
class CPieceStore : public std::enable_shared_from_this<CPieceStore> {
 public:
  // Shares `piece`; its memory comes back here when the last owner lets go.
  std::shared_ptr<const std::string> Share(CountedBytes piece);
  // Memory to reuse, or none.
  CountedBytes TakeSpare();

 private:
  std::mutex mutex_;
  CountedBytes spare_;  // guarded by mutex_
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_BODY_BUFFER_H
