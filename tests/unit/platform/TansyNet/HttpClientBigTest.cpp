// Big bodies both ways, bodies in pieces, and answers that come before the body is sent.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TansyNet/HttpClient.h"
#include "TansyNet/client/ClientConnection.h"
#include "TansyNet/client/ConnectionPool.h"
#include "fakes/RandomBytes.h"
#include "fakes/ScriptedServer.h"

namespace TansyNet {
namespace {

using Tansy::Tests::ScriptedAnswer;
using Tansy::Tests::ScriptedServer;

constexpr std::size_t kPiece = 256 * 1024;

// One call of the callback.
struct Piece {
  int status = 0;
  std::string data;
  bool has_data = false;
  HttpClient::Error error;
  bool last = false;
  std::uint64_t content_length = 0;
  std::thread::id thread;
};

class HttpClientBigTest : public testing::TestWithParam<bool> {
 protected:
  HttpClientBigTest() : server_({.https = GetParam()}) {
    HttpClient::SetTlsTrust({.trust_file = {}, .accept_any = true});
  }
  ~HttpClientBigTest() override { HttpClient::SetTlsTrust({}); }

  CHttpClientRequest Request(const std::string& target) const {
    CHttpClientRequest request;
    request.url = server_.Url(target);
    return request;
  }
  static void SetBody(CHttpClientRequest& request, const std::string& body) {
    request.method = "PUT";
    request.body = body.data();
    request.body_size = body.size();
  }

  std::vector<Piece> Receive(const CHttpClientRequest& request, bool* complete = nullptr) {
    std::vector<Piece> pieces;
    const bool result = HttpClient().SendForBigRsp(request, [&](const CHttpClientResponse& response, const char* data,
                                                                unsigned int size, HttpClient::Error error, bool last) {
      pieces.push_back({response.status, std::string(data != nullptr ? data : "", size), data != nullptr, error, last,
                        response.content_length, std::this_thread::get_id()});
    });
    if (complete != nullptr) {
      *complete = result;
    }
    return pieces;
  }

