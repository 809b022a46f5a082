#include "TansyNet/server/DeliveryPool.h"

#include <utility>

#include "OSAL/Osal.h"
#include "TansyNet/server/ServerWorker.h"

namespace TansyNet {

CDeliveryPool::~CDeliveryPool() {
  Stop();
}

void CDeliveryPool::Start(unsigned threads) {
  stopping_ = false;
  for (unsigned count = 0; count < threads; ++count) {
    threads_.emplace_back([this] { Run(); });
  }
}

void CDeliveryPool::Stop() {
  std::deque<std::function<void()>> dropped;
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
  threads_.clear();
}

void CDeliveryPool::Post(std::function<void()> task) {
  {
    const std::scoped_lock lock(mutex_);
    if (stopping_) {
      return;
    }
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void CDeliveryPool::Run() {
  CServerWorker::MarkLibraryThread();
  OSAL_SetThreadName("tansy-pieces");
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (stopping_) {
      return;
    }
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
  }
}

}  // namespace TansyNet
