#include "TansyNet/HttpServerRuntime.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "TansyNet/HttpServerMemory.h"
#include "TansyNet/Listener.h"
#include "TansyNet/ServerConnection.h"
#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

constexpr unsigned kDeliveryThreads = 4;

thread_local std::string t_last_error;

// Deadlines are looked at often enough for the shortest of them to be kept roughly, and seldom enough not to matter.
std::uint32_t TickFor(const HttpServerLimits& limits) {
  constexpr std::uint32_t kLooksPerLimit = 8;
  constexpr std::uint32_t kShortest = 10;
  constexpr std::uint32_t kLongest = 500;
  const std::uint32_t limit = std::min(
      {limits.header_timeout_ms, limits.idle_timeout_ms, limits.body_timeout_ms, limits.unanswered_timeout_ms});
  return std::clamp(limit / kLooksPerLimit, kShortest, kLongest);
}

}  // namespace
}  // namespace details

CServerRuntime& CServerRuntime::Instance() {
  static auto* const runtime = new CServerRuntime();
  return *runtime;
}

void CServerRuntime::SetLastError(std::string text) {
  details::t_last_error = std::move(text);
}

std::string CServerRuntime::LastError() {
  return details::t_last_error;
}

void CServerRuntime::EnsureRunning() {
  const std::scoped_lock lock(mutex_);
  if (!workers_.empty()) {
    return;
  }
  const unsigned count = std::max(1U, std::thread::hardware_concurrency());
  for (unsigned index = 0; index < count; ++index) {
    auto worker = std::make_shared<CServerWorker>();
    worker->SetTick(details::TickFor(limits_));
    worker->Start();
    workers_.push_back(std::move(worker));
  }
  delivery_ = std::make_shared<CDeliveryPool>();
  delivery_->Start(details::kDeliveryThreads);
}

void CServerRuntime::Deliver(std::function<void()> task) {
  std::shared_ptr<CDeliveryPool> delivery;
  {
    const std::scoped_lock lock(mutex_);
    delivery = delivery_;
  }
  if (delivery != nullptr) {
    delivery->Post(std::move(task));
  }
}

std::shared_ptr<CServerWorker> CServerRuntime::NextWorker() {
  const std::scoped_lock lock(mutex_);
  if (workers_.empty()) {
    return nullptr;
  }
  return workers_[next_worker_++ % workers_.size()];
}

int CServerRuntime::StartListener(std::int32_t& handle, const std::string& address, std::uint16_t port,
                                  const HttpsServer* tls, CHttpServer::RecvCallback callback, bool reuse_address) {
  const std::scoped_lock control(control_mutex_);
  EnsureRunning();
  const auto listener = std::make_shared<CListener>(NextWorker(), callback);
  std::string error;
  int result = tls == nullptr ? 0 : listener->LoadCertificate(*tls, error);
  if (result == 0) {
    result = listener->Open(address, port, reuse_address, error);
  }
  if (result == CListener::kNoIpv6) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]no IPv6 here, %s[%s(%d)]", error.c_str());
    return 0;
  }
  if (result != 0) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]start failed, revalue = %d, %s[%s(%d)]", result, error.c_str());
    SetLastError(std::move(error));
    return result;
  }
  const std::scoped_lock lock(mutex_);
  handle = ++last_listener_;
  listeners_.emplace(handle, listener);
  return 0;
}

int CServerRuntime::StopListener(std::int32_t handle) {
  std::shared_ptr<CListener> listener;
  std::vector<std::shared_ptr<CServerWorker>> workers;
  {
    const std::scoped_lock lock(mutex_);
    const auto found = listeners_.find(handle);
    if (found == listeners_.end()) {
      return kNetUnknownHandle;
    }
    listener = found->second;
    listeners_.erase(found);
    workers = workers_;
  }
  listener->Close();
  for (const auto& worker : workers) {
    worker->ForEachConnection([listener](CServerConnection& connection) {
      if (&connection.Listener() == listener.get()) {
        connection.CloseWhenIdle();
      }
    });
  }
  return 0;
}

int CServerRuntime::ReloadCertificates() {
  std::map<std::int32_t, std::shared_ptr<CListener>> listeners;
  {
    const std::scoped_lock lock(mutex_);
    listeners = listeners_;
  }
  int result = 0;
  for (const auto& [handle, listener] : listeners) {
    std::string error;
    const int reloaded = listener->ReloadCertificate(error);
    if (reloaded != 0) {
      TANSY_LOG(logging::kError, "TansyNet", "[%s]reload failed, revalue = %d, %s[%s(%d)]", reloaded, error.c_str());
      SetLastError(std::move(error));
      result = reloaded;
    }
  }
  return result;
}

void CServerRuntime::SetLimits(const HttpServerLimits& limits) {
  const std::scoped_lock lock(mutex_);
  limits_ = limits;
  max_connections_.store(limits.connections, std::memory_order_relaxed);
  CMemoryBudget::Process().SetLimit(limits.body_memory_bytes);
  for (const auto& worker : workers_) {
    worker->SetTick(details::TickFor(limits));
  }
}

HttpServerLimits CServerRuntime::Limits() const {
  const std::scoped_lock lock(mutex_);
  return limits_;
}

bool CServerRuntime::AdmitConnection() {
  if (connections_.fetch_add(1, std::memory_order_relaxed) < max_connections_.load(std::memory_order_relaxed)) {
    return true;
  }
  ConnectionClosed();
  return false;
}

void CServerRuntime::ConnectionIdle() {
  if (busy_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    const std::scoped_lock lock(idle_mutex_);
    idle_.notify_all();
  }
}

void CServerRuntime::StopAllListeners() {
  std::vector<std::int32_t> handles;
  {
    const std::scoped_lock lock(mutex_);
    for (const auto& [handle, listener] : listeners_) {
      handles.push_back(handle);
    }
  }
  for (const std::int32_t handle : handles) {
    StopListener(handle);
  }
}

bool CServerRuntime::WaitUntilIdle(std::uint32_t milliseconds) {
  std::unique_lock lock(idle_mutex_);
  return idle_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                        [this] { return busy_.load(std::memory_order_acquire) == 0; });
}

bool CServerRuntime::Shutdown(std::uint32_t drain_ms) {
  if (CServerWorker::IsLibraryThread()) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]shutdown from within a callback[%s(%d)]");
    return false;
  }
  StopAllListeners();
  const bool idle = WaitUntilIdle(drain_ms);
  std::vector<std::shared_ptr<CServerWorker>> workers;
  std::shared_ptr<CDeliveryPool> delivery;
  {
    const std::scoped_lock control(control_mutex_);
    StopAllListeners();
    const std::scoped_lock lock(mutex_);
    workers.swap(workers_);
    delivery.swap(delivery_);
  }
  for (const auto& worker : workers) {
    worker->Stop();
  }
  if (delivery != nullptr) {
    delivery->Stop();
  }
  return idle;
}

}  // namespace TansyNet