  ScriptedServer server_;
};

TEST_P(HttpClientBigTest, ABigBodyArrivesWhole) {
  const std::string body = Tansy::Tests::RandomBytes(GetParam() ? 24 * 1024 * 1024 : 64 * 1024 * 1024);
  server_.Answer("PUT /", {.status = 200});
  server_.Answer("GET /", {.body = body});
  CHttpClientRequest request = Request("/");
  SetBody(request, body);
  HttpClient::Error error;
  ASSERT_TRUE(HttpClient().Send(request, nullptr, &error)) << HttpClient::ErrorText(error);
  EXPECT_TRUE(server_.Requests().at(0).body == body);
  CHttpClientResponse response;
  ASSERT_TRUE(HttpClient().Send(Request("/"), &response, &error)) << HttpClient::ErrorText(error);
  EXPECT_TRUE(response.body == body);
  EXPECT_EQ(server_.ConnectionCount(), 1);
}

// Bodies around the sizes at which records, buffers and windows end.
TEST_P(HttpClientBigTest, BodiesOfAwkwardSizesArriveWhole) {
  server_.Handle([](const auto& request) -> ScriptedAnswer { return {.body = request.body}; });
  for (const std::size_t edge : {16 * 1024, 64 * 1024, 256 * 1024, 1024 * 1024}) {
    for (const std::size_t size : {edge - 200, edge - 1, edge, edge + 1}) {
      const std::string body = Tansy::Tests::RandomBytes(size);
      CHttpClientRequest request = Request("/echo");
      SetBody(request, body);
      request.method = "GET";  // takes a kept connection at once: what one body left behind would spoil the next
      CHttpClientResponse response;
      ASSERT_TRUE(HttpClient().Send(request, &response, nullptr));
      EXPECT_TRUE(response.body == body) << size;
    }
  }
  EXPECT_EQ(server_.ConnectionCount(), 1);
}

std::string InChunks(const std::string& body, std::size_t chunk) {
  std::string text = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (std::size_t begin = 0; begin < body.size(); begin += chunk) {
    const std::string piece = body.substr(begin, chunk);
    char size[32];
    std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
    text += size + piece + "\r\n";
  }
  return text + "0\r\n\r\n";
}

TEST_P(HttpClientBigTest, PiecesMakeUpTheBodyInEveryFraming) {
  for (const std::size_t size :
       {std::size_t{1}, kPiece - 1, kPiece, kPiece + 1, 2 * kPiece, 2 * kPiece + 1, 5 * kPiece + 3}) {
    const std::string body = Tansy::Tests::RandomBytes(size);
    server_.ClearScript();
    server_.Answer("GET /length", {.body = body});
    server_.Answer("GET /chunks", {.raw = InChunks(body, 70001)});
    server_.Answer("GET /close", {.raw = "HTTP/1.0 200 OK\r\n\r\n" + body, .close = true});
    for (const std::string target : {"/length", "/chunks", "/close"}) {
      bool complete = false;
      const std::vector<Piece> pieces = Receive(Request(target), &complete);
      EXPECT_TRUE(complete) << target << size;
      EXPECT_EQ(pieces.size(), (size + kPiece - 1) / kPiece) << target << size;
      std::string joined;
      for (const Piece& piece : pieces) {
        EXPECT_EQ(piece.status, 200);
        EXPECT_TRUE(piece.has_data);
        EXPECT_EQ(piece.error.kind, HttpClient::kNone);
        EXPECT_EQ(piece.thread, std::this_thread::get_id());
        EXPECT_EQ(piece.last, &piece == &pieces.back());
        EXPECT_TRUE(piece.last || piece.data.size() == kPiece);
        EXPECT_TRUE(target != "/length" || piece.content_length == size);
        joined += piece.data;
      }
      EXPECT_TRUE(joined == body) << target << size;
      EXPECT_EQ(pieces.back().content_length, size);
    }
  }
}

TEST_P(HttpClientBigTest, AnEmptyBodyIsOneCallWithoutData) {
  server_.Answer("GET /length", {.status = 404});
  server_.Answer("GET /chunks", {.raw = InChunks("", 1)});
  server_.Answer("GET /none", {.raw = "HTTP/1.1 204 No Content\r\n\r\n"});
  for (const auto& [target, status] : {std::pair{"/length", 404}, {"/chunks", 200}, {"/none", 204}}) {
    bool complete = false;
    const std::vector<Piece> pieces = Receive(Request(target), &complete);
    EXPECT_TRUE(complete);
    ASSERT_EQ(pieces.size(), 1U) << target;
    EXPECT_EQ(pieces[0].status, status);
    EXPECT_FALSE(pieces[0].has_data);
    EXPECT_TRUE(pieces[0].last);
    EXPECT_EQ(pieces[0].error.kind, HttpClient::kNone);
  }
}

TEST_P(HttpClientBigTest, AFailureIsTheLastCall) {
  const std::string body = Tansy::Tests::RandomBytes(2 * kPiece);
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  for (const std::size_t cut : {std::size_t{0}, std::size_t{100}, kPiece - 1, kPiece, kPiece + 1, 2 * kPiece - 1}) {
    server_.ClearScript();
    server_.Answer("GET /", {.raw = head + body, .cut_after = head.size() + cut});
    bool complete = true;
    const std::vector<Piece> pieces = Receive(Request("/"), &complete);
    EXPECT_FALSE(complete);
    std::string joined;
    for (const Piece& piece : pieces) {
      const bool last = &piece == &pieces.back();
      EXPECT_EQ(piece.last, last);
      EXPECT_EQ(piece.has_data, !last);
      EXPECT_EQ(piece.error.kind, last ? HttpClient::kBadAnswer : HttpClient::kNone);
      EXPECT_EQ(piece.error.detail != 0, last);
      joined += piece.data;
    }
    EXPECT_TRUE(joined == body.substr(0, cut)) << "what came was handed out, " << cut;
  }
}

TEST_P(HttpClientBigTest, AFailureBeforeAnyAnswerIsTheOnlyCall) {
  server_.Answer("GET /", {.cut_after = 0});
  CHttpClientRequest request;
  for (const std::string& url : {server_.Url("/"), std::string("no address")}) {
    request.url = url;
    const std::vector<Piece> pieces = Receive(request);
    ASSERT_EQ(pieces.size(), 1U);
    EXPECT_EQ(pieces[0].status, 0);
    EXPECT_TRUE(pieces[0].last);
    EXPECT_FALSE(pieces[0].has_data);
    EXPECT_NE(pieces[0].error.kind, HttpClient::kNone);
    EXPECT_NE(pieces[0].error.detail, 0);
  }
}

TEST_P(HttpClientBigTest, PiecesHaveNoLimitInAll) {
  server_.Answer("GET /", {.body = Tansy::Tests::RandomBytes(kPiece)});
  CHttpClientRequest request = Request("/");
  request.max_body_bytes = 10;
  EXPECT_EQ(Receive(request).front().data.size(), kPiece);
}

TEST_P(HttpClientBigTest, AnExceptionOfTheCallbackPassesThrough) {
  server_.Answer("GET /", {.body = Tansy::Tests::RandomBytes(3 * kPiece)});
  int calls = 0;
  const auto callback = [&](const CHttpClientResponse&, const char*, unsigned int, HttpClient::Error, bool) {
    ++calls;
    throw std::runtime_error("enough");
  };
  EXPECT_THROW(HttpClient().SendForBigRsp(Request("/"), callback), std::runtime_error);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(Receive(Request("/")).size(), 3U);
  EXPECT_EQ(server_.ConnectionCount(), 2) << "a connection in the middle of an answer is not kept";
}

// A server that refuses a body says so, stops reading and closes; the system then cuts the connection, because the rest
// of the body lies there unread.
TEST_P(HttpClientBigTest, ARefusalWhileTheBodyIsSentIsTheAnswer) {
  const std::string body = Tansy::Tests::RandomBytes(32 * 1024 * 1024);
  server_.Answer("PUT /", {.status = 413, .headers = {{"X-Why", "full"}}, .body = "too large", .before_body = true});
  for (int i = 0; i < 20; ++i) {
    CHttpClientRequest request = Request("/");
    SetBody(request, body);
    CHttpClientResponse response;
    HttpClient::Error error;
    ASSERT_TRUE(HttpClient().Send(request, &response, &error)) << HttpClient::ErrorText(error);
    EXPECT_EQ(response.status, 413);
    EXPECT_EQ(response.body, "too large");
    EXPECT_EQ(response.GetHeader("X-Why"), "full");
  }
  EXPECT_EQ(server_.ConnectionCount(), 20) << "a connection with half a request in it is not kept";
}

TEST_P(HttpClientBigTest, ARefusalByAServerThatStopsReadingIsTheAnswer) {
  const std::string body = Tansy::Tests::RandomBytes(32 * 1024 * 1024);
  server_.Answer(
      "PUT /",
      {.on_head = "HTTP/1.1 403 Forbidden\r\nContent-Length: 2\r\n\r\nno", .delay_ms = 60000, .before_body = true});
  CHttpClientRequest request = Request("/");
  SetBody(request, body);
  request.send_timeout_ms = 10000;
  CHttpClientResponse response;
  HttpClient::Error error;
  ASSERT_TRUE(HttpClient().Send(request, &response, &error)) << HttpClient::ErrorText(error);
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.body, "no");
  EXPECT_EQ(details::CConnectionPool::Instance().IdleCount(), 0U) << "half a request is still in it";
}

TEST_P(HttpClientBigTest, AnInterimAnswerDoesNotStopTheBody) {
  const std::string body = Tansy::Tests::RandomBytes(16 * 1024 * 1024);
  server_.Answer("PUT /", {.body = "done", .on_head = "HTTP/1.1 100 Continue\r\n\r\n"});
  CHttpClientRequest request = Request("/");
  SetBody(request, body);
  CHttpClientResponse response;
  HttpClient::Error error;
  ASSERT_TRUE(HttpClient().Send(request, &response, &error)) << HttpClient::ErrorText(error);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "done");
  EXPECT_TRUE(server_.Requests().at(0).body == body);
}

