// Connections that are kept, used again, found closed and given up.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TansyNet/HttpClient.h"
#include "TansyNet/client/ClientTls.h"
#include "TansyNet/client/ConnectionPool.h"
#include "TansyNet/client/Resolver.h"
#include "fakes/FailingAllocation.h"
#include "fakes/ScriptedServer.h"

namespace TansyNet {
namespace {

using details::CClientConnection;
using details::CConnectionPool;
using Tansy::Tests::ScriptedAnswer;
using Tansy::Tests::ScriptedServer;

class HttpClientPoolTest : public testing::Test {
 protected:
  HttpClientPoolTest() { HttpClient::CloseIdleConnections(); }
  ~HttpClientPoolTest() override { HttpClient::CloseIdleConnections(); }

  HttpClient::Error Get(const std::string& url, std::uint32_t receive_timeout_ms = 2000) {
    CHttpClientRequest request;
    request.url = url;
    request.receive_timeout_ms = receive_timeout_ms;
    HttpClient::Error error;
    response_ = {};
    HttpClient().Send(request, &response_, &error);
    return error;
  }
  bool Got(const std::string& url) { return Get(url).kind == HttpClient::kNone; }
  HttpClient::Error Put(const std::string& url) {
    CHttpClientRequest request;
    request.url = url;
    request.method = "PUT";
    HttpClient::Error error;
    response_ = {};
    HttpClient().Send(request, &response_, &error);
    return error;
  }

  // Lets kept connections grow so old that the pool no longer expects their server to keep them open.
  static void LetKeptConnectionsSettle() { std::this_thread::sleep_for(CConnectionPool::kSettled * 2); }

  CHttpClientResponse response_;
};

TEST_F(HttpClientPoolTest, RequestsShareAConnection) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "x"});
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(Got(server.Url("/")));
  }
  EXPECT_EQ(server.Requests().size(), 10U);
  EXPECT_EQ(server.ConnectionCount(), 1);
  EXPECT_EQ(CConnectionPool::Instance().IdleCount(), 1U);
}

TEST_F(HttpClientPoolTest, AnswersWithoutABodyLeaveTheConnectionUsable) {
  ScriptedServer server;
  server.Answer("GET /204", {.raw = "HTTP/1.1 204 No Content\r\n\r\n"});
  server.Answer("GET /chunks", {.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n"});
  server.Answer("GET /empty", {.body = ""});
  for (const std::string target : {"/204", "/chunks", "/empty", "/204"}) {
    EXPECT_TRUE(Got(server.Url(target)));
  }
  EXPECT_EQ(server.ConnectionCount(), 1);
}

TEST_F(HttpClientPoolTest, ServersAreToldApartBySchemeHostAndPort) {
  URL url;
  ASSERT_TRUE(URL::Parse("http://Host:80/a", url));
  const std::string key = CConnectionPool::Key(url);
  const auto key_of = [&](const std::string& text) {
    EXPECT_TRUE(URL::Parse(text, url));
    return CConnectionPool::Key(url);
  };
  EXPECT_EQ(key_of("HTTP://hOST/b?c"), key);
  EXPECT_NE(key_of("https://host:80/a"), key);
  EXPECT_NE(key_of("http://host:81/a"), key);
  EXPECT_NE(key_of("http://host2:80/a"), key);
  EXPECT_NE(key_of("http://host8/0"), key_of("http://host:80/"));
}

TEST_F(HttpClientPoolTest, AConnectionIsNotKeptWhenTheServerWillCloseIt) {
  const std::vector<std::string> answers = {
      "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx",
      "HTTP/1.1 200 OK\r\nconnection: Close\r\nContent-Length: 1\r\n\r\nx",
      "HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx",
  };
  for (const std::string& answer : answers) {
    ScriptedServer server;
    server.Answer("GET /", {.raw = answer});
    EXPECT_TRUE(Got(server.Url("/")));
    EXPECT_TRUE(Got(server.Url("/")));
    EXPECT_EQ(server.ConnectionCount(), 2) << answer;
  }
  EXPECT_EQ(CConnectionPool::Instance().IdleCount(), 0U);
}

TEST_F(HttpClientPoolTest, AnOldServerMayAskForTheConnectionToBeKept) {
  ScriptedServer server;
  server.Answer("GET /", {.raw = "HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 1\r\n\r\nx"});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(server.ConnectionCount(), 1);
}

TEST_F(HttpClientPoolTest, AConnectionWithMoreThanItsAnswerIsNotKept) {
  ScriptedServer server;
  server.Answer("GET /", {.raw = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nxHTTP/1.1 200 OK\r\n"
                                 "Content-Length: 6\r\n\r\nforged"});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(response_.body, "x");
  EXPECT_EQ(CConnectionPool::Instance().IdleCount(), 0U);
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(response_.body, "x");
  EXPECT_EQ(server.ConnectionCount(), 2);
}

TEST_F(HttpClientPoolTest, BytesThatNobodyAskedForEndAKeptConnection) {
  ScriptedServer server;
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx";
  server.Answer("GET /", {.raw = answer + "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged",
                          .piece = answer.size(),
                          .piece_delay_ms = 50});
  EXPECT_TRUE(Got(server.Url("/")));
  // The pool looks at a connection when somebody takes it. Once the bytes have arrived, there is none to take.
  URL url;
  ASSERT_TRUE(URL::Parse(server.Url("/"), url));
  const std::string key = CConnectionPool::Key(url);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (auto connection = CConnectionPool::Instance().Take(key)) {
    ASSERT_LT(std::chrono::steady_clock::now(), until);
    CConnectionPool::Instance().Give(key, std::move(connection));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(response_.body, "x");
  EXPECT_EQ(server.ConnectionCount(), 2);
}

TEST_F(HttpClientPoolTest, AKeptConnectionThatTheServerClosedIsReplaced) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "x"});
  EXPECT_TRUE(Got(server.Url("/")));
  server.CloseConnections();
  ASSERT_TRUE(server.WaitForNoConnections());
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(server.ConnectionCount(), 2);
  EXPECT_EQ(server.Requests().size(), 2U) << "the closed connection was noticed before it was used";
}

