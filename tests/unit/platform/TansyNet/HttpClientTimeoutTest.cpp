// Time-outs: each call ends when it should end, neither before nor much later.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "TansyNet/HttpClient.h"
#include "TansyNet/client/ClientConnection.h"
#include "TansyNet/client/ClientSocket.h"
#include "fakes/Ipv6Loopback.h"
#include "fakes/ScriptedServer.h"

namespace TansyNet {
namespace {

using Tansy::Tests::ScriptedServer;
using Clock = std::chrono::steady_clock;

// A port that nobody serves: connections are taken by the system up to `backlog` and never by us.
class CIdleListener {
 public:
  explicit CIdleListener(int backlog, int family = AF_INET, std::uint16_t port = 0)
      : handle_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    SetPort(family, port);
    socklen_t size = sizeof address_;
    EXPECT_EQ(::bind(handle_, Plain(), size), 0);
    EXPECT_EQ(::listen(handle_, backlog), 0);
    EXPECT_EQ(::getsockname(handle_, Plain(), &size), 0);
    port_ = ntohs(address_.v4.sin_port);
  }
  ~CIdleListener() {
    for (const int filler : fillers_) {
      ::close(filler);
    }
    ::close(handle_);
  }
  CIdleListener(const CIdleListener&) = delete;
  CIdleListener& operator=(const CIdleListener&) = delete;

  // Uses the backlog up, so that further connections hang.
  void Fill(int count) {
    for (int i = 0; i < count; ++i) {
      const int filler = ::socket(address_.v4.sin_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      ::connect(filler, Plain(), sizeof address_);
      fillers_.push_back(filler);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }

  int Accept() const { return ::accept4(handle_, nullptr, nullptr, SOCK_CLOEXEC); }
  std::string Url(const std::string& scheme) const { return scheme + "://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  void SetPort(int family, std::uint16_t port) {
    if (family == AF_INET6) {
      address_.v6.sin6_family = AF_INET6;
      address_.v6.sin6_addr = in6addr_loopback;
      address_.v6.sin6_port = htons(port);
    } else {
      address_.v4.sin_family = AF_INET;
      address_.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address_.v4.sin_port = htons(port);
    }
  }
  sockaddr* Plain() { return &address_.plain; }

  // Family and port lie at the same place in both kinds of addresses.
  union {
    sockaddr plain;
    sockaddr_in v4;
    sockaddr_in6 v6;
  } address_{};
  const int handle_;
  std::uint16_t port_ = 0;
  std::vector<int> fillers_;
};

class HttpClientTimeoutTest : public testing::Test {
 protected:
  ~HttpClientTimeoutTest() override { HttpClient::CloseIdleConnections(); }

  // Sends and measures.
  bool Send(const CHttpClientRequest& request) {
    const auto start = Clock::now();
    response_ = {};
    const bool sent = HttpClient().Send(request, &response_, &error_);
    took_ms_ = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    return sent;
  }

  // The call ended by this time-out: not before it, and not a multiple of it later.
  void ExpectTimeout(int timeout_ms) {
    EXPECT_EQ(error_.kind, HttpClient::kTimeout) << HttpClient::ErrorText(error_);
    EXPECT_NE(error_.detail, 0);
    EXPECT_GE(took_ms_, timeout_ms);
    EXPECT_LT(took_ms_, timeout_ms + 5000);
  }

  CHttpClientResponse response_;
  HttpClient::Error error_;
  std::int64_t took_ms_ = 0;
};

TEST_F(HttpClientTimeoutTest, ConnectingEnds) {
  CIdleListener listener(0);
  listener.Fill(8);
  CHttpClientRequest request;
  request.url = listener.Url("http");
  request.connect_timeout_ms = 200;
  EXPECT_FALSE(Send(request));
  ExpectTimeout(200);
}

TEST_F(HttpClientTimeoutTest, ARefusedConnectionIsReportedAtOnce) {
  CHttpClientRequest request;
  {
    const CIdleListener listener(1);
    request.url = listener.Url("http");
  }
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(error_.kind, HttpClient::kConnect);
  EXPECT_EQ(error_.detail, ECONNREFUSED);
  EXPECT_LT(took_ms_, 1000);
}

TEST_F(HttpClientTimeoutTest, ATlsHandshakeEnds) {
  const CIdleListener listener(8);
  CHttpClientRequest request;
  request.url = listener.Url("https");
  request.connect_timeout_ms = 200;
  EXPECT_FALSE(Send(request));
  ExpectTimeout(200);
}

TEST_F(HttpClientTimeoutTest, ANameThatDoesNotExistIsNotFound) {
  CHttpClientRequest request;
  // A label of more than 63 letters is no valid name, so no name server is asked for it.
  request.url = "http://" + std::string(70, 'a') + "/";
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(error_.kind, HttpClient::kResolve);
  EXPECT_NE(error_.detail, 0);
}

TEST_F(HttpClientTimeoutTest, ANameIsLookedUp) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "here"});
  CHttpClientRequest request;
  request.url = "http://localhost:" + std::to_string(server.Port()) + "/";
  EXPECT_TRUE(Send(request)) << HttpClient::ErrorText(error_);
  EXPECT_EQ(response_.body, "here");
  EXPECT_EQ(server.Requests().at(0).Header("Host"), "localhost:" + std::to_string(server.Port()));
  request.connect_timeout_ms = 0;
  HttpClient::CloseIdleConnections();
  EXPECT_TRUE(Send(request)) << "without a limit too";
}

