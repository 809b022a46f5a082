#include "SignalThread.h"

#include <utility>

#include "OSAL/Osal.h"

namespace Tansy::Host {
namespace details {
namespace {

// The time between two looks: whether a limit is over, and whether the thread has to end.
constexpr std::chrono::milliseconds kLook{100};

}  // namespace
}  // namespace details

CSignalThread::CSignalThread(Source source, EndNow end_now, const Limits& limits)
    : source_(std::move(source)), end_now_(std::move(end_now)), limits_(limits), thread_(&CSignalThread::Run, this) {}

CSignalThread::~CSignalThread() {
  {
    const std::lock_guard lock(mutex_);
    finished_ = true;
  }
  thread_.join();
}

void CSignalThread::Run() {
  OSAL_SetThreadName("tansyd-signals");
  while (Handle(source_(details::kLook))) {
    const std::lock_guard lock(mutex_);
    if (finished_) {
      return;
    }
  }
}

bool CSignalThread::Handle(std::optional<HostSystem::ESignal> signal) {
  if (stop_.stop_requested()) {
    if (const std::optional<EEnd> why = ReasonToEnd(signal == HostSystem::ESignal::kStop)) {
      end_now_(*why);
      return false;
    }
  }
  if (!signal.has_value()) {
    return true;
  }
  if (*signal == HostSystem::ESignal::kStop) {
    BeginStop();
    return true;
  }
  const std::lock_guard lock(mutex_);
  reload_ = true;
  changed_.notify_all();
  return true;
}

void CSignalThread::BeginStop() {
  {
    const std::lock_guard lock(mutex_);
    stop_time_ = std::chrono::steady_clock::now();
  }
  stop_.request_stop();  // outside the lock, because it calls the callbacks that others have registered with the token
  const std::lock_guard lock(mutex_);
  stop_wanted_ = true;
  changed_.notify_all();
}

std::optional<CSignalThread::EEnd> CSignalThread::ReasonToEnd(bool is_second_signal) {
  const std::lock_guard lock(mutex_);
  const auto limit = serving_ ? limits_.serving : limits_.starting;
  if (!is_second_signal && std::chrono::steady_clock::now() - stop_time_ < limit) {
    return std::nullopt;
  }
  if (!serving_) {
    return EEnd::kStillStarting;
  }
  return is_second_signal ? EEnd::kSecondSignal : EEnd::kOverdue;
}

void CSignalThread::SetServing() {
  const std::lock_guard lock(mutex_);
  serving_ = true;
}

HostSystem::ESignal CSignalThread::Wait() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return reload_ || stop_wanted_; });
  if (stop_wanted_) {
    return HostSystem::ESignal::kStop;
  }
  reload_ = false;
  return HostSystem::ESignal::kReload;
}

}  // namespace Tansy::Host