// The server closes just when the connection is used again, so that looking at it before does not help.
TEST_F(HttpClientPoolTest, AKeptConnectionThatClosesUnderTheRequestIsReplacedOnce) {
  for (const bool reset : {false, true}) {
    HttpClient::CloseIdleConnections();
    ScriptedServer server;
    server.Answer("GET /", {.body = "first"});
    server.Answer("GET /", {.cut_after = 0, .reset = reset});
    server.Answer("GET /", {.body = "second"});
    EXPECT_TRUE(Got(server.Url("/")));
    EXPECT_TRUE(Got(server.Url("/")));
    EXPECT_EQ(response_.body, "second");
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[1].connection, 1);
    EXPECT_EQ(requests[2].connection, 2);
  }
}

// A request with effects may have been carried out although nothing of an answer came.
TEST_F(HttpClientPoolTest, ARequestWithEffectsIsNeverSentTwice) {
  for (const std::string method : {"POST", "PUT", "DELETE", "PATCH"}) {
    HttpClient::CloseIdleConnections();
    ScriptedServer server;
    server.Answer("GET /", {.body = "first"});
    server.Answer(method + " /", {.cut_after = 0});
    EXPECT_TRUE(Got(server.Url("/")));
    LetKeptConnectionsSettle();
    CHttpClientRequest request;
    request.url = server.Url("/");
    request.method = method;
    HttpClient::Error error;
    EXPECT_FALSE(HttpClient().Send(request, &response_, &error)) << method;
    EXPECT_EQ(error.kind, HttpClient::kReceive) << method;
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2U) << method;
    EXPECT_EQ(requests[1].connection, 1) << method << ": the kept connection was used";
  }
}

// Best node leaves such a connection behind, and the picture's POST follows at once.
TEST_F(HttpClientPoolTest, ARequestWithEffectsDoesNotTakeAConnectionThatIsAboutToClose) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first", .close = true});  // without having said so
  server.Answer("POST /", {.body = "second"});
  for (int round = 0; round < 20; ++round) {
    EXPECT_TRUE(Got(server.Url("/")));
    CHttpClientRequest request;
    request.url = server.Url("/");
    request.method = "POST";
    EXPECT_TRUE(HttpClient().Send(request, &response_, nullptr)) << "round " << round;
    EXPECT_EQ(response_.body, "second");
    HttpClient::CloseIdleConnections();
  }
  EXPECT_EQ(server.Requests().size(), 40U);
}

TEST_F(HttpClientPoolTest, ARequestWithEffectsTakesAConnectionThatHasStayedOpen) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("PUT /", {.body = "second"});
  EXPECT_TRUE(Got(server.Url("/")));
  LetKeptConnectionsSettle();
  CHttpClientRequest request;
  request.url = server.Url("/");
  request.method = "PUT";
  EXPECT_TRUE(HttpClient().Send(request, &response_, nullptr));
  EXPECT_EQ(server.ConnectionCount(), 1);
}

