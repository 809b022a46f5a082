#include "ServerFixture.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Tansy::Tests {
namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr int kTries = 20;

bool CanBind6(std::uint16_t port) {
  const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0 && errno == EAFNOSUPPORT) {
    return true;  // nobody can listen there
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  const int one = 1;
  setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
  const bool bound = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(socket);
  return bound;
}

}  // namespace

std::uint16_t FreePort() {
  for (;;) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t size = sizeof(address);
    const bool bound = bind(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                       getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    close(socket);
    if (bound && CanBind6(ntohs(address.sin_port))) {
      return ntohs(address.sin_port);
    }
  }
}

bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

int AnswerText(std::int32_t handle, std::string_view body) {
  return TansyNet::CHttpServer::HttpServerSyncSend(handle, {}, static_cast<std::uint32_t>(body.size()), body.data());
}

struct ServerFixture::Shared {
  mutable std::mutex mutex;
  std::condition_variable arrived;
  std::shared_ptr<const Handler> handler;
  std::deque<Delivery> deliveries;
};

ServerFixture::Shared& ServerFixture::State() {
  static auto* const state = new Shared();
  return *state;
}

ServerFixture::ServerFixture() = default;

ServerFixture::~ServerFixture() {
  TansyNet::CHttpServer::Shutdown(0);
  TansyNet::CHttpServer::SetLimits({});
  SetHandler({});
  const std::scoped_lock lock(State().mutex);
  State().deliveries.clear();
}

void ServerFixture::SetHandler(Handler handler) {
  const std::scoped_lock lock(State().mutex);
  State().handler = handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
}

void ServerFixture::Start(Handler handler) {
  SetHandler(std::move(handler));
  int result = TansyNet::kNetAddressInUse;
  for (int tries = 0; result == TansyNet::kNetAddressInUse && tries < kTries; ++tries) {
    port_ = FreePort();
    result = TansyNet::CHttpServer::StartHttpServer(listener_, "127.0.0.1", port_, OnRequest, true, style_);
  }
  ASSERT_EQ(result, 0) << TansyNet::CHttpServer::LastError();
}

void ServerFixture::StartTls(const TansyNet::HttpsServer& tls, Handler handler) {
  SetHandler(std::move(handler));
  int result = TansyNet::kNetAddressInUse;
  for (int tries = 0; result == TansyNet::kNetAddressInUse && tries < kTries; ++tries) {
    port_ = FreePort();
    result = TansyNet::CHttpServer::StartHttpsServer(listener_, "127.0.0.1", port_, tls, OnRequest);
  }
  ASSERT_EQ(result, 0) << TansyNet::CHttpServer::LastError();
}

void ServerFixture::OnRequest(std::int32_t handle, TansyNet::HttpServerRecv& message) {
  Shared& state = State();
  std::shared_ptr<const Handler> handler;
  {
    const std::scoped_lock lock(state.mutex);
    handler = state.handler;
    if (handler == nullptr) {
      state.deliveries.push_back({.handle = handle, .message = std::move(message)});
    }
  }
  if (handler != nullptr) {
    (*handler)(handle, message);
  } else {
    state.arrived.notify_all();
  }
}

Delivery ServerFixture::Take() {
  Shared& state = State();
  std::unique_lock lock(state.mutex);
  if (!state.arrived.wait_for(lock, kPatience, [&] { return !state.deliveries.empty(); })) {
    throw std::runtime_error("no request was delivered");
  }
  Delivery delivery = std::move(state.deliveries.front());
  state.deliveries.pop_front();
  return delivery;
}

bool ServerFixture::TryTake(Delivery& delivery) {
  Shared& state = State();
  const std::scoped_lock lock(state.mutex);
  if (state.deliveries.empty()) {
    return false;
  }
  delivery = std::move(state.deliveries.front());
  state.deliveries.pop_front();
  return true;
}

bool ServerFixture::HasDelivery() const {
  const std::scoped_lock lock(State().mutex);
  return !State().deliveries.empty();
}

}  // namespace Tansy::Tests
