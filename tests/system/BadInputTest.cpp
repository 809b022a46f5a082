// Requests that no proper client sends. After each of them, the next request must be served.
#include <thread>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AnyOf;

class BadInputTest : public TansydTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b");
    Put("/b/o", "0123456789");
  }
  void TearDown() override {
    EXPECT_TRUE(server_.IsRunning()) << server_.GetErrors();
    EXPECT_EQ(Get("/b/o"), "0123456789");
    EXPECT_TRUE(server_.Stop());
  }
  // Sends raw bytes and gives the status of the answer; 0 when the connection was closed without one, -1 when neither
  // came in time.
  int StatusOf(const std::string& bytes) {
    const auto connection = CConnection::Open(server_.GetObjectPort());
    if (connection == nullptr) {
      return -2;
    }
    connection->Send(bytes);
    const Reply reply = connection->Receive(seconds(30));
    if (reply.status != 0) {
      return reply.status;
    }
    return connection->IsClosedByServer(milliseconds(1)) ? 0 : -1;
  }
  // The test waits, because log lines are written a moment after the answer.
  void ExpectLogged(const std::string& words) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (server_.GetLog().find(words) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_THAT(server_.GetLog(), testing::HasSubstr(words));
  }
  std::string SignedBytes(const Request& request) { return Serialize(Signed(request), server_.GetObjectPort()); }
};

TEST_F(BadInputTest, WhatIsNoRequestGetsA4xxOrAClosedConnection) {
  const std::vector<std::string> rows = {
      "hello\r\n\r\n",
      "GET\r\n\r\n",
      "GET / HTTP/9.9\r\n\r\n",
      "GET / HTTP/1.1\r\nno colon here\r\n\r\n",
      "GET / HTTP/1.1\r\n: no name\r\n\r\n",
      "GET / HTTP/1.1\r\nHost: a\r\nContent-Length: -5\r\n\r\n",
      "GET / HTTP/1.1\r\nHost: a\r\nContent-Length: five\r\n\r\n",
      "PUT /b/x HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\nhello!",
      "PUT /b/x HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
      "PUT /b/x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n",
      "G\x01T / HTTP/1.1\r\n\r\n",
      std::string("GET /\0 HTTP/1.1\r\n\r\n", 19),
      "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + std::string(200, '\x11') + "\r\n\r\n",
      "\r\n\r\n\r\n\r\nGET",
      "GET / HTTP/1.1\r\nX: a\nb\rc\r\n\r\n",
  };
  for (const std::string& row : rows) {
    const auto connection = CConnection::Open(server_.GetObjectPort());
    ASSERT_NE(connection, nullptr);
    connection->Send(row);
    connection->FinishSending();
    const Reply reply = connection->Receive(seconds(30));
    EXPECT_TRUE(reply.status == 0 || reply.status / 100 == 4 || reply.status == 505) << row << " " << reply.status;
    EXPECT_TRUE(connection->IsClosedByServer(seconds(30))) << row;
  }
  ExpectLogged("request refused, status = 400, handle = 0, ip = 127.0.0.1");
}

TEST_F(BadInputTest, HeadersThatAreTooLargeAreRefused) {
  EXPECT_THAT(StatusOf("GET / HTTP/1.1\r\nHost: a\r\nX-Big: " + std::string(200000, 'x') + "\r\n\r\n"),
              AnyOf(431, 400));
  EXPECT_THAT(StatusOf("GET /" + std::string(200000, 'x') + " HTTP/1.1\r\nHost: a\r\n\r\n"), AnyOf(414, 431, 400));
  std::string many = "GET / HTTP/1.1\r\nHost: a\r\n";
  for (int i = 0; i < 20000; ++i) {
    many += "X-" + std::to_string(i) + ": y\r\n";
  }
  EXPECT_THAT(StatusOf(many + "\r\n"), AnyOf(431, 400));
  ExpectLogged("request refused, status = 431");
}

TEST_F(BadInputTest, DeclaredLengthsBeyond32BitsAreRefusedBeforeTheBody) {
  for (const char* length : {"4294967296", "99999999999", "18446744073709551616", "99999999999999999999999999"}) {
    EXPECT_THAT(StatusOf(std::string("PUT /b/x HTTP/1.1\r\nHost: a\r\nContent-Length: ") + length + "\r\n\r\n"),
                AnyOf(413, 400))
        << length;
  }
  EXPECT_EQ(StatusOf("PUT /b/x HTTP/1.1\r\nHost: a\r\nContent-Length: 4294967296\r\n\r\n"), 413);
  ExpectLogged("request refused, status = 413");
}

