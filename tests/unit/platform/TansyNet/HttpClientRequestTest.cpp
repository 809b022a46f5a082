// What a request looks like on the wire.
#include <gtest/gtest.h>

#include <string>

#include "TansyNet/HttpClient.h"
#include "fakes/Ipv6Loopback.h"
#include "fakes/ScriptedServer.h"

namespace TansyNet {
namespace {

using Tansy::Tests::ScriptedRequest;
using Tansy::Tests::ScriptedServer;

class HttpClientRequestTest : public testing::Test {
 protected:
  HttpClientRequestTest() { server_.Answer("GET /*", {.status = 200}); }
  ~HttpClientRequestTest() override { HttpClient::CloseIdleConnections(); }

  // Sends the request, whatever the answer, and returns what the server saw.
  ScriptedRequest Sent(const CHttpClientRequest& request) {
    CHttpClientResponse response;
    HttpClient::Error error;
    server_.ClearRequests();
    EXPECT_TRUE(HttpClient().Send(request, &response, &error)) << HttpClient::ErrorText(error);
    const auto requests = server_.Requests();
    return requests.size() == 1 ? requests.front() : ScriptedRequest();
  }

  HttpClient::Error Refusal(const CHttpClientRequest& request) {
    HttpClient::Error error;
    CHttpClientResponse response;
    EXPECT_FALSE(HttpClient().Send(request, &response, &error));
    EXPECT_EQ(server_.ConnectionCount(), 0);
    return error;
  }

  ScriptedServer server_;
};

TEST_F(HttpClientRequestTest, SendsNothingButWhatItMust) {
  CHttpClientRequest request;
  request.url = server_.Url("/b/k?range=1-2");
  EXPECT_EQ(Sent(request).head, "GET /b/k?range=1-2 HTTP/1.1\r\nHost: " + server_.Address() + "\r\n\r\n");
}

TEST_F(HttpClientRequestTest, SendsHeadersAsTheyAre) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  request.headers = {{"x-lower", "a"}, {"X-Upper", "b  c"}, {"Host", "elsewhere:1"}, {"Empty", ""}};
  EXPECT_EQ(Sent(request).head,
            "GET / HTTP/1.1\r\nEmpty: \r\nHost: elsewhere:1\r\nX-Upper: b  c\r\nx-lower: a\r\n\r\n");
}

TEST_F(HttpClientRequestTest, RecognisesAGivenHostInAnySpelling) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  request.headers = {{"host", "given"}};
  EXPECT_EQ(Sent(request).head, "GET / HTTP/1.1\r\nhost: given\r\n\r\n");
}

TEST_F(HttpClientRequestTest, LeavesTheHostOutWhenAsked) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  request.method = "DELETE";
  request.send_host = false;
  EXPECT_EQ(Sent(request).head, "DELETE / HTTP/1.1\r\n\r\n");
  request.headers = {{"Host", "given"}};
  EXPECT_EQ(Sent(request).head, "DELETE / HTTP/1.1\r\nHost: given\r\n\r\n");
}

TEST_F(HttpClientRequestTest, BracketsAnIpv6Host) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  ScriptedServer server({.address = "::1"});
  server.Answer("GET /", {.status = 200});
  CHttpClientRequest request;
  request.url = server.Url("/");
  CHttpClientResponse response;
  HttpClient::Error error;
  ASSERT_TRUE(HttpClient().Send(request, &response, &error)) << HttpClient::ErrorText(error);
  EXPECT_EQ(server.Requests().at(0).Header("Host"), "[::1]:" + std::to_string(server.Port()));
}

TEST_F(HttpClientRequestTest, SendsTheBodyWithItsTypeAndLength) {
  CHttpClientRequest request;
  const std::string body("bin\0ary\r\n", 9);
  request.url = server_.Url("/b/k");
  request.method = "PUT";
  request.content_type = "binary/octet-stream";
  request.headers = {{"Date", "now"}};
  request.body = body.data();
  request.body_size = body.size();
  const ScriptedRequest sent = Sent(request);
  EXPECT_EQ(sent.head, "PUT /b/k HTTP/1.1\r\nHost: " + server_.Address() +
                           "\r\nDate: now\r\nContent-Type: binary/octet-stream\r\nContent-Length: 9\r\n\r\n");
  EXPECT_EQ(sent.body, body);
}

