// What answers look like.
#include "TansyNet/wire/ResponseHead.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::RawReply;
using Tansy::Tests::ServerFixture;
using TansyNet::BuildResponseHead;
using TansyNet::CHttpServer;
using TansyNet::HttpResponse;
using TansyNet::HttpServerRecv;
using TansyNet::Persistence;

HttpResponse Dated() {
  HttpResponse response;
  response.headers["Date"] = "d";
  return response;
}

TEST(HttpServerResponseHead, HasStatusLineAndHeadersInOrder) {
  HttpResponse response = Dated();
  response.status = 404;
  response.content_encoding = "gzip";
  response.location = "/other";
  response.headers["Object-Size"] = "5";
  EXPECT_EQ(BuildResponseHead(response, 12, Persistence::kDefault),
            "HTTP/1.1 404 Not Found\r\nContent-Type: application/xml; charset=\"UTF-8\"\r\nContent-Length: 12\r\n"
            "Content-Encoding: gzip\r\nLocation: /other\r\nCache-Control: no-cache\r\nDate: d\r\nObject-Size: 5\r\n"
            "\r\n");
}

TEST(HttpServerResponseHead, SaysHowTheConnectionGoesOn) {
  HttpResponse response = Dated();
  response.content_type = "";
  response.cache_control = "";
  const std::string begin = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nDate: d\r\n";
  EXPECT_EQ(BuildResponseHead(response, 0, Persistence::kDefault), begin + "\r\n");
  EXPECT_EQ(BuildResponseHead(response, 0, Persistence::kClose), begin + "Connection: close\r\n\r\n");
  EXPECT_EQ(BuildResponseHead(response, 0, Persistence::kKeepAlive), begin + "Connection: keep-alive\r\n\r\n");
}

TEST(HttpServerResponseHead, GetsTheStandardDateUnlessItHasOne) {
  const std::string head = BuildResponseHead({}, 0, Persistence::kDefault);
  EXPECT_TRUE(
      std::regex_search(head, std::regex("\r\nDate: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] [A-Z][a-z]{2} 20[0-9]{2} "
                                         "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] GMT\r\n")))
      << head;
  HttpResponse response;
  response.headers["date"] = "mine";
  const std::string own = BuildResponseHead(response, 0, Persistence::kDefault);
  EXPECT_NE(own.find("\r\ndate: mine\r\n"), std::string::npos);
  EXPECT_EQ(own.find("Date: "), std::string::npos);
}

TEST(HttpServerResponseHead, CannotBeSplitByValuesOrNames) {
  HttpResponse response = Dated();
  response.location = "/a\r\nSet-Cookie: x\r\n\r\nbody";
  response.content_type = std::string("t\0\n", 3);
  response.headers["X-A"] = "1\r\n2\n3\r4";
  response.headers["X B"] = "blank in the name";
  response.headers["X-C:\r\nX-D"] = "line end in the name";
  response.headers[""] = "no name";
  EXPECT_EQ(BuildResponseHead(response, 0, Persistence::kDefault),
            "HTTP/1.1 200 OK\r\nContent-Type: t\r\nContent-Length: 0\r\nLocation: /aSet-Cookie: xbody\r\n"
            "Cache-Control: no-cache\r\nDate: d\r\nX-A: 1234\r\n\r\n");
}

TEST(HttpServerResponseHead, LeavesTheFramingToTheLibrary) {
  HttpResponse response = Dated();
  response.headers["content-length"] = "99";
  response.headers["Transfer-Encoding"] = "chunked";
  response.headers["Connection"] = "keep-alive";
  response.headers["Keep-Alive"] = "timeout=5";
  EXPECT_EQ(BuildResponseHead(response, 3, Persistence::kDefault),
            "HTTP/1.1 200 OK\r\nContent-Type: application/xml; charset=\"UTF-8\"\r\nContent-Length: 3\r\n"
            "Cache-Control: no-cache\r\nDate: d\r\n\r\n");
}

TEST(HttpServerResponseHead, KnowsReasonsAndImpossibleStatuses) {
  EXPECT_EQ(TansyNet::ReasonOf(500), "Internal Server Error");
  EXPECT_EQ(TansyNet::ReasonOf(416), "Range Not Satisfiable");
  EXPECT_EQ(TansyNet::ReasonOf(777), "Unknown");
  for (const int status : {0, -1, 100, 101, 1000}) {
    HttpResponse response = Dated();
    response.status = status;
    EXPECT_EQ(BuildResponseHead(response, 0, Persistence::kDefault).substr(0, 36),
              "HTTP/1.1 500 Internal Server Error\r\n")
        << status;
  }
}

TEST(HttpServerResponseHead, OfAnswersWithoutBodyHasNoLength) {
  for (const int status : {204, 304}) {
    HttpResponse response = Dated();
    response.status = status;
    EXPECT_EQ(BuildResponseHead(response, 0, Persistence::kDefault).find("Content-Length"), std::string::npos);
    EXPECT_FALSE(TansyNet::StatusAllowsBody(status));
  }
}

class HttpServerAnswerForm : public ServerFixture {};

TEST_F(HttpServerAnswerForm, ToHeadHasTheLengthButNoBody) {
  Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "12345"); });
  CRawClient client(Port());
  client.Send("HEAD / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
  const RawReply head = client.ReadReply(true);
  EXPECT_EQ(head.Header("content-length"), "5");
  EXPECT_EQ(client.ReadReply().body, "12345");
}

TEST_F(HttpServerAnswerForm, WithoutBodyByItsStatusSendsNone) {
  Start([](std::int32_t handle, HttpServerRecv& message) {
    HttpResponse response;
    response.status = message.url == "/204" ? 204 : 304;
    CHttpServer::HttpServerSyncSend(handle, response, 5, "12345");
  });
  CRawClient client(Port());
  client.Send("GET /204 HTTP/1.1\r\n\r\nGET /304 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().status, 204);
  EXPECT_EQ(client.ReadReply().status, 304);
  EXPECT_TRUE(client.IsSilent(20));
}

TEST_F(HttpServerAnswerForm, ClosesWhenTheClientOrTheAnswerWantsIt) {
  Start([](std::int32_t handle, HttpServerRecv& message) {
    HttpResponse response;
    response.close_connection = message.url == "/close" ? 1 : 0;
    if (message.url == "/header") {
      response.headers["Connection"] = "close";
    }
    CHttpServer::HttpServerSyncSend(handle, response, 2, "ok");
  });
  for (const char* request :
       {"GET /close HTTP/1.1\r\n\r\n", "GET /header HTTP/1.1\r\n\r\n", "GET / HTTP/1.1\r\nConnection: close\r\n\r\n",
        "GET / HTTP/1.0\r\n\r\n", "GET /close HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"}) {
    CRawClient client(Port());
    client.Send(request);
    const RawReply reply = client.ReadReply();
    EXPECT_EQ(reply.body, "ok") << request;
    EXPECT_EQ(reply.Header("connection"), "close") << request;
    EXPECT_TRUE(client.WaitForEnd()) << request;
  }
}

TEST_F(HttpServerAnswerForm, KeepsOldClientsThatAskForIt) {
  Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "ok"); });
  CRawClient client(Port());
  for (int count = 0; count < 2; ++count) {
    client.Send("GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    const RawReply reply = client.ReadReply();
    EXPECT_EQ(reply.Header("connection"), "keep-alive");
    EXPECT_EQ(reply.body, "ok");
  }
}

}  // namespace
