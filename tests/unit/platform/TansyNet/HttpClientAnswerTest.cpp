// What the client makes of answers, whole and broken ones.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "TansyNet/HttpClient.h"
#include "fakes/ScriptedServer.h"

namespace TansyNet {
namespace {

using Tansy::Tests::ScriptedAnswer;
using Tansy::Tests::ScriptedServer;

struct Outcome {
  bool sent = false;
  CHttpClientResponse response;
  HttpClient::Error error;
};

class HttpClientAnswerTest : public testing::Test {
 protected:
  ~HttpClientAnswerTest() override { HttpClient::CloseIdleConnections(); }

  Outcome Get(const ScriptedAnswer& answer, const std::string& method = "GET") {
    server_.ClearScript();
    server_.Handle([answer](const auto&) { return answer; });
    CHttpClientRequest request;
    request.url = server_.Url("/");
    request.method = method;
    request.receive_timeout_ms = 2000;
    request.max_body_bytes = max_body_bytes_;
    Outcome outcome;
    outcome.sent = HttpClient().Send(request, &outcome.response, &outcome.error);
    EXPECT_EQ(outcome.sent, outcome.error.kind == HttpClient::kNone);
    EXPECT_EQ(outcome.sent, outcome.error.detail == 0);
    return outcome;
  }

  Outcome GetRaw(const std::string& raw, bool close = true, const std::string& method = "GET") {
    return Get({.raw = raw, .close = close}, method);
  }

