// One listening socket.
#ifndef TANSY_NET_SERVER_LISTENER_H
#define TANSY_NET_SERVER_LISTENER_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "TansyNet/server/Endpoint.h"
#include "TansyNet/server/IServerConnection.h"
#include "TansyNet/server/ServerRuntime.h"
#include "TansyNet/server/ServerSettings.h"
#include "TansyNet/server/ServerTlsContext.h"
#include "TansyNet/server/ServerWorker.h"
#include "TansyNet/transport/SystemSockets.h"

namespace boost::system {
class error_code;
}

namespace TansyNet {

class CListener : public std::enable_shared_from_this<CListener> {
 public:
  CListener(CServerRuntime& runtime, std::shared_ptr<CServerWorker> worker, RecvCallback callback,
            const ListenerStyle& style);
  ~CListener();
  CListener(const CListener&) = delete;
  CListener& operator=(const CListener&) = delete;

  // Reads the certificate of an HTTPS listener; it may be called again while the listener runs. Returns 0 or
  // kNetCertificate with `error` set.
  int LoadCertificate(const HttpsServer& tls, std::string& error);
  int ReloadCertificate(std::string& error);

  // The result of Open for "::" on a machine without IPv6: there is no address to listen on, and no client will miss
  // it.
  static constexpr int kNoIpv6 = -1;

  // Binds and begins to accept. Returns 0, kNoIpv6 or a NetError; `error` is set unless the result is 0. A socket that
  // somebody else has opened there comes as `offered` and then belongs to the listener; else that is kNoSocket.
  int Open(const std::string& address, std::uint16_t port, bool reuse_address, details::SocketHandle offered,
           std::string& error);
  // Frees the port before it returns, unless somebody else has opened it. Connections stay open until their requests
  // are answered.
  void Close();
  bool IsOriginOf(const IServerConnection& connection) const { return &connection.Origin() == endpoint_.get(); }

 private:
  struct Impl;

  bool IsClosed() const { return endpoint_->closed.load(std::memory_order_acquire); }
  void Accept();
  void OnAccepted(const boost::system::error_code& problem, std::uint64_t turn);
  void AcceptAnew();
  bool IsTurn(std::uint64_t turn);
  void NoteTrouble(const std::string& what);
  void PauseAfterFailure();
  void TakeConnection();
  TlsContextPtr TlsContext() const;

  CServerRuntime& runtime_;
  const std::shared_ptr<CServerWorker> worker_;
  const std::shared_ptr<Endpoint> endpoint_;
  std::string trouble_;  // what keeps new clients out at present; used by the worker only

  mutable std::mutex tls_mutex_;
  HttpsServer tls_settings_;  // guarded by tls_mutex_
  TlsContextPtr tls_;         // guarded by tls_mutex_; null for plain HTTP

  // The acceptor is used by its worker and closed by the thread that stops the listener.
  std::mutex mutex_;
  std::uint64_t turn_ = 0;  // guarded by mutex_; identifies the current accept, so that an abandoned one is ignored
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LISTENER_H