TEST_F(BadInputTest, BodiesShorterThanDeclaredStoreNothing) {
  for (const char* length : {"100", "20000000"}) {
    const auto connection = CConnection::Open(server_.GetObjectPort());
    ASSERT_NE(connection, nullptr);
    connection->Send(SignedBytes({"PUT", "/b/short", {{"Content-Length", length}}, ""}) + "only this");
    connection->FinishSending();
    EXPECT_EQ(connection->Receive(seconds(30)).status, 0);
    EXPECT_TRUE(connection->IsClosedByServer(seconds(30)));
  }
  EXPECT_EQ(Outcome(Send("GET", "/b/short")), "404 NoSuchKey");
  ExpectLogged("request broken off, handle = 0, ip = 127.0.0.1, url = /b/short");
}

TEST_F(BadInputTest, WholeBodiesHaveACap) {
  EXPECT_EQ(StatusOf("POST /b/x?uploads HTTP/1.1\r\nHost: a\r\nContent-Length: 67108865\r\n\r\n"), 413);
}

TEST_F(BadInputTest, WrongMethodsAndRoutes) {
  for (const char* method : {"OPTIONS", "TRACE", "PATCH", "PROPFIND", "BREW", "get"}) {
    EXPECT_THAT(StatusOf(SignedBytes({method, "/b/o", {}, ""})), AnyOf(400, 405, 501)) << method;
  }
  for (const char* target : {"//", "/b//o", "/b/o/", "/b/../o", "/b", "/b?bestnode", "/b?%"}) {
    EXPECT_EQ(Outcome(Send("GET", target)), "400 URLNotSupport") << target;
  }
  ExpectLogged("<Code>URLNotSupport</Code>");
}

TEST_F(BadInputTest, EscapesThatAreNone) {
  // A path is never decoded: these are keys and buckets like any other, and nobody has made them.
  for (const char* target : {"/b/%", "/b/%4", "/b/%zz", "/b/%00", "/b/%2F", "/b/o%", "/b/%%%"}) {
    EXPECT_EQ(Outcome(Send("GET", target)), "404 NoSuchKey") << target;
  }
  EXPECT_EQ(Outcome(Send("GET", "/%zz/o")), "404 NoSuchBucket");
  ExpectLogged("bucket name not exist[%zz]");
  for (const char* target :
       {"/b/o?%", "/b/o?%zz=%", "/b/o?=&=&&&", "/b/o?a=%00", "/b/o?%4", "/b/o?a=%&b=%1", "/b/o?%FF=%fe"}) {
    EXPECT_EQ(Get(target), "0123456789") << target;
  }
  EXPECT_EQ(Outcome(Send("POST", "/b/o?upload_id=%zz&part_number=%", "x")), "400 InvalidHttpContent");
}

TEST_F(BadInputTest, AuthorizationValuesOfEveryBrokenShape) {
  for (const char* value : {"", " ", ":", "quorvane", "quorvane ", "quorvane :", "quorvanesystem-test-access:x",
                            "quorvane system-test-access", "quorvane system-test-access:", ": quorvane x", "basic x:y",
                            "quorvane system-test-access:AAAA", "x quorvane y:z"}) {
    EXPECT_EQ(Outcome(SendPlain("GET", "/b/o", "", {{"Authorization", value}})), "403 AccessDenied") << value;
  }
  for (const char* token : {"", "%", "AAAA", "%00", "Og==", "cXVvcnZhbmUgOg=="}) {
    EXPECT_EQ(Outcome(SendPlain("GET", std::string("/b/o?a=1&token=") + token)), "403 AccessDenied") << token;
  }
}

TEST_F(BadInputTest, XmlThatIsNoneOrNeverEnds) {
  const std::string depth(1000000, '\0');
  std::string nested;
  for (int i = 0; i < 1000000; ++i) {
    nested += "<a>";
  }
  const std::vector<std::string> bodies = {
      "<",
      "<CreateBucketConfiguration>",
      "<CreateBucketConfiguration/><second/>",
      nested,
      std::string("\0\0\0", 3),
      "<!DOCTYPE x [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;&a;\">]><CreateBucketConfiguration>&b;</"
      "CreateBucketConfiguration>",
      "<!DOCTYPE x [<!ENTITY a SYSTEM \"file:///etc/passwd\">]><CreateBucketConfiguration><LocationConstraint>&a;"
      "</LocationConstraint></CreateBucketConfiguration>",
  };
  int number = 0;
  for (const std::string& body : bodies) {
    const std::string bucket = "/x" + std::to_string(number++);
    const Reply reply = Send("PUT", bucket, body);
    EXPECT_THAT(Outcome(reply), AnyOf("400 InvalidXmlContent", "200")) << body.substr(0, 80);
    EXPECT_EQ(Get("/").find("root:"), std::string::npos);
  }
  EXPECT_EQ(Outcome(Send("PUT", "/deep", nested)), "400 InvalidXmlContent");
  EXPECT_EQ(Outcome(Send("PUT", "/entity", bodies[5])), "400 InvalidXmlContent");
}

