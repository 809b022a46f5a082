#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_STREAM_PIECE_QUEUE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_STREAM_PIECE_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>

#include "Singleton.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage::details {

// Brings one piece of a streamed upload to the storage when it is executed.
class CStreamPiece : public TansyBase::CTask {
 public:
  // Gives the handle of the upload's request.
  virtual std::int32_t Handle() const = 0;
};

// Hands the pieces of streamed uploads to the message loop. A piece occupies a thread of the loop for as long as the
// storage takes, so only half of the threads work on pieces at a time; the other half is left to requests that are done
// quickly. Pieces wait here and not on a thread. The pieces of one upload stay in the order in which they came, and an
// upload that waits for the storage does not delay any other.
//
// Threads: any. A piece that the stopped loop will never run is destroyed, which tells its client.
class CStreamPieceQueue : private TansyBase::CNoncopyable {
 public:
  static constexpr std::size_t kMaxRunning = CServerMsgLoop::kThreads / 2;

  static CStreamPieceQueue& Instance();

  void Post(std::unique_ptr<CStreamPiece> piece);

 private:
  friend class CSingleton<CStreamPieceQueue>;
  class CRunner;
  using Pieces = std::list<std::unique_ptr<CStreamPiece>>;

  CStreamPieceQueue() = default;
  ~CStreamPieceQueue() = default;

  // Asks the loop for one more turn, which has been counted already.
  void PostRunner();
  void RunOne();
  void EndRunner(bool has_run);
  // Finds the first piece whose upload has no piece with the storage. It is called with mutex_ held.
  Pieces::iterator FindRunnable();

  std::mutex mutex_;  // guards everything below
  Pieces waiting_;
  Pieces running_;
  std::size_t runners_ = 0;  // tasks of the loop, waiting and running
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_STREAM_PIECE_QUEUE_H
