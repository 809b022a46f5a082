#include "TansyNet/server/ServerRuntime.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "TansyNet/MemoryAccount.h"
#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet {
namespace details {
namespace {

constexpr unsigned kDeliveryThreads = 4;

// A quarter of what the process may open is reserved for files and for connections to others.
std::uint32_t MostConnections() {
  const std::uint32_t most = MostOpenSockets();
  return most - most / 4;
}

// The clock checks deadlines often enough to keep the shortest of them roughly, and rarely enough to cost little.
std::uint32_t TickFor(const HttpServerLimits& limits) {
  constexpr std::uint32_t kLooksPerLimit = 8;
  constexpr std::uint32_t kShortest = 10;
  constexpr std::uint32_t kLongest = 500;
  const std::uint32_t limit =
      std::min({limits.header_timeout_ms, limits.idle_timeout_ms, limits.body_timeout_ms,
                limits.unchecked_body_timeout_ms, limits.unanswered_timeout_ms, limits.least_rate_window_ms});
  return std::clamp(limit / kLooksPerLimit, kShortest, kLongest);
}

// When a later thread cannot be started, those that run already are left in `threads`.
void StartThreads(ServerThreads& threads, std::uint32_t tick_ms) {
  const unsigned count = std::max(1U, std::thread::hardware_concurrency());
  threads.workers.reserve(count);
  for (unsigned index = 0; index < count; ++index) {
    auto worker = std::make_shared<CServerWorker>();
    worker->SetTick(tick_ms);
    worker->Start();
    threads.workers.push_back(std::move(worker));
  }
  threads.delivery = std::make_shared<CDeliveryPool>();
  threads.delivery->Start(kDeliveryThreads);
}

}  // namespace
}  // namespace details

void ServerThreads::Stop() {
  for (const auto& worker : workers) {
    worker->Stop();
  }
  if (delivery != nullptr) {
    delivery->Stop();
  }
}

void CServerRuntime::EnsureRunning() {
  const std::scoped_lock lock(mutex_);
  if (!threads_.workers.empty()) {
    return;
  }
  max_connections_.store(std::min(limits_.connections, details::MostConnections()), std::memory_order_relaxed);
  ServerThreads threads;
  try {
    details::StartThreads(threads, details::TickFor(limits_));
  } catch (const std::exception&) {
    threads.Stop();
    throw;
  }
  threads_ = std::move(threads);
}

void CServerRuntime::Deliver(std::function<void()> task) {
  std::shared_ptr<CDeliveryPool> delivery;
  {
    const std::scoped_lock lock(mutex_);
    delivery = threads_.delivery;
  }
  if (delivery != nullptr) {
    delivery->Post(std::move(task));
  }
}

std::shared_ptr<CServerWorker> CServerRuntime::NextWorker() {
  const std::scoped_lock lock(mutex_);
  if (threads_.workers.empty()) {
    return nullptr;
  }
  return threads_.workers[next_worker_++ % threads_.workers.size()];
}

void CServerRuntime::SetLimits(const HttpServerLimits& limits) {
  const std::scoped_lock lock(mutex_);
  limits_ = limits;
  max_connections_.store(std::min(limits.connections, details::MostConnections()), std::memory_order_relaxed);
  CMemoryAccount::Process().SetLimit(limits.memory_bytes);
  for (const auto& worker : threads_.workers) {
    worker->SetTick(details::TickFor(limits));
  }
}

HttpServerLimits CServerRuntime::Limits() const {
  const std::scoped_lock lock(mutex_);
  return limits_;
}

ServerLoad CServerRuntime::Load() const {
  ServerLoad load;
  load.connections = connections_.load(std::memory_order_relaxed);
  load.most_connections = max_connections_.load(std::memory_order_relaxed);
  load.busy_connections = static_cast<std::uint64_t>(std::max<std::int64_t>(busy_.load(std::memory_order_relaxed), 0));
  load.requests = handles_.Size();
  return load;
}

CConnectionPlace CServerRuntime::AdmitConnection() {
  CConnectionPlace place(connections_);
  if (connections_.fetch_add(1, std::memory_order_relaxed) < max_connections_.load(std::memory_order_relaxed)) {
    return place;
  }
  return CloseLongestIdle() ? std::move(place) : CConnectionPlace();
}

bool CServerRuntime::CloseLongestIdle() {
  const auto longest = Earliest(&IServerConnection::IdleSince);
  return longest != nullptr && longest->CloseIfIdle();
}

bool CServerRuntime::CutLongestStanding() {
  const auto longest = Earliest(&IServerConnection::StandingSince);
  if (longest == nullptr) {
    return false;
  }
  longest->CutIfStanding();
  return true;
}

std::vector<std::shared_ptr<CServerWorker>> CServerRuntime::Workers() const {
  const std::scoped_lock lock(mutex_);
  return threads_.workers;
}

std::shared_ptr<IServerConnection> CServerRuntime::Earliest(CServerWorker::Since since) const {
  std::shared_ptr<IServerConnection> earliest;
  for (const auto& worker : Workers()) {
    auto candidate = worker->Earliest(since);
    if (candidate != nullptr && (earliest == nullptr || ((*candidate).*since)() < ((*earliest).*since)())) {
      earliest = std::move(candidate);
    }
  }
  return earliest;
}

void CServerRuntime::ConnectionIdle() {
  if (busy_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    const std::scoped_lock lock(idle_mutex_);
    idle_.notify_all();
  }
}

bool CServerRuntime::WaitUntilIdle(std::uint32_t milliseconds) {
  std::unique_lock lock(idle_mutex_);
  return idle_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                        [this] { return busy_.load(std::memory_order_acquire) == 0; });
}

bool CServerRuntime::DoLoopsAnswer(std::chrono::milliseconds patience) const {
  struct Answers {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t missing = 0;  // guarded by the mutex
  };
  const auto workers = Workers();
  const auto answers = std::make_shared<Answers>();  // a loop may answer when nobody waits any more
  answers->missing = workers.size();
  const auto answer = [answers] {
    const std::scoped_lock lock(answers->mutex);
    --answers->missing;
    answers->changed.notify_all();
  };
  for (const auto& worker : workers) {
    if (!worker->Post(answer)) {
      answer();  // it has stopped, and owes nobody an answer
    }
  }
  std::unique_lock lock(answers->mutex);
  return answers->changed.wait_for(lock, patience, [&] { return answers->missing == 0; });
}

void CServerRuntime::ForEachConnection(const std::function<void(IServerConnection&)>& visit) {
  for (const auto& worker : Workers()) {
    worker->ForEachConnection(visit);
  }
}

ServerThreads CServerRuntime::TakeThreads() {
  const std::scoped_lock lock(mutex_);
  return std::exchange(threads_, {});
}

}  // namespace TansyNet
