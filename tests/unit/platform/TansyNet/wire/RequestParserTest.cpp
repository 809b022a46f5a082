#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "TansyNet/wire/RequestParser.h"

namespace {

using TansyNet::BodyFraming;
using TansyNet::CRequestParser;
using TansyNet::RequestHead;
using Progress = TansyNet::CRequestParser::Progress;

constexpr std::uint32_t kHeaderBytes = 4096;

// Feeds `text` in two pieces, the way a connection does: what is not taken comes again with what follows.
Progress Feed(CRequestParser& parser, std::string_view text, std::size_t split, std::string& rest) {
  std::string pending(text.substr(0, split));
  std::string_view input = pending;
  Progress progress = parser.ParseHead(input);
  rest = std::string(input);
  if (progress == Progress::kNeedMore) {
    rest += text.substr(split);
    input = rest;
    progress = parser.ParseHead(input);
    rest = std::string(input);
  } else {
    rest += text.substr(split);
  }
  return progress;
}

RequestHead Parse(std::string_view text) {
  CRequestParser parser(kHeaderBytes);
  std::string rest;
  EXPECT_EQ(Feed(parser, text, text.size(), rest), Progress::kDone) << text;
  return parser.Head();
}

int FailureOf(std::string_view text) {
  CRequestParser parser(kHeaderBytes);
  std::string_view input = text;
  return parser.ParseHead(input) == Progress::kFailed ? parser.FailureStatus() : 0;
}

// A signature of the S3 protocol covers what all of them say.
TEST(HttpServerParser, JoinsFieldsOfTheS3ProtocolInTheirOrder) {
  const RequestHead head = Parse(
      "GET / HTTP/1.1\r\nHost: h\r\nx-amz-meta-a: 2 \r\nX-Amz-Meta-A:1\r\nx-amz-meta-a: 3\r\n"
      "x-other: 1\r\nx-other: 2\r\nx-am: 1\r\nx-am: 2\r\n\r\n");
  EXPECT_EQ(head.headers.at("x-amz-meta-a"), "2,1,3");
  EXPECT_EQ(head.headers.count("X-Amz-Meta-A"), 0U);
  EXPECT_EQ(head.headers.at("x-other"), "1");
  EXPECT_EQ(head.headers.at("x-am"), "1");
}

TEST(HttpServerParser, TakesTheRequestLineApart) {
  const RequestHead head = Parse("GET /b/k%20x?a=1&b=%2F?c HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(head.method, "GET");
  EXPECT_EQ(head.path, "/b/k%20x");
  EXPECT_EQ(head.query, "a=1&b=%2F?c");
  EXPECT_TRUE(head.http11);
  EXPECT_TRUE(head.keep_alive);
  EXPECT_EQ(head.framing, BodyFraming::kNone);
}

TEST(HttpServerParser, TakesPathAndQueryOfAbsoluteTargets) {
  EXPECT_EQ(Parse("GET http://h:80/a/b?q HTTP/1.1\r\n\r\n").path, "/a/b");
  EXPECT_EQ(Parse("GET http://h:80/a/b?q HTTP/1.1\r\n\r\n").query, "q");
  EXPECT_EQ(Parse("GET http://h HTTP/1.1\r\n\r\n").path, "/");
  EXPECT_EQ(Parse("GET http://h?q HTTP/1.1\r\n\r\n").path, "/");
  EXPECT_EQ(Parse("GET http://h?q HTTP/1.1\r\n\r\n").query, "q");
  EXPECT_EQ(Parse("GET /a?u=http://x/y HTTP/1.1\r\n\r\n").query, "u=http://x/y");
  EXPECT_EQ(Parse("GET a?u=http://x/y HTTP/1.1\r\n\r\n").path, "a");
}

TEST(HttpServerParser, KeepsOtherTargetsAndMethodsAsSent) {
  EXPECT_EQ(Parse("OPTIONS * HTTP/1.1\r\n\r\n").path, "*");
  EXPECT_EQ(Parse("CONNECT h:1 HTTP/1.1\r\n\r\n").path, "h:1");
  EXPECT_EQ(Parse("BREW /pot HTTP/1.1\r\n\r\n").method, "BREW");
  EXPECT_EQ(Parse("GET //a//b HTTP/1.1\r\n\r\n").path, "//a//b");
  EXPECT_EQ(Parse("GET /\xe4\xb8\xad HTTP/1.1\r\n\r\n").path, "/\xe4\xb8\xad");
}

TEST(HttpServerParser, KeepsTheFirstOfTwoEqualNames) {
  const RequestHead head = Parse(
      "GET / HTTP/1.1\r\nDate: 1\r\ndate: 2\r\nx-Other: a\r\nX-Other: b\r\nContent-Md5: m\r\nempty:\r\n"
      "blanks: \t v w \t\r\n\r\n");
  EXPECT_EQ(
      head.headers,
      (TansyNet::Headers{
          {"Date", "1"}, {"x-Other", "a"}, {"X-Other", "b"}, {"Content-Md5", "m"}, {"empty", ""}, {"blanks", "v w"}}));
}

TEST(HttpServerParser, KnowsWhetherTheConnectionGoesOn) {
  EXPECT_FALSE(Parse("GET / HTTP/1.1\r\nConnection: close\r\n\r\n").keep_alive);
  EXPECT_FALSE(Parse("GET / HTTP/1.0\r\n\r\n").keep_alive);
  EXPECT_TRUE(Parse("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n").keep_alive);
  EXPECT_FALSE(Parse("GET / HTTP/1.0\r\n\r\n").http11);
}

TEST(HttpServerParser, KnowsHowTheBodyIsDelimited) {
  const RequestHead length = Parse("PUT / HTTP/1.1\r\nContent-Length: 4294967295\r\n\r\n");
  EXPECT_EQ(length.framing, BodyFraming::kLength);
  EXPECT_EQ(length.content_length, 4294967295U);
  EXPECT_EQ(Parse("PUT / HTTP/1.1\r\ntransfer-encoding: CHUNKED\r\n\r\n").framing, BodyFraming::kChunked);
  EXPECT_TRUE(Parse("PUT / HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 1\r\n\r\n").expects_continue);
  EXPECT_FALSE(Parse("PUT / HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 1\r\n\r\n").expects_continue);
}

TEST(HttpServerParser, SkipsEmptyLinesBeforeARequest) {
  EXPECT_EQ(Parse("\r\n\r\nGET /a HTTP/1.1\r\n\r\n").path, "/a");
}

struct BadHead {
  const char* text;
  int status;
};

// The test's name: the text in characters that every tool can show.
void PrintTo(const BadHead& bad, std::ostream* out) {
  for (const char c : std::string_view(bad.text)) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    switch (c) {
      case '\r':
        *out << "-R";
        break;
      case '\n':
        *out << "-N";
        break;
      case '\t':
        *out << "-T";
        break;
      default:
        *out << (plain ? c : '_');
    }
  }
}

class HttpServerParserBadHead : public testing::TestWithParam<BadHead> {};

TEST_P(HttpServerParserBadHead, IsRefusedWithItsStatus) {
  EXPECT_EQ(FailureOf(GetParam().text), GetParam().status);
}

TEST_P(HttpServerParserBadHead, IsRefusedHoweverItIsSplit) {
  const std::string_view text = GetParam().text;
  for (std::size_t split = 0; split <= text.size(); ++split) {
    CRequestParser parser(kHeaderBytes);
    std::string rest;
    EXPECT_EQ(Feed(parser, text, split, rest), Progress::kFailed) << split;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Requests, HttpServerParserBadHead,
    testing::Values(BadHead{"GET\r\n\r\n", 400}, BadHead{" GET / HTTP/1.1\r\n\r\n", 400}, BadHead{"GET /\r\n\r\n", 400},
                    BadHead{"GET  / HTTP/1.1\r\n\r\n", 400}, BadHead{"GET / a HTTP/1.1\r\n\r\n", 400},
                    BadHead{"G\tT / HTTP/1.1\r\n\r\n", 400}, BadHead{"GET /\x01 HTTP/1.1\r\n\r\n", 400},
                    BadHead{"GET / HTTP/1.1 \r\n\r\n", 400}, BadHead{"GET / HTTP/1.1\n\r\n\r\n", 400},
                    BadHead{"GET / HTTX/1.1\r\n\r\n", 400}, BadHead{"GET / HTTP/11\r\n\r\n", 400},
                    BadHead{"GET / HTTP/2.0\r\n\r\n", 505}, BadHead{"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505},
                    BadHead{"GET / HTTP/0.9\r\n\r\n", 505}, BadHead{"GET / HTTP/1.1\r\nno colon\r\n\r\n", 400},
                    BadHead{"GET / HTTP/1.1\r\n: v\r\n\r\n", 400}, BadHead{"GET / HTTP/1.1\r\nName : v\r\n\r\n", 400},
                    BadHead{"GET / HTTP/1.1\r\n lead: v\r\n\r\n", 400},
                    BadHead{"GET / HTTP/1.1\r\nA: b\nC: d\r\n\r\n", 400},
                    BadHead{"GET / HTTP/1.1\r\nA: b\rC: d\r\n\r\n", 400},
                    BadHead{"GET / HTTP/1.1\r\nA: \x02\r\n\r\n", 400}));

INSTANTIATE_TEST_SUITE_P(
    Framing, HttpServerParserBadHead,
    testing::Values(BadHead{"PUT / HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 5, 5\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: +5\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 0x5\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 5 5\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length:\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 4294967296\r\n\r\n", 413},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 18446744073709551616\r\n\r\n", 413},
                    BadHead{"PUT / HTTP/1.1\r\ncontent-length:\t99999999999999999999999999 \r\n\r\n", 413},
                    BadHead{"PUT / HTTP/1.1\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 501},
                    BadHead{"PUT / HTTP/1.1\r\nTransfer-Encoding: identity\r\n\r\n", 501},
                    BadHead{"PUT / HTTP/1.1\r\nTransfer-Encoding: chunked, gzip\r\n\r\n", 501},
                    BadHead{"PUT / HTTP/1.1\r\nTransfer-Encoding: x\r\nContent-Length: 5\r\n\r\n", 501},
                    BadHead{"PUT / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
                    BadHead{"PUT / HTTP/1.1\r\nExpect: 200-ok\r\nContent-Length: 5\r\n\r\n", 417}));

TEST(HttpServerParser, ReadsAHeadHoweverItIsSplit) {
  const std::string text = "\r\nPUT /a?b HTTP/1.1\r\nContent-Length: 3\r\nX: y\r\n\r\nabcGET";
  for (std::size_t split = 0; split <= text.size(); ++split) {
    CRequestParser parser(kHeaderBytes);
    std::string rest;
    ASSERT_EQ(Feed(parser, text, split, rest), Progress::kDone) << split;
    EXPECT_EQ(rest, "abcGET") << split;
    EXPECT_EQ(parser.Head().path, "/a") << split;
    EXPECT_EQ(parser.Head().headers.at("X"), "y") << split;
  }
}

TEST(HttpServerParser, ReadsAHeadThatComesByteByByte) {
  const std::string text = "PUT /a?b HTTP/1.1\r\nContent-Length: 3\r\nX: y\r\n\r\n";
  CRequestParser parser(kHeaderBytes);
  std::string pending;
  for (std::size_t index = 0; index < text.size(); ++index) {
    pending += text[index];
    std::string_view input = pending;
    const Progress progress = parser.ParseHead(input);
    EXPECT_EQ(progress, index + 1 == text.size() ? Progress::kDone : Progress::kNeedMore) << index;
    pending = std::string(input);
  }
  EXPECT_EQ(parser.Head().content_length, 3U);
}

TEST(HttpServerParser, LimitsTheHeadAsAWhole) {
  const std::string line = "GET / HTTP/1.1\r\n";
  const std::string end = "\r\n\r\n";
  const std::string fits = line + "a:" + std::string(kHeaderBytes - line.size() - 2 - end.size(), 'x') + end;
  ASSERT_EQ(fits.size(), kHeaderBytes);
  EXPECT_EQ(FailureOf(fits), 0);
  const std::string larger = line + "a:" + std::string(kHeaderBytes - line.size() - 1 - end.size(), 'x') + end;
  EXPECT_EQ(FailureOf(larger), 431);
  EXPECT_EQ(FailureOf(line + "a:" + std::string(kHeaderBytes, 'x')), 431);
  EXPECT_EQ(FailureOf("GET /" + std::string(kHeaderBytes, 'x')), 431);
}

TEST(HttpServerParser, LimitsAHeadThatComesLineByLine) {
  CRequestParser parser(kHeaderBytes);
  std::string pending = "GET / HTTP/1.1\r\n";
  std::size_t sent = pending.size();
  Progress progress = Progress::kNeedMore;
  while (progress == Progress::kNeedMore && sent < 10 * kHeaderBytes) {
    std::string_view input = pending;
    progress = parser.ParseHead(input);
    pending = std::string(input) + "name-of-a-header: value of a header\r\n";
    sent += 37;
  }
  EXPECT_EQ(progress, Progress::kFailed);
  EXPECT_EQ(parser.FailureStatus(), 431);
  EXPECT_LT(sent, kHeaderBytes + 200);
}

TEST(HttpServerParser, LimitsEmptyLinesBeforeARequest) {
  std::string text;
  while (text.size() <= kHeaderBytes) {
    text += "\r\n";
  }
  EXPECT_EQ(FailureOf(text), 431);
}

TEST(HttpServerParser, IsFreshAfterReset) {
  CRequestParser parser(kHeaderBytes);
  std::string_view input = "PUT /a HTTP/1.1\r\nContent-Length: 3\r\n\r\n";
  ASSERT_EQ(parser.ParseHead(input), Progress::kDone);
  parser.Reset();
  input = "GET /b HTTP/1.1\r\n\r\n";
  ASSERT_EQ(parser.ParseHead(input), Progress::kDone);
  EXPECT_EQ(parser.Head().path, "/b");
  EXPECT_EQ(parser.Head().framing, BodyFraming::kNone);
  EXPECT_TRUE(parser.Head().headers.empty());
}

class HttpServerParserChunks : public testing::Test {
 protected:
  HttpServerParserChunks() {
    std::string_view head = "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(parser_.ParseHead(head), Progress::kDone);
  }

  Progress Feed(std::string_view text) { return parser_.ParseChunks(text, body_, limit_); }

  CRequestParser parser_{kHeaderBytes};
  std::string body_;
  std::uint64_t limit_ = 1000;
};

TEST_F(HttpServerParserChunks, AreJoinedHoweverTheyAreSplit) {
  const std::string text = "3;ext=\"v\"\r\nabc\r\n0A\r\n0123456789\r\n0\r\nAuthorization: x\r\n\r\nGET";
  for (std::size_t split = 0; split <= text.size(); ++split) {
    CRequestParser fresh(kHeaderBytes);
    std::string_view head = "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    ASSERT_EQ(fresh.ParseHead(head), Progress::kDone);
    std::string body;
    std::string rest(text.substr(0, split));
    std::string_view input = rest;
    Progress progress = fresh.ParseChunks(input, body, limit_);
    rest = std::string(input) + text.substr(split);
    input = rest;
    if (progress == Progress::kNeedMore) {
      progress = fresh.ParseChunks(input, body, limit_);
    }
    ASSERT_EQ(progress, Progress::kDone) << split;
    EXPECT_EQ(body, "abc0123456789") << split;
    EXPECT_EQ(input, "GET") << split;
    EXPECT_EQ(fresh.Head().headers.count("Authorization"), 0U) << "a trailer is no header";
  }
}

TEST_F(HttpServerParserChunks, MayBeNone) {
  EXPECT_EQ(Feed("0\r\n\r\n"), Progress::kDone);
  EXPECT_EQ(body_, "");
}

TEST_F(HttpServerParserChunks, MayBeNoneByteByByte) {
  std::string pending;
  Progress progress = Progress::kNeedMore;
  for (const char byte : std::string("0\r\n\r\n")) {
    EXPECT_EQ(progress, Progress::kNeedMore);
    pending += byte;
    std::string_view input = pending;
    progress = parser_.ParseChunks(input, body_, limit_);
    pending = std::string(input);
  }
  EXPECT_EQ(progress, Progress::kDone);
  EXPECT_EQ(body_, "");
}

TEST_F(HttpServerParserChunks, ObeyTheLimitBeforeTheyCome) {
  limit_ = 5;
  EXPECT_EQ(Feed("3\r\nabc\r\n3\r\n"), Progress::kFailed);
  EXPECT_EQ(parser_.FailureStatus(), 413);
}

TEST_F(HttpServerParserChunks, MayFillTheLimit) {
  limit_ = 6;
  EXPECT_EQ(Feed("3\r\nabc\r\n3\r\nabc\r\n0\r\n\r\n"), Progress::kDone);
}

TEST_F(HttpServerParserChunks, AreRefusedWhenMalformed) {
  for (const std::string_view text :
       {"x\r\n", "\r\n", "-1\r\n", "3\r\nabcd\r\n0\r\n\r\n", "3\r\nabcX\r\n0\r\n\r\n", "fffffffffffffffff\r\n",
        "3 x\r\nabc\r\n", "0\r\nbad trailer\r\n\r\n", "3\nabc\r\n"}) {
    CRequestParser fresh(kHeaderBytes);
    std::string_view head = "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    ASSERT_EQ(fresh.ParseHead(head), Progress::kDone);
    std::string body;
    std::string_view input = text;
    EXPECT_EQ(fresh.ParseChunks(input, body, limit_), Progress::kFailed) << text;
    EXPECT_EQ(fresh.FailureStatus(), 400) << text;
  }
}

TEST_F(HttpServerParserChunks, HaveLimitedExtensionsAndTrailers) {
  EXPECT_EQ(Feed("1;" + std::string(2 * kHeaderBytes, 'e')), Progress::kFailed);
  EXPECT_EQ(parser_.FailureStatus(), 431);
}

std::string WithFields(int count) {
  std::string text = "GET / HTTP/1.1\r\n";
  for (int i = 0; i < count; ++i) {
    text += "f" + std::to_string(i) + ":\r\n";
  }
  return text + "\r\n";
}

TEST(HttpServerParser, AHundredFieldsAreTheLimit) {
  EXPECT_EQ(Parse(WithFields(100)).headers.size(), 100U);
  EXPECT_EQ(FailureOf(WithFields(101)), 431);
}

TEST(HttpServerParser, TheSameFieldAgainCountsToo) {
  std::string text = "GET / HTTP/1.1\r\n";
  for (int i = 0; i < 101; ++i) {
    text += "a: b\r\n";
  }
  EXPECT_EQ(FailureOf(text + "\r\n"), 431);
}

TEST(HttpServerParser, TwoHostsAreRefused) {
  EXPECT_EQ(FailureOf("GET / HTTP/1.1\r\nHost: a\r\nhost: a\r\n\r\n"), 400);
  EXPECT_EQ(FailureOf("GET / HTTP/1.1\r\nHost: a\r\nX-Host: b\r\n\r\n"), 0);
}

TEST(HttpServerParser, AFoldedLineIsRefusedHoweverItComes) {
  for (const std::string fold : {"\r\n b", "\r\n\tb"}) {
    const std::string text = "GET / HTTP/1.1\r\nHost: h\r\na: a" + fold + "\r\nc: d\r\n\r\n";
    EXPECT_EQ(FailureOf(text), 400);
    for (std::size_t split = 1; split < text.size(); ++split) {
      CRequestParser parser(kHeaderBytes);
      std::string rest;
      EXPECT_EQ(Feed(parser, text, split, rest), Progress::kFailed) << split;
      EXPECT_EQ(parser.FailureStatus(), 400) << split;
    }
  }
}

TEST(HttpServerParser, ABodyMayLookLikeAFoldedLine) {
  CRequestParser parser(kHeaderBytes);
  std::string rest;
  EXPECT_EQ(Feed(parser, "PUT / HTTP/1.1\r\nContent-Length: 4\r\n\r\n \r\n ", 5, rest), Progress::kDone);
  EXPECT_EQ(rest, " \r\n ");
}

}  // namespace
