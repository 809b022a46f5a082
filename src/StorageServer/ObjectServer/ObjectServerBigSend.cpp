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

bool CBigFileSendThreads::Run(std::function<void()> send) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (threads_ >= kMaxThreads) {
    if (waiting_.size() >= kMaxWaiting) {
      CLOUD_LOG(logging::kError, "[%s]big file send refused, threads[%d], waiting[%d].[%s(%d)]",
                static_cast<int>(threads_), static_cast<int>(waiting_.size()));
      return false;
    }
    waiting_.push_back(std::move(send));
    return true;
  }
  try {
    std::thread([this, job = std::move(send)]() mutable { Loop(std::move(job)); }).detach();
  } catch (const std::system_error& error) {
    CLOUD_LOG(logging::kError, "[%s]big file send thread failed[%s].[%s(%d)]", error.what());
    return false;
  }
  ++threads_;
  return true;
}

void CBigFileSendThreads::SetChunk(std::uint32_t bytes) {
  const bool is_usable = bytes > 0 && bytes <= kLargestChunk;
  chunk_.store(is_usable ? bytes : kLargestChunk, std::memory_order_relaxed);
}

void CBigFileSendThreads::Loop(std::function<void()> send) {
  OSAL_SetThreadName("tansy-download");
  do {
    try {
      send();
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]big file send failed[%s].[%s(%d)]", error.what());
    }
  } while (Next(send));
}

bool CBigFileSendThreads::Next(std::function<void()>& send) {
  send = nullptr;  // releases what the last download held before the next one begins
  const std::lock_guard<std::mutex> lock(mutex_);
  if (waiting_.empty()) {
    --threads_;
    return false;
  }
  send = std::move(waiting_.front());
  waiting_.pop_front();
  return true;
}

}  // namespace Tansy::CloudStorage::details
