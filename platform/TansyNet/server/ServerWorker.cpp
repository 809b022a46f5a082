#include "TansyNet/server/ServerWorker.h"

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <exception>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "OSAL/Osal.h"
#include "TansyNet/server/LoopThreads.h"
#include "logging/Logging.h"

namespace TansyNet {

namespace asio = boost::asio;

namespace details {
namespace {

thread_local bool t_library_thread = false;

void NoteFailure(const std::exception& problem) noexcept {
  try {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]step failed, %s[%s(%d)]", problem.what());
  } catch (const std::exception&) {
    // There is no memory left to log this failure with.
  }
}

}  // namespace
}  // namespace details

struct CServerWorker::Impl {
  // One thread at a time runs the loop, but not always the same one; all other threads only post to it. The hint makes
  // the loop expect more than one thread.
  asio::io_context context{2};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  asio::steady_timer timer{context};
  std::atomic<std::uint32_t> tick_ms{500};
  std::atomic<bool> has_failed{false};

  std::mutex mutex;
  bool stopped = false;                                   // guarded by mutex
  std::map<const void*, std::function<void()>> revivals;  // guarded by mutex

  // Only the leading thread changes these, and it does so under the mutex; so that thread reads them without it.
  std::unordered_map<IServerConnection*, std::shared_ptr<IServerConnection>> connections;

  // Only the leading thread uses these.
  bool ticking = false;  // true while the timer is set
  bool closing = false;
  std::unique_ptr<char[]> scratch{new char[kScratchBytes]};

  CLoopThreads threads{[] {
                         MarkLibraryThread();
                         OSAL_SetThreadName("tansy-io");
                       },
                       [this] { return RunOne(); }};

  bool RunOne();
  void Revive();
  void Tick();
  void CheckDeadlines();
};

// When memory runs out, the step of one connection ends, but the thread goes on. Things that the failed step should
// have started, the clock and the listeners, are started afterwards.
bool CServerWorker::Impl::RunOne() {
  try {
    if (has_failed.exchange(false, std::memory_order_relaxed)) {
      Revive();
    }
    return context.run_one() > 0;
  } catch (const std::exception& problem) {
    has_failed.store(true, std::memory_order_relaxed);
    details::NoteFailure(problem);
    return true;
  }
}

void CServerWorker::Impl::Revive() {
  if (!ticking) {
    Tick();
  }
  std::map<const void*, std::function<void()>> all;
  {
    const std::scoped_lock lock(mutex);
    all = revivals;
  }
  for (const auto& [owner, revive] : all) {
    revive();
  }
}

void CServerWorker::Impl::Tick() {
  // An idle worker sleeps: the clock runs only while there is a connection to watch. A tick that was due when the
  // worker was stopped must not start the next one, because the loop would then never end.
  if (closing || connections.empty()) {
    return;
  }
  timer.expires_after(std::chrono::milliseconds(tick_ms.load(std::memory_order_relaxed)));
  timer.async_wait([this](const boost::system::error_code& error) {
    ticking = false;
    if (!error) {
      Tick();  // first, so that the clock goes on even when a step below fails
      CheckDeadlines();
    }
  });
  ticking = true;
}

void CServerWorker::Impl::CheckDeadlines() {
  const std::int64_t now = SteadyMilliseconds();
  std::vector<std::shared_ptr<IServerConnection>> late;
  for (const auto& [key, connection] : connections) {
    if (connection->IsPastDeadline(now)) {
      late.push_back(connection);
    }
  }
  for (const auto& connection : late) {
    // A deadline may lead to a callback. After a slow one, this is the worker's thread no longer; the thread that leads
    // now finds the rest at its next look.
    if (!threads.IsLeader()) {
      return;
    }
    connection->OnDeadline();
  }
}

std::int64_t SteadyMilliseconds() {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

CServerWorker::CServerWorker() : impl_(std::make_unique<Impl>()) {}

CServerWorker::~CServerWorker() = default;

bool CServerWorker::IsLibraryThread() {
  return details::t_library_thread;
}

void CServerWorker::MarkLibraryThread() {
  details::t_library_thread = true;
}

void CServerWorker::Start() {
  impl_->threads.Start();
}

void CServerWorker::Stop() {
  {
    const std::scoped_lock lock(impl_->mutex);
    impl_->stopped = true;
  }
  asio::post(impl_->context, [impl = impl_.get()] {
    impl->closing = true;
    impl->timer.cancel();
    for (const auto& [key, connection] : impl->connections) {
      connection->Abort();
    }
  });
  // Without the guard, the loop ends by itself when the last watch has reported its connection's end.
  impl_->work.reset();
  impl_->threads.Join();
  const std::scoped_lock lock(impl_->mutex);
  impl_->revivals.clear();
  impl_->connections.clear();
}

bool CServerWorker::Post(std::function<void()> task) {
  const std::scoped_lock lock(impl_->mutex);
  if (impl_->stopped) {
    return false;
  }
  asio::post(impl_->context, std::move(task));
  return true;
}

void CServerWorker::SetTick(std::uint32_t milliseconds) {
  impl_->tick_ms.store(milliseconds, std::memory_order_relaxed);
}

void CServerWorker::ForEachConnection(std::function<void(IServerConnection&)> visit) {
  Post([this, visit = std::move(visit)] {
    // A visit may call Forget, so the loop goes over a copy.
    const auto connections = impl_->connections;
    for (const auto& [key, connection] : connections) {
      visit(*connection);
    }
  });
}

void CServerWorker::Adopt(std::shared_ptr<IServerConnection> connection) {
  if (impl_->closing) {
    connection->Abort();
    return;
  }
  IServerConnection* const key = connection.get();
  {
    const std::scoped_lock lock(impl_->mutex);
    impl_->connections.emplace(key, std::move(connection));
  }
  if (!impl_->ticking) {
    impl_->Tick();
  }
}

void CServerWorker::Forget(IServerConnection* connection) {
  std::shared_ptr<IServerConnection> last;  // released after the lock
  const std::scoped_lock lock(impl_->mutex);
  const auto found = impl_->connections.find(connection);
  if (found != impl_->connections.end()) {
    last = std::move(found->second);
    impl_->connections.erase(found);
  }
}

std::shared_ptr<IServerConnection> CServerWorker::Earliest(Since since) const {
  const std::scoped_lock lock(impl_->mutex);
  std::shared_ptr<IServerConnection> earliest;
  std::int64_t time = IServerConnection::kNever;
  for (const auto& [key, connection] : impl_->connections) {
    if (const std::int64_t own = (key->*since)(); own < time) {
      time = own;
      earliest = connection;
    }
  }
  return earliest;
}

void CServerWorker::SetRevival(const void* owner, std::function<void()> revive) {
  const std::scoped_lock lock(impl_->mutex);
  impl_->revivals.insert_or_assign(owner, std::move(revive));
}

void CServerWorker::RemoveRevival(const void* owner) {
  const std::scoped_lock lock(impl_->mutex);
  impl_->revivals.erase(owner);
}

CLoopThreads& CServerWorker::Threads() {
  return impl_->threads;
}

asio::io_context& CServerWorker::Loop() {
  return impl_->context;
}

char* CServerWorker::Scratch() {
  return impl_->scratch.get();
}

}  // namespace TansyNet