// Many small uploads would otherwise open a connection each.
TEST_F(HttpClientPoolTest, ARequestWithEffectsTakesAConnectionAtOnceThatWasKeptBefore) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("PUT /", {.body = "second"});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_TRUE(Got(server.Url("/")));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(Put(server.Url("/")).kind, HttpClient::kNone);
  }
  EXPECT_EQ(server.ConnectionCount(), 1);
}

// A connection that has replaced a kept one has itself not been kept before.
TEST_F(HttpClientPoolTest, ARequestWithEffectsDoesNotTakeAReplacementAtOnce) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("GET /", {.cut_after = 0});
  server.Answer("GET /", {.body = "second", .close = true});  // without having said so
  server.Answer("PUT /", {.body = "third"});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(response_.body, "second");
  EXPECT_EQ(Put(server.Url("/")).kind, HttpClient::kNone);
  const auto requests = server.Requests();
  ASSERT_EQ(requests.size(), 4U);
  EXPECT_EQ(requests[3].connection, 3);
}

TEST_F(HttpClientPoolTest, ARequestWithEffectsIsSentOnceAlsoOnAConnectionThatWasKeptBefore) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("PUT /", {.cut_after = 0});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(Put(server.Url("/")).kind, HttpClient::kReceive);
  const auto requests = server.Requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[2].connection, 1);
}

TEST_F(HttpClientPoolTest, TheReplacementIsNotReplaced) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("GET /", {.cut_after = 0});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kReceive);
  EXPECT_EQ(server.Requests().size(), 3U);
}

TEST_F(HttpClientPoolTest, TheReplacementIsFreshEvenWhenOtherConnectionsAreKept) {
  ScriptedServer server;
  std::atomic<int> waiting{0};
  std::atomic<bool> closing{false};
  server.Handle([&](const auto& request) -> ScriptedAnswer {
    if (closing && request.connection <= 3) {
      return {.cut_after = 0};
    }
    ++waiting;
    while (waiting < 3) {
      std::this_thread::yield();
    }
    return {.body = "x"};
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      CHttpClientRequest request;
      request.url = server.Url("/");
      EXPECT_TRUE(HttpClient().Send(request, nullptr, nullptr));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  ASSERT_EQ(CConnectionPool::Instance().IdleCount(), 3U);
  closing = true;
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(server.ConnectionCount(), 4);
}

TEST_F(HttpClientPoolTest, AFirstConnectionIsNeverReplaced) {
  ScriptedServer server;
  server.Answer("GET /", {.cut_after = 0});
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kReceive);
  EXPECT_EQ(server.Requests().size(), 1U);
}

TEST_F(HttpClientPoolTest, NothingIsSentAgainAfterAByteOfAnAnswer) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("GET /", {.body = "second", .cut_after = 1});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kBadAnswer);
  EXPECT_EQ(server.Requests().size(), 2U);
}

TEST_F(HttpClientPoolTest, NothingIsSentAgainAfterATimeout) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "first"});
  server.Answer("GET /", {.silent = true});
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(Get(server.Url("/"), 100).kind, HttpClient::kTimeout);
  EXPECT_EQ(server.Requests().size(), 2U);
}

TEST_F(HttpClientPoolTest, AConnectionIsKeptForFourSeconds) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "x"});
  EXPECT_TRUE(Got(server.Url("/")));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(server.ConnectionCount(), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(4200));
  EXPECT_TRUE(Got(server.Url("/")));
  EXPECT_EQ(server.ConnectionCount(), 2);
  EXPECT_EQ(CConnectionPool::Instance().IdleCount(), 1U);
}

TEST_F(HttpClientPoolTest, ClosingIdleConnectionsClosesThem) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "x"});
  EXPECT_TRUE(Got(server.Url("/")));
  HttpClient::CloseIdleConnections();
  EXPECT_TRUE(server.WaitForNoConnections());
  EXPECT_EQ(CConnectionPool::Instance().IdleCount(), 0U);
}

TEST_F(HttpClientPoolTest, AnExchangeIsCompleteAlsoWhenItsConnectionCannotBeKept) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "x"});
  URL url;
  ASSERT_TRUE(URL::Parse(server.Url("/"), url));
  HttpClient::Error error;
  const std::string key = "a key that is longer than a string holds without memory";
  CConnectionPool& pool = CConnectionPool::Instance();
  auto connection = CClientConnection::Open(url, 10000, error);
  Tansy::Tests::FailEachAllocation(
      [&] {
        if (connection) {
          pool.Give(key, std::move(connection));
        }
      },
      [&](std::size_t number, bool) {
        EXPECT_TRUE(Got(server.Url("/"))) << "allocation " << number;
        EXPECT_LE(pool.IdleCount(), 2U);
        connection = CClientConnection::Open(url, 10000, error);
        ASSERT_TRUE(connection) << "allocation " << number;
        pool.Clear();
      });
}

