#include "StorageServer/ObjectServer/StreamPieceQueue.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Tansy::CloudStorage::details {

// Takes one turn on a thread of the loop and stores one piece in it.
class CStreamPieceQueue::CRunner : public TansyBase::CTask {
 public:
  explicit CRunner(CStreamPieceQueue& queue) : queue_(queue) {}
  ~CRunner() override { queue_.EndRunner(has_run_); }

  void Exec() override {
    has_run_ = true;
    queue_.RunOne();
  }

 private:
  CStreamPieceQueue& queue_;
  bool has_run_ = false;
};

CStreamPieceQueue& CStreamPieceQueue::Instance() {
  return CSingleton<CStreamPieceQueue>::Instance();
}

void CStreamPieceQueue::Post(std::unique_ptr<CStreamPiece> piece) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push_back(std::move(piece));
    if (runners_ >= kMaxRunning) {
      return;
    }
    ++runners_;
  }
  PostRunner();
}

void CStreamPieceQueue::PostRunner() {
  auto* const runner = new (std::nothrow) CRunner(*this);
  if (runner != nullptr) {
    CServerMsgLoop::Instance().PostTask(runner);  // when the loop refuses it, its destructor says so
  } else {
    EndRunner(false);
  }
}

CStreamPieceQueue::Pieces::iterator CStreamPieceQueue::FindRunnable() {
  return std::find_if(waiting_.begin(), waiting_.end(), [this](const auto& piece) {
    return std::none_of(running_.begin(), running_.end(),
                        [&piece](const auto& running) { return running->Handle() == piece->Handle(); });
  });
}

void CStreamPieceQueue::RunOne() {
  Pieces mine;
  Pieces::iterator piece;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    piece = FindRunnable();
    if (piece == waiting_.end()) {
      return;
    }
    running_.splice(running_.end(), waiting_, piece);
  }
  (*piece)->Exec();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    mine.splice(mine.end(), running_, piece);
  }
  // The piece's token is released with the piece, so that the next piece may come.
}

void CStreamPieceQueue::EndRunner(bool has_run) {
  Pieces dropped;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    --runners_;
    if (!has_run) {
      if (runners_ == 0) {
        dropped.swap(waiting_);  // the loop has stopped, and nobody will run these pieces
      }
      return;
    }
    if (FindRunnable() == waiting_.end()) {
      return;
    }
    ++runners_;
  }
  // Between two pieces the loop's other tasks have their turn.
  PostRunner();
}

}  // namespace Tansy::CloudStorage::details
