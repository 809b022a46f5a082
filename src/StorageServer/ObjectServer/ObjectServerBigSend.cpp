#include "StorageServer/ObjectServer/ObjectServerBigSend.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "ModuleLog.h"
#include "OSAL/Osal.h"

namespace Tansy::CloudStorage::details {

CBigFileSendThreads& CBigFileSendThreads::Instance() {
  return CSingleton<CBigFileSendThreads>::Instance();
}

bool CWaitingThreads::Run(std::function<void()> work) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (threads_ >= most_threads_) {
    if (waiting_.size() >= most_waiting_) {
      CLOUD_LOG(logging::kError, "[%s]%s refused, threads[%d], waiting[%d].[%s(%d)]", name_, static_cast<int>(threads_),
                static_cast<int>(waiting_.size()));
      return false;
    }
    waiting_.push_back(std::move(work));
    return true;
  }
  try {
    std::thread([this, job = std::move(work)]() mutable { Loop(std::move(job)); }).detach();
  } catch (const std::system_error& error) {
    CLOUD_LOG(logging::kError, "[%s]%s has no thread[%s].[%s(%d)]", name_, error.what());
    return false;
  }
  ++threads_;
  return true;
}

void CBigFileSendThreads::SetChunk(std::uint32_t bytes) {
  const bool is_usable = bytes > 0 && bytes <= kLargestChunk;
  chunk_.store(is_usable ? bytes : kLargestChunk, std::memory_order_relaxed);
}

void CWaitingThreads::Loop(std::function<void()> work) {
  OSAL_SetThreadName(name_);
  do {
    try {
      work();
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]%s failed[%s].[%s(%d)]", name_, error.what());
    }
  } while (Next(work));
}

bool CWaitingThreads::Next(std::function<void()>& work) {
  work = nullptr;  // releases what the last one held before the next one begins
  const std::lock_guard<std::mutex> lock(mutex_);
  if (waiting_.empty()) {
    --threads_;
    return false;
  }
  work = std::move(waiting_.front());
  waiting_.pop_front();
  return true;
}

}  // namespace Tansy::CloudStorage::details