// A name may have several addresses, and not all of them need answer.
TEST_F(HttpClientTimeoutTest, ASilentAddressLeavesTimeForTheNext) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  const ScriptedServer server;
  CIdleListener silent(0, AF_INET6, server.Port());
  silent.Fill(8);
  std::vector<details::SocketAddress> addresses;
  std::vector<details::SocketAddress> second;
  ASSERT_EQ(details::ResolveAddresses("::1", server.Port(), addresses), 0);
  ASSERT_EQ(details::ResolveAddresses("127.0.0.1", server.Port(), second), 0);
  const details::SocketAddress silent_address = addresses.front();
  addresses.push_back(second.front());

  details::CClientSocket socket;
  EXPECT_EQ(details::ConnectToAny(socket, addresses, 1000), 0);
  addresses.back() = silent_address;
  EXPECT_EQ(details::ConnectToAny(socket, addresses, 200), details::TimedOutError());
  EXPECT_NE(details::ConnectToAny(socket, {}, 200), 0);
}

TEST_F(HttpClientTimeoutTest, ARefusingAddressIsFollowedByTheNextAtOnce) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  const ScriptedServer server;
  std::vector<details::SocketAddress> addresses;
  std::vector<details::SocketAddress> second;
  ASSERT_EQ(details::ResolveAddresses("::1", server.Port(), addresses), 0);  // the server is not there
  ASSERT_EQ(details::ResolveAddresses("127.0.0.1", server.Port(), second), 0);
  addresses.push_back(second.front());
  details::CClientSocket socket;
  EXPECT_EQ(details::ConnectToAny(socket, addresses, -1), 0);
  addresses.pop_back();
  EXPECT_EQ(details::ConnectToAny(socket, addresses, -1), ECONNREFUSED);
}