  ScriptedServer server_;
  std::uint64_t max_body_bytes_ = std::uint64_t{4} << 30;
};

TEST_F(HttpClientAnswerTest, TakesABodyOfKnownLength) {
  const Outcome got = Get({.status = 200, .headers = {{"X-A", "1"}, {"etag", "t"}}, .body = "hello"});
  ASSERT_TRUE(got.sent);
  EXPECT_EQ(got.response.status, 200);
  EXPECT_EQ(got.response.body, "hello");
  EXPECT_EQ(got.response.content_length, 5U);
  EXPECT_EQ(got.response.headers, (Headers{{"Content-Length", "5"}, {"ETag", "t"}, {"X-A", "1"}}));
  EXPECT_EQ(got.response.GetHeader("x-a"), "1");
  EXPECT_EQ(got.response.GetHeader("ETAG"), "t");
  EXPECT_EQ(got.response.GetHeader("absent"), "");
}

TEST_F(HttpClientAnswerTest, AnyStatusIsAnAnswer) {
  for (const int status : {200, 201, 206, 301, 302, 400, 403, 404, 500, 503, 599, 999}) {
    const Outcome got = Get({.status = status, .headers = {{"Location", "http://127.0.0.1:1/"}}, .body = "x"});
    EXPECT_TRUE(got.sent);
    EXPECT_EQ(got.response.status, status);
    EXPECT_EQ(got.response.body, "x");
  }
}

TEST_F(HttpClientAnswerTest, OfARepeatedHeaderTheFirstValueCounts) {
  const Outcome got = GetRaw("HTTP/1.1 200 OK\r\nX-A: first\r\nX-A: second\r\nContent-Length: 0\r\n\r\n");
  ASSERT_TRUE(got.sent);
  EXPECT_EQ(got.response.GetHeader("X-A"), "first");
}

TEST_F(HttpClientAnswerTest, TakesABodyInChunks) {
  const Outcome got = GetRaw(
      "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n"
      "5\r\nhello\r\n6;note=x\r\n world\r\n0\r\nX-Trailer: t\r\n\r\n",
      false);
  ASSERT_TRUE(got.sent) << HttpClient::ErrorText(got.error);
  EXPECT_EQ(got.response.body, "hello world");
  EXPECT_EQ(got.response.content_length, 11U);
  EXPECT_EQ(got.response.GetHeader("Transfer-Encoding"), "chunked");
  EXPECT_EQ(got.response.GetHeader("X-Trailer"), "");
}

TEST_F(HttpClientAnswerTest, TakesAnEmptyBodyInChunks) {
  const Outcome got = GetRaw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", false);
  ASSERT_TRUE(got.sent);
  EXPECT_EQ(got.response.body, "");
  EXPECT_EQ(got.response.content_length, 0U);
}

TEST_F(HttpClientAnswerTest, TakesABodyUntilTheConnectionCloses) {
  for (const std::string version : {"HTTP/1.0", "HTTP/1.1"}) {
    const Outcome got = GetRaw(version + " 200 OK\r\n\r\nhello");
    ASSERT_TRUE(got.sent);
    EXPECT_EQ(got.response.body, "hello");
    EXPECT_EQ(got.response.content_length, 5U);
  }
  EXPECT_EQ(GetRaw("HTTP/1.0 200 OK\r\n\r\n").response.body, "");
}

TEST_F(HttpClientAnswerTest, SomeAnswersHaveNoBodyWhateverTheySay) {
  for (const std::string status : {"204", "304"}) {
    const Outcome got = GetRaw("HTTP/1.1 " + status + " X\r\nContent-Length: 5\r\n\r\n", false);
    EXPECT_TRUE(got.sent) << status;
    EXPECT_EQ(got.response.body, "");
  }
  const Outcome got = GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 500\r\n\r\n", false, "HEAD");
  EXPECT_TRUE(got.sent);
  EXPECT_EQ(got.response.body, "");
  EXPECT_EQ(got.response.content_length, 500U);
}

TEST_F(HttpClientAnswerTest, SkipsInterimAnswers) {
  const Outcome got = GetRaw(
      "HTTP/1.1 100 Continue\r\nX-A: interim\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n"
      "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
      false);
  ASSERT_TRUE(got.sent);
  EXPECT_EQ(got.response.status, 200);
  EXPECT_EQ(got.response.body, "ok");
  EXPECT_EQ(got.response.headers, (Headers{{"Content-Length", "2"}}));
}

TEST_F(HttpClientAnswerTest, GivesUpOnInterimAnswersWithoutAnEnd) {
  std::string sixteen;
  for (int i = 0; i < 16; ++i) {
    sixteen += "HTTP/1.1 102 Processing\r\n\r\n";
  }
  const std::string last = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  EXPECT_TRUE(GetRaw(sixteen + last).sent);
  EXPECT_EQ(GetRaw(sixteen + "HTTP/1.1 102 Processing\r\n\r\n" + last).error.kind, HttpClient::kBadAnswer);
}

TEST_F(HttpClientAnswerTest, SwitchingProtocolsWasNotAskedFor) {
  const Outcome got =
      GetRaw("HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(got.error.kind, HttpClient::kBadAnswer);
}

TEST_F(HttpClientAnswerTest, GarbageIsABadAnswer) {
  const std::vector<std::string> answers = {
      "hello\r\n\r\n",
      "HTTP/2 200 OK\r\n\r\n",
      "HTTP/1.1 abc OK\r\n\r\n",
      "HTTP/1.1 099 X\r\nContent-Length: 0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nno colon\r\n\r\n",
      "HTTP/1.1 200 OK\r\nbad name : x\r\n\r\n",
      "HTTP/1.1 200 OK\nContent-Length: 0\n\n",
      std::string("\0\0\0\0\0\0\0\0\0\0", 10),
      "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03",
      "HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab",
      "HTTP/1.1 200 OK\r\nContent-Length: 1, 2\r\n\r\nab",
      "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Length: 2\r\n\r\n2\r\nab\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nab\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabc\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\nab\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n-2\r\nab\r\n0\r\n\r\n",
  };
  for (const std::string& answer : answers) {
    const Outcome got = GetRaw(answer);
    EXPECT_EQ(got.error.kind, HttpClient::kBadAnswer) << answer;
  }
}

TEST_F(HttpClientAnswerTest, RepeatedEqualLengthsAreNoContradiction) {
  const Outcome got = GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2\r\n\r\nab", false);
  EXPECT_TRUE(got.sent);
  EXPECT_EQ(got.response.body, "ab");
}

std::string HeadOf(std::size_t size, std::size_t line_size) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n";
  int number = 0;
  while (head.size() + line_size + 2 <= size) {
    std::string line = "X-" + std::to_string(number++) + ": ";
    line.append(line_size - line.size() - 2, 'v');
    head += line + "\r\n";
  }
  std::string last = "L: ";
  last.append(size - head.size() - 2 - 5, 'v');
  return head + last + "\r\n\r\n";
}

TEST_F(HttpClientAnswerTest, AHeadMayHave64KiB) {
  for (const std::size_t line_size : {std::size_t{32}, std::size_t{1000}, std::size_t{60000}}) {
    const std::string longest = HeadOf(64 * 1024, line_size);
    ASSERT_EQ(longest.size(), 64U * 1024);
    EXPECT_TRUE(GetRaw(longest).sent) << line_size;
    EXPECT_EQ(GetRaw(HeadOf(64 * 1024 + 1, line_size)).error.kind, HttpClient::kBadAnswer) << line_size;
    EXPECT_EQ(GetRaw(HeadOf(1024 * 1024, line_size)).error.kind, HttpClient::kBadAnswer) << line_size;
  }
}

// A head that arrives line by line is never whole in the buffer, and must be limited all the same.
TEST_F(HttpClientAnswerTest, AnEndlessHeadInSmallPiecesIsLimitedToo) {
  std::string head = "HTTP/1.1 200 OK\r\n";
  const std::string line = "X-Line: 0123456789012345678901234567890123456789\r\n";
  while (head.size() < 200 * 1024) {
    head += line;
  }
  const Outcome got = Get({.raw = head, .piece = line.size() * 20, .piece_delay_ms = 1});
  EXPECT_EQ(got.error.kind, HttpClient::kBadAnswer);
}

TEST_F(HttpClientAnswerTest, AnEndlessChunkLineIsLimited) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_EQ(GetRaw(head + "5;" + std::string(200 * 1024, 'x')).error.kind, HttpClient::kBadAnswer);
  EXPECT_EQ(GetRaw(head + "0\r\nX-Trailer: " + std::string(200 * 1024, 'x')).error.kind, HttpClient::kBadAnswer);
}

TEST_F(HttpClientAnswerTest, ABodyShorterThanDeclaredIsABadAnswer) {
  const Outcome got = GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello");
  EXPECT_EQ(got.error.kind, HttpClient::kBadAnswer);
  EXPECT_EQ(got.response.status, 200);
}

TEST_F(HttpClientAnswerTest, ALengthThatLiesCostsNoMemory) {
  const Outcome got = GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 4000000000\r\n\r\nhello");
  EXPECT_EQ(got.error.kind, HttpClient::kBadAnswer);
  EXPECT_LE(got.response.body.capacity(), 2U * 1024 * 1024);
}

TEST_F(HttpClientAnswerTest, ABodyBeyondTheLimitIsTooLarge) {
  max_body_bytes_ = 5;
  EXPECT_TRUE(GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello").sent);
  EXPECT_EQ(GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nhello!").error.kind, HttpClient::kTooLarge);
  EXPECT_TRUE(GetRaw("HTTP/1.0 200 OK\r\n\r\nhello").sent);
  EXPECT_EQ(GetRaw("HTTP/1.0 200 OK\r\n\r\nhello!").error.kind, HttpClient::kTooLarge);
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_TRUE(GetRaw(chunked + "3\r\nhel\r\n2\r\nlo\r\n0\r\n\r\n").sent);
  EXPECT_EQ(GetRaw(chunked + "3\r\nhel\r\n3\r\nlo!\r\n0\r\n\r\n").error.kind, HttpClient::kTooLarge);
}

TEST_F(HttpClientAnswerTest, TheLimitsOfALimit) {
  max_body_bytes_ = 0;
  EXPECT_TRUE(GetRaw("HTTP/1.0 200 OK\r\n\r\n").sent);
  EXPECT_EQ(GetRaw("HTTP/1.0 200 OK\r\n\r\nx").error.kind, HttpClient::kTooLarge);
  max_body_bytes_ = std::numeric_limits<std::uint64_t>::max();
  const std::string body(300000, 'x');
  EXPECT_EQ(GetRaw("HTTP/1.0 200 OK\r\n\r\n" + body).response.body, body);
  EXPECT_EQ(GetRaw("HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551615\r\n\r\n" + body).error.kind,
            HttpClient::kBadAnswer);
}

TEST_F(HttpClientAnswerTest, ClosingInsteadOfAnsweringIsAReceiveError) {
  EXPECT_EQ(Get({.cut_after = 0}).error.kind, HttpClient::kReceive);
}

// The answers that are cut below, and what cutting them at their very end gives.
struct CutCase {
  std::string name;
  std::string raw;
  std::string body;
  std::size_t head_size = 0;  // from here on a close is the end of the answer; 0 for never
};

class HttpClientCutAnswerTest : public HttpClientAnswerTest, public testing::WithParamInterface<CutCase> {};

TEST_P(HttpClientCutAnswerTest, IsNeverTakenForWhole) {
  const CutCase& cut_case = GetParam();
  for (std::size_t cut = 0; cut < cut_case.raw.size(); ++cut) {
    const Outcome got = Get({.raw = cut_case.raw, .cut_after = cut});
    if (cut_case.head_size > 0 && cut >= cut_case.head_size) {
      EXPECT_TRUE(got.sent);
      EXPECT_EQ(got.response.body, cut_case.body.substr(0, cut - cut_case.head_size));
    } else {
      EXPECT_EQ(got.error.kind, cut == 0 ? HttpClient::kReceive : HttpClient::kBadAnswer) << "cut after " << cut;
    }
  }
  EXPECT_EQ(Get({.raw = cut_case.raw, .cut_after = cut_case.raw.size()}).response.body, cut_case.body);
}

TEST_P(HttpClientCutAnswerTest, AResetIsAReceiveErrorOrABadAnswer) {
  const CutCase& cut_case = GetParam();
  for (std::size_t cut = 0; cut < cut_case.raw.size(); ++cut) {
    const Outcome got = Get({.raw = cut_case.raw, .cut_after = cut, .reset = true});
    EXPECT_EQ(got.error.kind, HttpClient::kReceive) << "cut after " << cut;
  }
}

TEST_P(HttpClientCutAnswerTest, MayArriveByteByByte) {
  const CutCase& cut_case = GetParam();
  const Outcome got = Get({.raw = cut_case.raw, .piece = 1, .piece_delay_ms = 1, .close = true});
  EXPECT_TRUE(got.sent) << HttpClient::ErrorText(got.error);
  EXPECT_EQ(got.response.body, cut_case.body);
}

TEST_P(HttpClientCutAnswerTest, MayArriveInTwoPiecesSplitAnywhere) {
  const CutCase& cut_case = GetParam();
  for (std::size_t split = 1; split < cut_case.raw.size(); ++split) {
    const Outcome got = Get({.raw = cut_case.raw, .piece = split, .piece_delay_ms = 1, .close = true});
    EXPECT_TRUE(got.sent) << HttpClient::ErrorText(got.error) << " split after " << split;
    EXPECT_EQ(got.response.body, cut_case.body);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Framings, HttpClientCutAnswerTest,
    testing::Values(CutCase{"Length", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-A: b\r\n\r\nhello", "hello"},
                    CutCase{"Chunks",
                            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                            "5\r\nhello\r\n1;a=b\r\n!\r\n0\r\nX-T: t\r\n\r\n",
                            "hello!"},
                    CutCase{"NoChunks", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", ""},
                    CutCase{"UntilClose", "HTTP/1.0 200 OK\r\nX-A: b\r\n\r\nhello", "hello", 27},
                    CutCase{"AfterInterim",
                            "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", "ok"}),
    [](const auto& named) { return named.param.name; });

}  // namespace
}  // namespace TansyNet
