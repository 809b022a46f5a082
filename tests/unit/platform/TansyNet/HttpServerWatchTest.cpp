// What a host learns about requests: counts, the watch, and those that run.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/Operation.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::RawReply;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::COperation;
using TansyNet::FinishedRequest;
using TansyNet::HttpResponse;
using TansyNet::HttpServerRecv;

// A finished request with texts of its own.
struct Seen {
  std::string id, ip, line, query, user_agent, referer;
  FinishedRequest request;
};

std::mutex g_mutex;
std::vector<Seen> g_seen;

void Watch(const FinishedRequest& request) {
  const std::scoped_lock lock(g_mutex);
  g_seen.push_back({std::string(request.id), std::string(request.ip), std::string(request.line),
                    std::string(request.query), std::string(request.user_agent), std::string(request.referer),
                    request});
}

std::uint64_t CountOf(const COperation::Counts& counts, int status) {
  for (std::size_t i = 0; i < TansyNet::kCountedStatuses.size(); ++i) {
    if (TansyNet::kCountedStatuses.at(i) == status) {
      return counts.statuses.at(i);
    }
  }
  ADD_FAILURE() << status << " is not counted by itself";
  return 0;
}

std::uint64_t CountOf(const COperation& operation, int status) {
  return CountOf(operation.Read(), status);
}

COperation& Tested() {
  static COperation tested("test", "Tested");
  return tested;
}

// The one that counts what no server took.
const COperation* Refused() {
  for (const COperation* each : TansyNet::Operations()) {
    if (std::string(each->Service()) == "http") {
      return each;
    }
  }
  return nullptr;
}

class HttpServerWatch : public ServerFixture {
 protected:
  HttpServerWatch() { g_seen.clear(); }
  ~HttpServerWatch() override { CHttpServer::SetRequestWatch(nullptr); }

  void StartWatched() {
    CHttpServer::SetRequestWatch(&Watch);
    Start();
  }

  // The only request that has ended.
  static Seen Only() {
    EXPECT_TRUE(Eventually([] {
      const std::scoped_lock lock(g_mutex);
      return !g_seen.empty();
    })) << "no request ended";
    const std::scoped_lock lock(g_mutex);
    EXPECT_EQ(g_seen.size(), 1U);
    return g_seen.empty() ? Seen() : g_seen.front();
  }
};

