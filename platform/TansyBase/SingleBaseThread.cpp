#include "TansyBase/SingleBaseThread.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "OSAL/Osal.h"
#include "logging/Logging.h"

namespace TansyBase {

struct CSingleBaseThread::Impl {
  std::mutex lifecycle;  // Start and Stop hold it from beginning to end; the own thread never takes it
  std::thread thread;    // guarded by lifecycle

  std::mutex mutex;
  std::condition_variable wake;
  std::thread::id own_id;  // guarded by mutex, like what follows
  bool stopping = true;    // the thread has to end, or there is none
  bool woken = false;      // the next call is due now

  const std::string thread_name;

  explicit Impl(const char* name) : thread_name(name) {}

  bool IsOwnThread() {
    const std::lock_guard lock(mutex);
    return own_id == std::this_thread::get_id();
  }

  void RequestStop() {
    {
      const std::lock_guard lock(mutex);
      stopping = true;
    }
    wake.notify_all();
  }

  // Waits until the next call is due. Returns false when the thread has to end.
  bool WaitForNextCall(std::chrono::milliseconds period) {
    std::unique_lock lock(mutex);
    wake.wait_for(lock, period, [this] { return stopping || woken; });
    woken = false;
    return !stopping;
  }
};

CSingleBaseThread::CSingleBaseThread(const char* thread_name) : impl_(std::make_unique<Impl>(thread_name)) {}

CSingleBaseThread::~CSingleBaseThread() {
  Stop();
}

void CSingleBaseThread::Run(std::uint32_t period_ms) {
  OSAL_SetThreadName(impl_->thread_name.c_str());
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->own_id = std::this_thread::get_id();
  }
  do {
    try {
      OnTimer();
    } catch (const std::exception& exception) {
      TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]OnTimer threw %s[%s(%d)]", exception.what());
    } catch (...) {
      TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]OnTimer threw[%s(%d)]");
    }
  } while (impl_->WaitForNextCall(std::chrono::milliseconds(period_ms)));
}

bool CSingleBaseThread::Start(std::uint32_t period_ms) {
  if (period_ms == 0 || impl_->IsOwnThread()) {
    return false;
  }
  const std::lock_guard lifecycle(impl_->lifecycle);
  {
    const std::lock_guard lock(impl_->mutex);
    if (!impl_->stopping) {
      return false;
    }
  }
  if (impl_->thread.joinable()) {  // its own OnTimer ended the last run
    impl_->thread.join();
  }
  const std::lock_guard lock(impl_->mutex);
  impl_->woken = false;
  try {
    impl_->thread = std::thread(&CSingleBaseThread::Run, this, period_ms);
  } catch (const std::exception& error) {
    TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]no thread to be had: %s[%s(%d)]", error.what());
    return false;
  }
  impl_->stopping = false;
  return true;
}

void CSingleBaseThread::Stop() {
  impl_->RequestStop();
  if (impl_->IsOwnThread()) {
    return;
  }
  const std::lock_guard lifecycle(impl_->lifecycle);
  impl_->RequestStop();  // again, because a Start may have come in between
  if (impl_->thread.joinable()) {
    impl_->thread.join();
  }
  const std::lock_guard lock(impl_->mutex);
  impl_->own_id = {};
}

bool CSingleBaseThread::IsStopping() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->stopping && impl_->own_id == std::this_thread::get_id();
}

void CSingleBaseThread::Wake() {
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->woken = true;
  }
  impl_->wake.notify_all();
}

}  // namespace TansyBase