// The thread that looks a name up ends with a failure, not with the process.
TEST_F(HttpClientPoolTest, ALookUpWithoutMemoryFails) {
  bool has_failed = false;
  for (std::size_t number = 1; number < 200; ++number) {
    std::vector<details::SocketAddress> addresses;
    HttpClient::Error error;
    bool failed = false;
    {
      const Tansy::Tests::CFailingAllocationAnywhere failing(number);
      try {
        details::ResolveWithin("localhost", 80, 10000, addresses, error);
      } catch (const std::bad_alloc&) {
      }
      failed = failing.HasFailed();
    }
    has_failed = has_failed || failed;
    if (!failed) {
      EXPECT_EQ(error.kind, HttpClient::kNone);
      break;
    }
  }
  EXPECT_TRUE(has_failed);
}

TEST_F(HttpClientPoolTest, TheNumberOfKeptConnectionsIsBounded) {
  ScriptedServer server;
  URL url;
  ASSERT_TRUE(URL::Parse(server.Url("/"), url));
  CConnectionPool& pool = CConnectionPool::Instance();
  HttpClient::Error error;
  for (std::size_t i = 0; i < CConnectionPool::kMaxIdlePerServer + 3; ++i) {
    auto connection = CClientConnection::Open(url, 10000, error);
    ASSERT_TRUE(connection) << error.detail;
    pool.Give("one", std::move(connection));
  }
  EXPECT_EQ(pool.IdleCount(), CConnectionPool::kMaxIdlePerServer);
  for (std::size_t i = 0; i < CConnectionPool::kMaxIdle; ++i) {
    auto connection = CClientConnection::Open(url, 10000, error);
    ASSERT_TRUE(connection) << error.detail;
    pool.Give("other " + std::to_string(i), std::move(connection));
  }
  EXPECT_EQ(pool.IdleCount(), CConnectionPool::kMaxIdle);
  EXPECT_EQ(pool.Take("one"), nullptr) << "the oldest ones went first";
  EXPECT_NE(pool.Take("other 0"), nullptr);
}

TEST_F(HttpClientPoolTest, TheConnectionUsedLastIsUsedFirst) {
  ScriptedServer server;
  URL url;
  ASSERT_TRUE(URL::Parse(server.Url("/"), url));
  HttpClient::Error error;
  CConnectionPool& pool = CConnectionPool::Instance();
  auto first = CClientConnection::Open(url, 10000, error);
  auto second = CClientConnection::Open(url, 10000, error);
  ASSERT_TRUE(first && second) << error.detail;
  const auto* const last = second.get();
  pool.Give("key", std::move(first));
  pool.Give("key", std::move(second));
  EXPECT_EQ(pool.Take("key").get(), last);
}

// The same holds for a connection that comes back while the settings change, after the pool was emptied for that.
TEST_F(HttpClientPoolTest, AConnectionOfOtherTrustSettingsIsNotTaken) {
  ScriptedServer server;
  URL url;
  ASSERT_TRUE(URL::Parse(server.Url("/"), url));
  HttpClient::Error error;
  CConnectionPool& pool = CConnectionPool::Instance();
  auto late = CClientConnection::Open(url, 10000, error);
  auto early = CClientConnection::Open(url, 10000, error);
  ASSERT_TRUE(late && early) << error.detail;
  pool.Give("key", std::move(early));
  details::SetClientTrust({});
  EXPECT_EQ(pool.Take("key"), nullptr);
  pool.Give("key", std::move(late));
  EXPECT_EQ(pool.IdleCount(), 0U);
}

TEST_F(HttpClientPoolTest, EightThreadsShareThePool) {
  ScriptedServer server;
  server.Handle([](const auto& request) -> ScriptedAnswer { return {.body = request.target + request.body}; });
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 100; ++round) {
        const std::string body(static_cast<std::size_t>((i * 7919 + round * 104729) % 50000),
                               static_cast<char>('a' + i));
        CHttpClientRequest request;
        request.url = server.Url("/" + std::to_string(i) + "/" + std::to_string(round));
        request.method = "POST";
        request.body = body.data();
        request.body_size = body.size();
        CHttpClientResponse response;
        const bool sent = HttpClient().Send(request, &response, nullptr);
        const std::string expected = "/" + std::to_string(i) + "/" + std::to_string(round) + body;
        if (!sent || response.body != expected) {
          ++wrong;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(CConnectionPool::Instance().IdleCount(), CConnectionPool::kMaxIdlePerServer);
  EXPECT_EQ(server.Requests().size(), 800U);
}

}  // namespace
}  // namespace TansyNet