TEST_F(HttpClientRequestTest, SaysThatAPutOrPostHasNoBody) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  for (const std::string method : {"PUT", "POST"}) {
    request.method = method;
    EXPECT_EQ(Sent(request).Header("Content-Length"), "0") << method;
  }
  for (const std::string method : {"GET", "DELETE", "OPTIONS"}) {
    request.method = method;
    EXPECT_FALSE(Sent(request).HasHeader("Content-Length")) << method;
  }
}

TEST_F(HttpClientRequestTest, SendsABodyWithAnyMethod) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  request.body = "x";
  request.body_size = 1;
  const ScriptedRequest sent = Sent(request);
  EXPECT_EQ(sent.Header("Content-Length"), "1");
  EXPECT_EQ(sent.body, "x");
}

TEST_F(HttpClientRequestTest, FramesTheBodyItself) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  request.method = "POST";
  request.headers = {{"content-length", "5"}, {"Transfer-Encoding", "chunked"}};
  request.body = "abc";
  request.body_size = 3;
  const ScriptedRequest sent = Sent(request);
  EXPECT_EQ(sent.Header("Content-Length"), "3");
  EXPECT_FALSE(sent.HasHeader("Transfer-Encoding"));
  EXPECT_EQ(sent.body, "abc");
}

TEST_F(HttpClientRequestTest, AGivenContentTypeHeaderIsNotRepeated) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  request.headers = {{"content-type", "text/plain"}};
  request.content_type = "application/xml";
  const ScriptedRequest sent = Sent(request);
  EXPECT_EQ(sent.headers.size(), 2U);
  EXPECT_EQ(sent.Header("Content-Type"), "text/plain");
}

TEST_F(HttpClientRequestTest, RefusesWhatWouldBreakOutOfItsLine) {
  CHttpClientRequest good;
  good.url = server_.Url("/");
  CHttpClientRequest request = good;
  request.headers = {{"X-Note", "a\r\nX-Forged: b"}};
  EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl);
  request.headers = {{"X-Note", "a\nb"}};
  EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl);
  request.headers = {{"X-Note", std::string("a\0b", 3)}};
  EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl);
  for (const std::string name : {"", "X Note", "X:Note", "X\r\nNote", "X\xC3\xB6"}) {
    request.headers = {{name, "a"}};
    EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl) << name;
  }
  request = good;
  for (const std::string method : {"", "GE T", "GET\r\n", "GET /x HTTP/1.1\r\n"}) {
    request.method = method;
    EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl) << method;
  }
  request = good;
  request.content_type = "text/plain\r\nX: y";
  EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl);
  request = good;
  request.url += "a b";
  EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl);
  request = good;
  request.body_size = 1;
  EXPECT_EQ(Refusal(request).kind, HttpClient::kBadUrl);
}

TEST_F(HttpClientRequestTest, AFailureNeverHasZeroAsItsNumber) {
  CHttpClientRequest request;
  request.url = "no address";
  const HttpClient::Error error = Refusal(request);
  EXPECT_NE(error.kind, 0);
  EXPECT_NE(error.detail, 0);
}

TEST_F(HttpClientRequestTest, AnswerAndErrorMayBeIgnored) {
  CHttpClientRequest request;
  request.url = server_.Url("/");
  EXPECT_TRUE(HttpClient().Send(request, nullptr, nullptr));
  request.url = "no address";
  EXPECT_FALSE(HttpClient().Send(request, nullptr, nullptr));
}

TEST_F(HttpClientRequestTest, ProxiesOfTheEnvironmentAreIgnored) {
  ASSERT_EQ(::setenv("http_proxy", "http://127.0.0.1:1/", 1), 0);
  ASSERT_EQ(::setenv("HTTP_PROXY", "http://127.0.0.1:1/", 1), 0);
  CHttpClientRequest request;
  request.url = server_.Url("/");
  EXPECT_EQ(Sent(request).target, "/");
  ::unsetenv("http_proxy");
  ::unsetenv("HTTP_PROXY");
}

}  // namespace
}  // namespace TansyNet
