#include "TansyNet/server/Listener.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <utility>

#include "TansyNet/server/AcceptedSocket.h"
#include "TansyNet/server/ListenerOptions.h"
#include "TansyNet/server/ServerConnection.h"
#include "TansyNet/transport/SystemSockets.h"
#include "logging/Logging.h"

namespace TansyNet {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

struct CListener::Impl {
  explicit Impl(asio::io_context& context) : acceptor(context), accepted(context), pause(context) {}

  tcp::acceptor acceptor;
  std::shared_ptr<CServerWorker> target;  // the worker of the connection that is being accepted
  tcp::socket accepted;
  asio::steady_timer pause;
};

namespace details {
namespace {

// The pause after a failed accept, which mostly means that the process has no file descriptors left.
constexpr std::chrono::milliseconds kPause{100};

int NetErrorOf(const error_code& error) {
  if (error == asio::error::address_in_use) {
    return kNetAddressInUse;
  }
  if (error == asio::error::access_denied) {
    return kNetPermission;
  }
  if (error == boost::system::errc::address_not_available || error == asio::error::address_family_not_supported) {
    return kNetAddressInvalid;
  }
  return kNetListenFailed;
}

error_code Bind(tcp::acceptor& acceptor, const tcp::endpoint& endpoint, bool reuse_address) {
  error_code error;
  acceptor.open(endpoint.protocol(), error);
  if (!error) {
    KeepFromChildren(static_cast<SocketHandle>(acceptor.native_handle()));
  }
  if (!error && reuse_address && LingeringConnectionsBlockPorts()) {
    acceptor.set_option(asio::socket_base::reuse_address(true), error);
  }
  if (!error && endpoint.address().is_v6()) {
    acceptor.set_option(asio::ip::v6_only(true), error);
  }
  if (!error) {
    acceptor.bind(endpoint, error);
  }
  if (!error) {
    acceptor.listen(asio::socket_base::max_listen_connections, error);
  }
  return error;
}

// Whoever opened it has bound it already. That it listens anew gives it the length of queue that ours have.
error_code TakeOver(tcp::acceptor& acceptor, const tcp::endpoint& endpoint, SocketHandle offered) {
  error_code error;
  acceptor.assign(endpoint.protocol(), static_cast<tcp::acceptor::native_handle_type>(offered), error);
  if (error) {
    CloseSocket(offered);
    return error;
  }
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  return error;
}

}  // namespace
}  // namespace details

CListener::CListener(CServerRuntime& runtime, std::shared_ptr<CServerWorker> worker, RecvCallback callback,
                     const ListenerStyle& style)
    : runtime_(runtime),
      worker_(std::move(worker)),
      endpoint_(std::make_shared<Endpoint>(callback, style)),
      impl_(std::make_unique<Impl>(worker_->Loop())) {}

CListener::~CListener() = default;

int CListener::LoadCertificate(const HttpsServer& tls, std::string& error) {
  TlsContextPtr context = LoadTlsContext(tls, error);
  if (context == nullptr) {
    return kNetCertificate;
  }
  const std::scoped_lock lock(tls_mutex_);
  tls_settings_ = tls;
  tls_ = std::move(context);
  return 0;
}

int CListener::ReloadCertificate(std::string& error) {
  HttpsServer settings;
  {
    const std::scoped_lock lock(tls_mutex_);
    if (tls_ == nullptr) {
      return 0;
    }
    settings = tls_settings_;
  }
  return LoadCertificate(settings, error);
}

TlsContextPtr CListener::TlsContext() const {
  const std::scoped_lock lock(tls_mutex_);
  return tls_;
}

int CListener::Open(const std::string& address, std::uint16_t port, bool reuse_address, details::SocketHandle offered,
                    std::string& error) {
  error_code problem;
  const auto ip = asio::ip::make_address(address, problem);
  const std::string where = address + " port " + std::to_string(port);
  if (problem) {
    error = "listen: no address: " + where;
    return kNetAddressInvalid;
  }
  {
    const std::scoped_lock lock(mutex_);
    const tcp::endpoint endpoint(ip, port);
    problem = offered == details::kNoSocket ? details::Bind(impl_->acceptor, endpoint, reuse_address)
                                            : details::TakeOver(impl_->acceptor, endpoint, offered);
  }
  if (problem) {
    error = "listen: " + where + ": " + problem.message();
    const bool no_ipv6 = problem == asio::error::address_family_not_supported && ip == asio::ip::address_v6::any();
    return no_ipv6 ? kNoIpv6 : details::NetErrorOf(problem);
  }
  worker_->SetRevival(this, [self = weak_from_this()] {
    if (const auto listener = self.lock()) {
      listener->AcceptAnew();
    }
  });
  Accept();
  return 0;
}

void CListener::Close() {
  worker_->RemoveRevival(this);
  const std::scoped_lock lock(mutex_);
  endpoint_->closed.store(true, std::memory_order_release);
  error_code ignored;
  impl_->acceptor.close(ignored);
  impl_->pause.cancel();
}

// Workers get connections in turn. Each connection is accepted straight onto the event loop of its worker.
void CListener::Accept() {
  const std::scoped_lock lock(mutex_);
  if (IsClosed()) {
    return;
  }
  impl_->target = runtime_.NextWorker();
  if (impl_->target == nullptr) {
    return;
  }
  impl_->accepted = tcp::socket(impl_->target->Loop());
  impl_->acceptor.async_accept(impl_->accepted, [self = shared_from_this(), turn = ++turn_](const error_code& problem) {
    if (problem != asio::error::operation_aborted) {
      self->OnAccepted(problem, turn);
    }
  });
}

void CListener::OnAccepted(const error_code& problem, std::uint64_t turn) {
  if (problem) {
    NoteTrouble("accept: " + problem.message());
    if (problem == asio::error::no_descriptors) {
      runtime_.CloseLongestIdle();
    }
    PauseAfterFailure();
    return;
  }
  TakeConnection();
  if (IsTurn(turn)) {
    Accept();
  }
}

// Starts to accept again after a step failed because memory ran out. That step may have been the accept, and then the
// event loop has dropped it without telling us.
void CListener::AcceptAnew() {
  {
    const std::scoped_lock lock(mutex_);
    ++turn_;
    error_code ignored;
    impl_->acceptor.cancel(ignored);
    impl_->pause.cancel();
  }
  PauseAfterFailure();
}

bool CListener::IsTurn(std::uint64_t turn) {
  const std::scoped_lock lock(mutex_);
  return turn == turn_;
}

// Only the beginning of a trouble is logged, because it usually occurs many times a second.
void CListener::NoteTrouble(const std::string& what) {
  if (trouble_ != what) {
    trouble_ = what;
    TANSY_LOG(logging::kError, "TansyNet", "[%s]clients are turned away, %s[%s(%d)]", what.c_str());
  }
}

void CListener::PauseAfterFailure() {
  const std::scoped_lock lock(mutex_);
  if (IsClosed()) {
    return;
  }
  impl_->pause.expires_after(details::kPause);
  impl_->pause.async_wait([self = shared_from_this(), turn = ++turn_](const error_code& problem) {
    if (!problem && self->IsTurn(turn)) {
      self->Accept();
    }
  });
}

void CListener::TakeConnection() {
  const std::shared_ptr<CServerWorker> target = impl_->target;
  tcp::socket accepted = std::move(impl_->accepted);
  details::KeepFromChildren(static_cast<details::SocketHandle>(accepted.native_handle()));
  if (IsClosed()) {
    return;
  }
  CConnectionPlace place = runtime_.AdmitConnection();
  if (!place.IsTaken()) {
    NoteTrouble("too many connections");
    return;
  }
  trouble_.clear();
  std::unique_ptr<CServerSocket> socket = CServerSocket::Create({std::move(accepted)});
  if (socket == nullptr) {
    return;
  }
  const auto connection = std::make_shared<CServerConnection>(runtime_, std::move(place), target, endpoint_,
                                                              std::move(socket), TlsContext(), runtime_.Limits());
  target->Post([connection] { connection->Start(); });
}

}  // namespace TansyNet