TEST(Operation, CountsWhatItIsTold) {
  static COperation operation("test", "Alone");
  operation.Count(200, 400'000, 10, 4'086);
  operation.Count(200, 500'001, 0, 4'097);
  operation.Count(418, 3'600'000'000'000, 5'000'000'000, 0);
  const COperation::Counts counts = operation.Read();
  EXPECT_EQ(CountOf(counts, 200), 2U);
  EXPECT_EQ(CountOf(counts, 0), 1U) << "a status without a place of its own counts as 0";
  EXPECT_EQ(counts.times.front(), 1U);
  EXPECT_EQ(counts.times.at(1), 1U) << "a bound belongs to the place below it";
  EXPECT_EQ(counts.times.back(), 1U);
  EXPECT_EQ(counts.sizes.front(), 1U);
  EXPECT_EQ(counts.sizes.at(1), 1U);
  EXPECT_EQ(counts.sizes.back(), 1U);
  EXPECT_EQ(counts.nanoseconds, 3'600'000'900'001U);
  EXPECT_EQ(counts.bytes_in, 5'000'000'010U);
  EXPECT_EQ(counts.bytes_out, 8'183U);
}

TEST_F(HttpServerWatch, CountsARequestUnderTheOperationThatItsHandlerNames) {
  Start([](std::int32_t handle, HttpServerRecv& message) {
    TansyNet::BeginOperation(message.note, Tested());
    AnswerText(handle, "four");
  });
  const COperation::Counts before = Tested().Read();
  CRawClient client(Port());
  for (int i = 0; i < 3; ++i) {
    client.Send("PUT /b/k HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello");
    client.ReadReply();
  }
  EXPECT_TRUE(Eventually([&] { return CountOf(Tested(), 200) == CountOf(before, 200) + 3; }));
  const COperation::Counts after = Tested().Read();
  EXPECT_EQ(after.bytes_in - before.bytes_in, 15U);
  EXPECT_EQ(after.bytes_out - before.bytes_out, 12U);
}

TEST_F(HttpServerWatch, CountsWhatNoServerTookAsRefused) {
  Start();
  ASSERT_NE(Refused(), nullptr);
  const std::uint64_t before = CountOf(*Refused(), 400);
  CRawClient client(Port());
  client.Send("this is no request\r\n\r\n");
  EXPECT_EQ(client.ReadReply().status, 400);
  EXPECT_TRUE(Eventually([&] { return CountOf(*Refused(), 400) == before + 1; }));
}

TEST_F(HttpServerWatch, TellsWhatIsKnownOfARequest) {
  StartWatched();
  CRawClient client(Port());
  client.Send(
      "POST /b/k?uploads HTTP/1.1\r\nuser-agent: tester/1\r\nReferer: http://x/\r\nContent-Length: 3\r\n\r\nabc");
  Delivery delivery = Take();
  TansyNet::BeginOperation(delivery.message.note, Tested());
  AnswerText(delivery.handle, "answer");
  const RawReply reply = client.ReadReply();
  const Seen seen = Only();
  EXPECT_EQ(seen.line, "POST /b/k");
  EXPECT_EQ(seen.query, "uploads");
  EXPECT_EQ(seen.user_agent, "tester/1");
  EXPECT_EQ(seen.referer, "http://x/");
  EXPECT_EQ(seen.ip, "127.0.0.1");
  EXPECT_EQ(seen.id, reply.Header("x-request-id"));
  EXPECT_EQ(seen.id.size(), 16U);
  EXPECT_EQ(seen.request.operation, &Tested());
  EXPECT_EQ(seen.request.status, 200);
  EXPECT_EQ(seen.request.bytes_in, 3U);
  EXPECT_EQ(seen.request.bytes_out, 6U);
  EXPECT_TRUE(seen.request.is_whole);
  EXPECT_GT(seen.request.opened, 0);
  EXPECT_LE(seen.request.delivered, seen.request.opened);
  EXPECT_LE(seen.request.opened, seen.request.answered);
  EXPECT_LE(seen.request.answered, seen.request.ended);
}

TEST_F(HttpServerWatch, NamesNoRequestInItsAnswerWhenNobodyWatches) {
  Start();
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  AnswerText(Take().handle, "x");
  EXPECT_EQ(client.ReadReply().Header("x-request-id"), "");
}

TEST_F(HttpServerWatch, TakesTheNameThatTheServerGave) {
  StartWatched();
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  HttpResponse response;
  response.headers["x-amz-request-id"] = "OWN4711";
  CHttpServer::HttpServerSyncSend(Take().handle, response, 1, "x");
  EXPECT_EQ(client.ReadReply().Header("x-request-id"), "OWN4711");
  EXPECT_EQ(Only().id, "OWN4711");
}

TEST_F(HttpServerWatch, CountsNoBodyOfAnAnswerToHead) {
  StartWatched();
  CRawClient client(Port());
  client.Send("HEAD / HTTP/1.1\r\n\r\n");
  CHttpServer::HttpServerSendHead(Take().handle, HttpResponse(), 1'000'000);
  client.ReadReply(true);
  EXPECT_EQ(Only().request.bytes_out, 0U);
}

TEST_F(HttpServerWatch, SaysThatTheClientLeftBeforeItsAnswer) {
  StartWatched();
  std::int32_t handle = 0;
  {
    CRawClient client(Port());
    client.Send("GET /gone HTTP/1.1\r\n\r\n");
    handle = Take().handle;
    client.Reset();
  }
  const Seen seen = Only();
  EXPECT_EQ(seen.line, "GET /gone");
  EXPECT_EQ(seen.request.status, TansyNet::kClientLeft);
  EXPECT_FALSE(seen.request.is_whole);
  EXPECT_EQ(AnswerText(handle, "late"), TansyNet::kNetUnknownHandle);
}

TEST_F(HttpServerWatch, CountsOfAnAnswerThatWasCutOffWhatWasSent) {
  StartWatched();
  constexpr std::uint64_t kTotal = std::uint64_t{64} << 20;
  const std::string chunk(std::size_t{1} << 20, 'x');
  {
    CRawClient client(Port(), {.ipv6 = false, .receive_buffer = 4096});
    client.Send("GET /big HTTP/1.1\r\n\r\n");
    const std::int32_t handle = Take().handle;
    HttpResponse response;
    response.send_timeout_ms = 20000;
    ASSERT_EQ(CHttpServer::HttpServerSyncSendBigRsp(handle, response, static_cast<std::uint32_t>(chunk.size()),
                                                    chunk.data(), kTotal),
              0);
    client.Reset();
    while (CHttpServer::HttpServerSyncSendBigRsp(handle, response, static_cast<std::uint32_t>(chunk.size()),
                                                 chunk.data(), kTotal) == 0) {
    }
  }
  const Seen seen = Only();
  EXPECT_EQ(seen.request.status, 200);
  EXPECT_FALSE(seen.request.is_whole);
  EXPECT_GE(seen.request.bytes_out, chunk.size());
  EXPECT_LT(seen.request.bytes_out, kTotal);
}

TEST_F(HttpServerWatch, CountsThePiecesOfAnUploadTogether) {
  StartWatched();
  const std::string body((std::size_t{10} << 20) + 1, 'x');
  SetHandler([](std::int32_t handle, HttpServerRecv& message) {
    TansyNet::NameOperation(message.note, Tested());
    if (message.error_code == TansyNet::kLastBodyPiece) {
      AnswerText(handle, "stored");
    }
  });
  CRawClient client(Port());
  client.Send("PUT /b/k HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(client.ReadReply().status, 200);
  const Seen seen = Only();
  EXPECT_EQ(seen.request.bytes_in, body.size());
  EXPECT_EQ(seen.request.operation, &Tested());
}

TEST_F(HttpServerWatch, AHandlerOfBeforeDoesNotNameTheNextRequest) {
  StartWatched();
  CRawClient client(Port());
  client.Send("GET /first HTTP/1.1\r\n\r\n");
  const Delivery first = Take();
  AnswerText(first.handle, "x");
  client.ReadReply();
  client.Send("GET /second HTTP/1.1\r\n\r\n");
  const Delivery second = Take();
  TansyNet::BeginOperation(first.message.note, Tested());
  AnswerText(second.handle, "x");
  client.ReadReply();
  ASSERT_TRUE(Eventually([] {
    const std::scoped_lock lock(g_mutex);
    return g_seen.size() == 2;
  }));
  EXPECT_EQ(g_seen[1].line, "GET /second");
  EXPECT_EQ(g_seen[1].request.operation, nullptr);
}

TEST_F(HttpServerWatch, ListsTheRequestsThatRunOldestFirst) {
  Start();
  CRawClient first(Port());
  first.Send("GET /one HTTP/1.1\r\n\r\n");
  const Delivery one = Take();
  TansyNet::BeginOperation(one.message.note, Tested());
  CRawClient second(Port());
  second.Send("DELETE /two HTTP/1.1\r\n\r\n");
  const Delivery two = Take();
  const auto running = CHttpServer::RunningRequests();
  ASSERT_EQ(running.size(), 2U);
  EXPECT_EQ(running[0].line, "GET /one");
  EXPECT_EQ(running[0].operation, &Tested());
  EXPECT_EQ(running[0].ip, "127.0.0.1");
  EXPECT_STREQ(running[0].phase, "handling");
  EXPECT_EQ(running[1].line, "DELETE /two");
  EXPECT_EQ(running[1].operation, nullptr);
  EXPECT_GE(running[0].nanoseconds, running[1].nanoseconds);
  const TansyNet::ServerLoad load = CHttpServer::Load();
  EXPECT_EQ(load.requests, 2U);
  EXPECT_EQ(load.busy_connections, 2U);
  EXPECT_GE(load.connections, 2U);
  EXPECT_GE(load.most_connections, load.connections);
  AnswerText(one.handle, "x");
  AnswerText(two.handle, "x");
  EXPECT_TRUE(Eventually([] { return CHttpServer::RunningRequests().empty(); }));
}

TEST_F(HttpServerWatch, AnswersSayOnDemandHowLongTheyTook) {
  Start([](std::int32_t handle, HttpServerRecv& message) {
    TansyNet::BeginOperation(message.note, Tested());
    AnswerText(handle, "text");
  });
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(client.ReadReply().Header("server-timing"), "");
  CHttpServer::SetServerTiming(true);
  client.Send("PUT / HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nabc");
  const RawReply reply = client.ReadReply();
  CHttpServer::SetServerTiming(false);
  double receive = -1;
  double queue = -1;
  double handler = -1;
  ASSERT_EQ(std::sscanf(reply.Header("server-timing").c_str(), "receive;dur=%lf, queue;dur=%lf, handler;dur=%lf",
                        &receive, &queue, &handler),
            3)
      << reply.Header("server-timing");
  EXPECT_GT(receive, 0);
  EXPECT_GE(queue, 0);
  EXPECT_GE(handler, 0);
  EXPECT_LT(receive + queue + handler, 60'000) << "milliseconds";
  EXPECT_EQ(reply.Header("x-request-id"), "") << "nobody watches";
}

}  // namespace