TEST_F(BadInputTest, AClientThatGoesAwayInTheMiddle) {
  for (int i = 0; i < 20; ++i) {
    const auto upload = CConnection::Open(server_.GetObjectPort());
    ASSERT_NE(upload, nullptr);
    const std::string bytes = SignedBytes({"PUT", "/b/gone", {}, std::string(100000, 'x')});
    upload->Send(std::string_view(bytes).substr(0, bytes.size() * static_cast<std::size_t>(i) / 20));
    upload->Reset();
    const auto download = CConnection::Open(server_.GetObjectPort());
    ASSERT_NE(download, nullptr);
    download->Send(SignedBytes({"GET", "/b/o", {}, ""}));
    download->Reset();
  }
  EXPECT_EQ(Outcome(Send("GET", "/b/gone")), "404 NoSuchKey");
}

TEST_F(BadInputTest, AHeaderThatNeverEndsIsClosedInTimeAndHoldsUpNobody) {
  std::vector<std::unique_ptr<CConnection>> connections;
  for (int i = 0; i < 20; ++i) {
    connections.push_back(CConnection::Open(server_.GetObjectPort()));
    ASSERT_NE(connections.back(), nullptr);
    connections.back()->Send("GET / HTTP/1.1\r\nHost: a\r\n");
  }
  EXPECT_EQ(Get("/b/o"), "0123456789");
  for (const auto& connection : connections) {
    const Reply reply = connection->Receive(seconds(40));
    EXPECT_THAT(reply.status, AnyOf(0, 408));
    EXPECT_TRUE(connection->IsClosedByServer(seconds(5)));
  }
}

TEST_F(BadInputTest, RequestsInARowOnOneConnectionAreAnsweredInTheirOrder) {
  const auto connection = CConnection::Open(server_.GetObjectPort());
  ASSERT_NE(connection, nullptr);
  std::string bytes;
  for (int i = 0; i < 10; ++i) {
    bytes += SignedBytes({"GET", "/b/o", {{"Range", "bytes=" + std::to_string(i) + "-" + std::to_string(i + 1)}}, ""});
  }
  ASSERT_TRUE(connection->Send(bytes));
  for (int i = 0; i < 10 && i < 9; ++i) {
    EXPECT_EQ(connection->Receive().body, std::to_string(i));
  }
}

TEST_F(BadInputTest, OldAndHostlessRequestsAreServed) {
  Request request = Signed({"GET", "/b/o", {}, ""});
  std::string bytes = "GET /b/o HTTP/1.0\r\n";
  for (const auto& [name, value] : request.headers) {
    bytes += name + ": " + value + "\r\n";
  }
  EXPECT_EQ(StatusOf(bytes + "\r\n"), 200);
  bytes.replace(bytes.find("1.0"), 3, "1.1");
  EXPECT_EQ(StatusOf(bytes + "\r\n"), 200);
}

TEST_F(BadInputTest, HeaderNamesInAnySpelling) {
  Request request = Signed({"GET", "/b/o", {{"Range", "bytes=1-3"}}, ""});
  for (auto& [name, value] : request.headers) {
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return static_cast<char>(std::tolower(c)); });
  }
  EXPECT_EQ(Call(server_.GetObjectPort(), request).body, "12");
}

TEST_F(BadInputTest, LogLinesCannotBeForged) {
  Send("GET", "/none%0a2026-01-01 error forged/o");
  SendPlain("GET", "/b/o", "", {{"Authorization", "quorvane \x1b[31mred\x7f:x"}});
  server_.Stop();
  EXPECT_EQ(server_.GetLog().find('\x1b'), std::string::npos);
  EXPECT_EQ(server_.GetLog().find('\x7f'), std::string::npos);
  ASSERT_TRUE(server_.Start());
}

TEST_F(BadInputTest, RandomBytesByTheThousand) {
  for (std::uint64_t seed = 1; seed <= 300; ++seed) {
    const auto connection = CConnection::Open(server_.GetObjectPort());
    ASSERT_NE(connection, nullptr) << "seed " << seed;
    std::string bytes = SignedBytes({"PUT", "/b/random", {}, std::string(50, 'x')});
    const std::string noise = RandomBytes(16, seed);
    for (std::size_t i = 0; i + 3 < noise.size(); i += 4) {
      const std::size_t position =
          (static_cast<unsigned char>(noise[i]) * 256U + static_cast<unsigned char>(noise[i + 1]));
      bytes[position % bytes.size()] = noise[i + 2];
    }
    connection->Send(bytes);
    connection->FinishSending();
    connection->Receive(seconds(30));
  }
}

}  // namespace
}  // namespace system_tests