TEST_P(HttpClientBigTest, ACutWhileTheBodyIsSentIsASendError) {
  const std::string body = Tansy::Tests::RandomBytes(32 * 1024 * 1024);
  for (const bool reset : {false, true}) {
    server_.ClearScript();
    server_.Answer("PUT /", {.cut_after = 0, .reset = reset, .before_body = true});
    CHttpClientRequest request = Request("/");
    SetBody(request, body);
    HttpClient::Error error;
    EXPECT_FALSE(HttpClient().Send(request, nullptr, &error));
    EXPECT_EQ(error.kind, HttpClient::kSend);
    EXPECT_NE(error.detail, 0);
  }
}

TEST_P(HttpClientBigTest, ANonsensicalEarlyAnswerIsABadAnswer) {
  const std::string body = Tansy::Tests::RandomBytes(32 * 1024 * 1024);
  server_.Answer("PUT /", {.raw = "nonsense\r\n\r\n", .before_body = true});
  CHttpClientRequest request = Request("/");
  SetBody(request, body);
  HttpClient::Error error;
  EXPECT_FALSE(HttpClient().Send(request, nullptr, &error));
  EXPECT_EQ(error.kind, HttpClient::kBadAnswer);
}

volatile std::sig_atomic_t g_signals = 0;

TEST_P(HttpClientBigTest, APeerThatIsGoneRaisesNoSignal) {
  URL url;
  ASSERT_TRUE(URL::Parse(server_.Url("/"), url));
  HttpClient::Error error;
  const auto connection = details::CClientConnection::Open(url, 2000, error);
  ASSERT_NE(connection, nullptr);
  for (int i = 0; i < 2000 && server_.ConnectionCount() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  server_.CloseConnections();
  ASSERT_TRUE(server_.WaitForNoConnections());

  g_signals = 0;
  auto* const before = std::signal(SIGPIPE, [](int) { g_signals = 1; });
  // The first bytes are still taken by the system; what comes back then makes every later write a broken pipe.
  IoResult result;
  for (int i = 0; i < 100; ++i) {
    result = connection->TryWrite("more", {});
    if (result.status == IoStatus::kFailed) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  result = connection->TryWrite("more", {});
  std::signal(SIGPIPE, before);
  EXPECT_EQ(result.status, IoStatus::kFailed);
  EXPECT_TRUE(details::IsClosedByPeer(result.error));
  EXPECT_EQ(g_signals, 0);
}

INSTANTIATE_TEST_SUITE_P(Schemes, HttpClientBigTest, testing::Bool(),
                         [](const auto& https) { return https.param ? "Https" : "Http"; });

}  // namespace
}  // namespace TansyNet
