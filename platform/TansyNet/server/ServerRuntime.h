// Everything that all connections of the process share: threads, handles, limits and counts.
#ifndef TANSY_NET_SERVER_SERVER_RUNTIME_H
#define TANSY_NET_SERVER_SERVER_RUNTIME_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "TansyNet/RequestWatch.h"
#include "TansyNet/server/DeliveryPool.h"
#include "TansyNet/server/HandleTable.h"
#include "TansyNet/server/ServerSettings.h"
#include "TansyNet/server/ServerWorker.h"

namespace TansyNet {

// The threads of a server.
struct ServerThreads {
  std::vector<std::shared_ptr<CServerWorker>> workers;
  std::shared_ptr<CDeliveryPool> delivery;

  // Closes every connection and ends the threads. It must not be called on one of them.
  void Stop();
};

// A counted connection; the count goes down when the object is destroyed.
class CConnectionPlace {
 public:
  CConnectionPlace() = default;
  explicit CConnectionPlace(std::atomic<std::uint32_t>& count) : count_(&count) {}
  CConnectionPlace(CConnectionPlace&& other) noexcept : count_(std::exchange(other.count_, nullptr)) {}
  CConnectionPlace& operator=(CConnectionPlace&&) = delete;
  ~CConnectionPlace() {
    if (count_ != nullptr) {
      count_->fetch_sub(1, std::memory_order_relaxed);
    }
  }

  bool IsTaken() const { return count_ != nullptr; }

 private:
  std::atomic<std::uint32_t>* count_ = nullptr;
};

// It outlives its listeners and connections. Threads: any.
class CServerRuntime {
 public:
  CServerRuntime() = default;
  CServerRuntime(const CServerRuntime&) = delete;
  CServerRuntime& operator=(const CServerRuntime&) = delete;

  // Starts the threads unless they run.
  void EnsureRunning();
  // Takes the threads out: the runtime has none afterwards, and EnsureRunning starts new ones.
  ServerThreads TakeThreads();

  void SetLimits(const HttpServerLimits& limits);
  HttpServerLimits Limits() const;

  // Who is told about requests that begin afterwards; null: nobody.
  void SetWatch(RequestWatch watch) { watch_.store(watch, std::memory_order_relaxed); }
  RequestWatch Watch() const { return watch_.load(std::memory_order_relaxed); }
  // Whether answers of requests that begin afterwards say how long they took.
  void SetTellsTimes(bool tells) { tells_times_.store(tells, std::memory_order_relaxed); }
  bool TellsTimes() const { return tells_times_.load(std::memory_order_relaxed); }
  ServerLoad Load() const;

  CHandleTable& Handles() { return handles_; }
  // Runs a callback that may take long; see CDeliveryPool. The callback is dropped when no threads run.
  void Deliver(std::function<void()> task);

  // Counts a new connection. When there are enough, the connection that has been idle longest is closed to make room;
  // when all of them are busy, the new one is refused.
  CConnectionPlace AdmitConnection();
  // Returns false when none is idle.
  bool CloseLongestIdle();
  // Cuts the client that has read nothing of its answer for the longest time. False when all read.
  bool CutLongestStanding();
  // Connections with a request between its header and the last byte of its answer.
  void ConnectionBusy() { busy_.fetch_add(1, std::memory_order_relaxed); }
  void ConnectionIdle();
  // Returns false when some are still busy after this many milliseconds.
  bool WaitUntilIdle(std::uint32_t milliseconds);

  // Gives the worker of the next connection; null when no threads run.
  std::shared_ptr<CServerWorker> NextWorker();
  // Says whether each worker takes a step within this time.
  bool DoLoopsAnswer(std::chrono::milliseconds patience) const;
  // Calls `visit` for each connection, later and on the thread of the connection's worker.
  void ForEachConnection(const std::function<void(IServerConnection&)>& visit);

 private:
  std::vector<std::shared_ptr<CServerWorker>> Workers() const;
  std::shared_ptr<IServerConnection> Earliest(CServerWorker::Since since) const;

  mutable std::mutex mutex_;
  HttpServerLimits limits_;      // guarded by mutex_
  ServerThreads threads_;        // guarded by mutex_
  std::size_t next_worker_ = 0;  // guarded by mutex_

  std::atomic<RequestWatch> watch_{nullptr};
  std::atomic<bool> tells_times_{false};
  CHandleTable handles_;
  std::atomic<std::uint32_t> connections_{0};
  std::atomic<std::uint32_t> max_connections_{HttpServerLimits{}.connections};

  std::atomic<std::int64_t> busy_{0};
  std::mutex idle_mutex_;
  std::condition_variable idle_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_RUNTIME_H
