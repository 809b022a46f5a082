// One event loop with its threads, the connections that it serves, and the clock that watches over them. One of the
// threads leads and runs the loop; "the worker's thread" means that one.
#ifndef TANSY_NET_SERVER_SERVER_WORKER_H
#define TANSY_NET_SERVER_SERVER_WORKER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "TansyNet/server/IServerConnection.h"

namespace boost::asio {
class io_context;
}

namespace TansyNet {

class CLoopThreads;

// Gives the milliseconds of a clock that never goes back.
std::int64_t SteadyMilliseconds();

class CServerWorker {
 public:
  static constexpr std::size_t kScratchBytes = std::size_t{64} * 1024;

  CServerWorker();
  ~CServerWorker();
  CServerWorker(const CServerWorker&) = delete;
  CServerWorker& operator=(const CServerWorker&) = delete;

  // Says whether the calling thread belongs to the library. Such a thread must not wait for its own end.
  static bool IsLibraryThread();
  static void MarkLibraryThread();

  void Start();
  // Closes the worker's connections and ends its thread. Later posts are dropped.
  void Stop();

  // Runs `task` on the worker's thread; returns false when the worker has stopped. Threads: any.
  bool Post(std::function<void()> task);
  // Sets how often deadlines are checked.
  void SetTick(std::uint32_t milliseconds);
  // Calls `visit` for each connection on the worker's thread.
  void ForEachConnection(std::function<void(IServerConnection&)> visit);

  // The connection for which `since` tells the earliest time; null when it tells none of any. Any thread.
  using Since = std::int64_t (IServerConnection::*)() const;
  std::shared_ptr<IServerConnection> Earliest(Since since) const;
  // Calls `revive` on the worker's thread after a step of it has failed for want of memory, until the worker stops.
  void SetRevival(const void* owner, std::function<void()> revive);
  void RemoveRevival(const void* owner);

  // These may be called only on the worker's thread. The worker keeps a connection alive from Adopt to Forget.
  void Adopt(std::shared_ptr<IServerConnection> connection);
  void Forget(IServerConnection* connection);
  // Gives room for the bytes of one read. All connections of the worker share it, so a connection that waits keeps no
  // buffer.
  char* Scratch();

  CLoopThreads& Threads();

  // Gives the worker's event loop to sources that know Asio. The worker's thread watches the sockets that are made on
  // it.
  boost::asio::io_context& Loop();

 private:
  struct Impl;

  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_WORKER_H
