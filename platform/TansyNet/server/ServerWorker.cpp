#include "TansyNet/server/ServerWorker.h"

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "logging/Logging.h"

namespace TansyNet {

namespace asio = boost::asio;

namespace details {
namespace {

thread_local bool t_library_thread = false;

}  // namespace
}  // namespace details

struct CServerWorker::Impl {
  // One thread runs the loop; everybody else only posts.
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  asio::steady_timer timer{context};
  std::atomic<std::uint32_t> tick_ms{500};
  std::thread thread;

  std::mutex mutex;
  bool stopped = false;  // guarded by mutex

  // The thread's own.
  std::unordered_map<IServerConnection*, std::shared_ptr<IServerConnection>> connections;
  bool ticking = false;
  bool closing = false;
  std::unique_ptr<char[]> scratch{new char[kScratchBytes]};

  void Run();
  void Tick();
  void CheckDeadlines();
};

// Out of memory ends the step of one connection, which then runs into its deadline, but not the thread.
void CServerWorker::Impl::Run() {
  MarkLibraryThread();
  for (;;) {
    try {
      context.run();
      return;
    } catch (const std::exception& problem) {
      TANSY_LOG(logging::kError, "TansyNet", "[%s]step failed, %s[%s(%d)]", problem.what());
    }
  }
}

void CServerWorker::Impl::Tick() {
  // An idle worker sleeps: the clock runs only while there is a connection to watch. A tick that was due when the
  // worker was stopped must not start the next one, or the loop would never end.
  ticking = !closing && !connections.empty();
  if (!ticking) {
    return;
  }
  timer.expires_after(std::chrono::milliseconds(tick_ms.load(std::memory_order_relaxed)));
  timer.async_wait([this](const boost::system::error_code& error) {
    if (!error) {
      CheckDeadlines();
      Tick();
    }
  });
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
  impl_->thread = std::thread([this] { impl_->Run(); });
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
  // Without the guard the loop ends by itself when the last watch has been told of its connection's end.
  impl_->work.reset();
  impl_->thread.join();
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
    // A visit may end in Forget, so the walk is over a copy.
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
  impl_->connections.emplace(key, std::move(connection));
  if (!impl_->ticking) {
    impl_->Tick();
  }
}

void CServerWorker::Forget(IServerConnection* connection) {
  impl_->connections.erase(connection);
}

asio::io_context& CServerWorker::Loop() {
  return impl_->context;
}

char* CServerWorker::Scratch() {
  return impl_->scratch.get();
}

}  // namespace TansyNet
