// What all listeners and connections of the process share.
#ifndef TANSY_NET_HTTP_SERVER_RUNTIME_H
#define TANSY_NET_HTTP_SERVER_RUNTIME_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TansyNet/HttpServer.h"
#include "TansyNet/HttpServerDelivery.h"
#include "TansyNet/HttpServerHandles.h"
#include "TansyNet/HttpServerWorker.h"
#include "TansyNet/ServerTlsContext.h"

namespace TansyNet {

class CListener;

// Created on first use and never destroyed: handlers may hold handles and tokens until the process ends. Any thread.
class CServerRuntime {
 public:
  static CServerRuntime& Instance();

  // `tls` is null for plain HTTP.
  int StartListener(std::int32_t& handle, const std::string& address, std::uint16_t port, const HttpsServer* tls,
                    CHttpServer::RecvCallback callback, bool reuse_address);
  int StopListener(std::int32_t handle);
  int ReloadCertificates();
  bool Shutdown(std::uint32_t drain_ms);

  void SetLimits(const HttpServerLimits& limits);
  HttpServerLimits Limits() const;

  CHandleTable& Handles() { return handles_; }
  // Runs a callback that may take long; see CDeliveryPool. Dropped when nothing runs.
  void Deliver(std::function<void()> task);

  // Counts a new connection; false when there are enough.
  bool AdmitConnection();
  void ConnectionClosed() { connections_.fetch_sub(1, std::memory_order_relaxed); }
  // Connections with a request between its header and the last byte of its answer.
  void ConnectionBusy() { busy_.fetch_add(1, std::memory_order_relaxed); }
  void ConnectionIdle();

  // Where the next connection lives; null when nothing runs.
  std::shared_ptr<CServerWorker> NextWorker();

  static void SetLastError(std::string text);
  static std::string LastError();

 private:
  CServerRuntime() = default;

  void EnsureRunning();
  void StopAllListeners();
  bool WaitUntilIdle(std::uint32_t milliseconds);

  // One start or stop at a time. Never held while threads are joined: their callbacks may start and stop listeners.
  std::mutex control_mutex_;

  mutable std::mutex mutex_;
  HttpServerLimits limits_;                                       // guarded by mutex_
  std::vector<std::shared_ptr<CServerWorker>> workers_;           // guarded by mutex_
  std::map<std::int32_t, std::shared_ptr<CListener>> listeners_;  // guarded by mutex_
  std::shared_ptr<CDeliveryPool> delivery_;                       // guarded by mutex_
  std::int32_t last_listener_ = 0;                                // guarded by mutex_
  std::size_t next_worker_ = 0;                                   // guarded by mutex_

  CHandleTable handles_;
  std::atomic<std::uint32_t> connections_{0};
  std::atomic<std::uint32_t> max_connections_{HttpServerLimits{}.connections};

  std::atomic<std::int64_t> busy_{0};
  std::mutex idle_mutex_;
  std::condition_variable idle_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_SERVER_RUNTIME_H