TEST_F(HttpClientTimeoutTest, ManyThreadsMayLookNamesUpAtOnce) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "here"});
  std::vector<std::thread> threads;
  std::atomic<int> failed{0};
  for (int i = 0; i < 40; ++i) {
    threads.emplace_back([&] {
      CHttpClientRequest request;
      request.url = "http://localhost:" + std::to_string(server.Port()) + "/";
      if (!HttpClient().Send(request, nullptr, nullptr)) {
        ++failed;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failed, 0);
}

TEST_F(HttpClientTimeoutTest, SendingWithoutProgressEnds) {
  const CIdleListener listener(8);
  const std::string body(32 * 1024 * 1024, 'b');
  CHttpClientRequest request;
  request.url = listener.Url("http");
  request.method = "PUT";
  request.body = body.data();
  request.body_size = body.size();
  request.send_timeout_ms = 200;
  EXPECT_FALSE(Send(request));
  ExpectTimeout(200);
}

TEST_F(HttpClientTimeoutTest, SendingSlowlyDoesNotEnd) {
  CIdleListener listener(8);
  const std::string body(24 * 1024 * 1024, 'b');
  std::thread reader([&] {
    const int handle = listener.Accept();
    std::vector<char> bytes(256 * 1024);
    std::size_t total = 0;
    while (total < body.size()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      const ssize_t got = ::recv(handle, bytes.data(), bytes.size(), 0);
      if (got <= 0) {
        break;
      }
      total += static_cast<std::size_t>(got);
    }
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    ::send(handle, answer.data(), answer.size(), MSG_NOSIGNAL);
    ::close(handle);
  });
  CHttpClientRequest request;
  request.url = listener.Url("http");
  request.method = "PUT";
  request.body = body.data();
  request.body_size = body.size();
  request.send_timeout_ms = 800;
  EXPECT_TRUE(Send(request)) << HttpClient::ErrorText(error_);
  EXPECT_GT(took_ms_, 800) << "the server was too fast for this to show anything";
  reader.join();
}

TEST_F(HttpClientTimeoutTest, WaitingForAnAnswerEnds) {
  for (const bool https : {false, true}) {
    ScriptedServer server({.https = https});
    server.Answer("GET /", {.silent = true});
    HttpClient::SetTlsTrust({.trust_file = {}, .accept_any = true});
    CHttpClientRequest request;
    request.url = server.Url("/");
    request.receive_timeout_ms = 200;
    EXPECT_FALSE(Send(request));
    ExpectTimeout(200);
    HttpClient::SetTlsTrust({});
  }
}

TEST_F(HttpClientTimeoutTest, ZeroWaitsAsLongAsItTakes) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "late", .delay_ms = 300});
  CHttpClientRequest request;
  request.url = server.Url("/");
  request.connect_timeout_ms = 0;
  request.send_timeout_ms = 0;
  request.receive_timeout_ms = 0;
  EXPECT_TRUE(Send(request));
  EXPECT_EQ(response_.body, "late");
}

TEST_F(HttpClientTimeoutTest, AStallAnywhereInAnAnswerEnds) {
  const std::string answer = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n";
  for (const std::size_t stall : {1, 20, 46, 48, 52, 58, 61}) {
    ScriptedServer server;
    server.Answer("GET /", {.raw = answer, .piece = stall, .piece_delay_ms = 60000});
    CHttpClientRequest request;
    request.url = server.Url("/");
    request.receive_timeout_ms = 100;
    EXPECT_FALSE(Send(request)) << stall;
    ExpectTimeout(100);
  }
}

TEST_F(HttpClientTimeoutTest, ASlowAnswerThatKeepsComingDoesNotEnd) {
  ScriptedServer server;
  server.Answer("GET /", {.body = std::string(100, 'x'), .piece = 12, .piece_delay_ms = 100});
  CHttpClientRequest request;
  request.url = server.Url("/");
  request.receive_timeout_ms = 600;
  EXPECT_TRUE(Send(request)) << HttpClient::ErrorText(error_);
  EXPECT_GT(took_ms_, 600);
  EXPECT_EQ(response_.body.size(), 100U);
}

TEST_F(HttpClientTimeoutTest, AHeadThatDripsEnds) {
  ScriptedServer server;
  server.Answer(
      "GET /",
      {.raw = "HTTP/1.1 200 OK\r\nX-Long: " + std::string(60000, 'x') + "\r\n\r\n", .piece = 1, .piece_delay_ms = 20});
  CHttpClientRequest request;
  request.url = server.Url("/");
  request.receive_timeout_ms = 200;
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(error_.kind, HttpClient::kTimeout) << HttpClient::ErrorText(error_);
  EXPECT_LT(took_ms_, 20000) << "every byte is progress, and there are 60000 of them";
}

TEST_F(HttpClientTimeoutTest, ALateAnswerIsNeverTakenForTheNextOne) {
  ScriptedServer server;
  server.Answer("GET /slow", {.body = "slow", .delay_ms = 300});
  server.Answer("GET /fast", {.body = "fast"});
  CHttpClientRequest request;
  request.url = server.Url("/slow");
  request.receive_timeout_ms = 100;
  EXPECT_FALSE(Send(request));
  request.url = server.Url("/fast");
  request.receive_timeout_ms = 2000;
  EXPECT_TRUE(Send(request));
  EXPECT_EQ(response_.body, "fast");
  EXPECT_EQ(server.ConnectionCount(), 2);
}

}  // namespace
}  // namespace TansyNet
