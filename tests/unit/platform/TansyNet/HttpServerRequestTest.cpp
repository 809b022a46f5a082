// What clients send, and what the callback gets.
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/Ipv6Loopback.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::RawReply;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

class HttpServerRequest : public ServerFixture {
 protected:
  // Answers each request with what was understood of it.
  static void Echo(std::int32_t handle, HttpServerRecv& message) {
    std::string text = message.method + " " + message.url + " [" + message.query + "] ";
    text += std::to_string(message.content_length) + ":" + std::to_string(message.body_size) + " ";
    text += message.body == nullptr ? "-" : *message.body;
    AnswerText(handle, text);
  }

  std::string Exchange(std::string_view request) {
    CRawClient client(Port());
    client.Send(request);
    return client.ReadReply().body;
  }

  int StatusOf(std::string_view request) {
    CRawClient client(Port());
    client.Send(request);
    const int status = client.ReadReply().status;
    EXPECT_TRUE(client.WaitForEnd()) << request.substr(0, 100);
    return status;
  }
};

TEST_F(HttpServerRequest, IsDeliveredAsItCame) {
  Start();
  CRawClient client(Port());
  client.Send("POST /b/k%41?uploads&x=%20 HTTP/1.1\r\nhost: h:1\r\nx-Mine: v\r\nContent-Length: 3\r\n\r\nabc");
  const Delivery delivery = Take();
  const HttpServerRecv& message = delivery.message;
  EXPECT_GT(delivery.handle, 0);
  EXPECT_EQ(message.error_code, TansyNet::kWholeRequest);
  EXPECT_EQ(message.method, "POST");
  EXPECT_EQ(message.url, "/b/k%41");
  EXPECT_EQ(message.query, "uploads&x=%20");
  EXPECT_EQ(message.ip, "127.0.0.1");
  EXPECT_EQ(message.headers, (TansyNet::Headers{{"Host", "h:1"}, {"Content-Length", "3"}, {"x-Mine", "v"}}));
  EXPECT_EQ(delivery.Body(), "abc");
  EXPECT_EQ(message.body_size, 3U);
  EXPECT_EQ(message.content_length, 3U);
  EXPECT_EQ(message.token, nullptr);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 1U);
  EXPECT_EQ(AnswerText(delivery.handle, "ok"), 0);
  EXPECT_EQ(client.ReadReply().body, "ok");
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
}

TEST_F(HttpServerRequest, WithoutABodyHasNone) {
  Start();
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  EXPECT_EQ(delivery.message.body, nullptr);
  EXPECT_EQ(delivery.message.body_size, 0U);
  EXPECT_EQ(delivery.message.content_length, 0U);
  AnswerText(delivery.handle, "");
}

TEST_F(HttpServerRequest, NeedsNoHostHeader) {
  Start(Echo);
  EXPECT_EQ(Exchange("GET /a HTTP/1.1\r\n\r\n"), "GET /a [] 0:0 -");
  EXPECT_EQ(Exchange("GET /a HTTP/1.0\r\n\r\n"), "GET /a [] 0:0 -");
}

TEST_F(HttpServerRequest, OfAnyMethodIsDelivered) {
  Start(Echo);
  for (const std::string method : {"OPTIONS", "DELETE", "PATCH", "TRACE", "BREW", "PUT"}) {
    EXPECT_EQ(Exchange(method + " /a?b HTTP/1.1\r\nContent-Length: 2\r\n\r\nxy"), method + " /a [b] 2:2 xy");
  }
}

TEST_F(HttpServerRequest, OnIpv6TellsTheAddress) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  std::int32_t handle = 0;
  const std::uint16_t port = Tansy::Tests::FreePort();
  ASSERT_EQ(CHttpServer::StartHttpServer(handle, "::1", port, OnRequest, true), 0) << CHttpServer::LastError();
  CRawClient client(port, {.ipv6 = true, .receive_buffer = 0});
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  EXPECT_EQ(delivery.message.ip, "::1");
  AnswerText(delivery.handle, "six");
  EXPECT_EQ(client.ReadReply().body, "six");
}

TEST_F(HttpServerRequest, IsReadHoweverItIsSplit) {
  Start(Echo);
  const std::string request = "POST /a?b HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
  CRawClient client(Port());
  for (std::size_t split = 1; split < request.size(); ++split) {
    client.Send(std::string_view(request).substr(0, split));
    std::this_thread::sleep_for(std::chrono::microseconds(300));
    client.Send(std::string_view(request).substr(split));
    ASSERT_EQ(client.ReadReply().body, "POST /a [b] 4:4 body") << split;
  }
}

TEST_F(HttpServerRequest, InChunksIsReadHoweverItIsSplit) {
  Start(Echo);
  const std::string request =
      "PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\nX: y\r\n\r\n";
  CRawClient client(Port());
  for (std::size_t split = 1; split < request.size(); ++split) {
    client.Send(std::string_view(request).substr(0, split));
    std::this_thread::sleep_for(std::chrono::microseconds(300));
    client.Send(std::string_view(request).substr(split));
    ASSERT_EQ(client.ReadReply().body, "PUT /a [] 5:5 abcde") << split;
  }
}

TEST_F(HttpServerRequest, MayFollowAnotherWithoutWaiting) {
  Start(Echo);
  CRawClient client(Port());
  std::string requests;
  constexpr int kCount = 500;
  for (int index = 0; index < kCount; ++index) {
    const std::string body = std::to_string(index);
    requests += "POST /" + body + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }
  client.Send(requests);
  for (int index = 0; index < kCount; ++index) {
    const std::string body = std::to_string(index);
    const std::string size = std::to_string(body.size());
    ASSERT_EQ(client.ReadReply().body, "POST /" + body + " [] " + size + ":" + size + " " + body);
  }
}

TEST_F(HttpServerRequest, WaitsForTheAnswerToTheOneBefore) {
  Start();
  CRawClient client(Port());
  client.Send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  const Delivery first = Take();
  EXPECT_EQ(first.message.url, "/1");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(HasDelivery());
  AnswerText(first.handle, "1");
  const Delivery second = Take();
  EXPECT_EQ(second.message.url, "/2");
  EXPECT_NE(second.handle, first.handle);
  AnswerText(second.handle, "2");
  EXPECT_EQ(client.ReadReply().body, "1");
  EXPECT_EQ(client.ReadReply().body, "2");
}

TEST_F(HttpServerRequest, SentWhileTheOneBeforeIsHandledIsServedAfterIt) {
  Start();
  CRawClient client(Port());
  client.Send("GET /1 HTTP/1.1\r\n\r\n");
  const Delivery first = Take();
  client.Send("GET /2 HTTP/1.1\r\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  AnswerText(first.handle, "1");
  client.Send("\r\n");
  const Delivery second = Take();
  EXPECT_EQ(second.message.url, "/2");
  AnswerText(second.handle, "2");
  EXPECT_EQ(client.ReadReply().body, "1");
  EXPECT_EQ(client.ReadReply().body, "2");
}

TEST_F(HttpServerRequest, FromAClientThatHalfClosesIsAnswered) {
  Start();
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nab");
  client.ShutdownSend();
  const Delivery delivery = Take();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(AnswerText(delivery.handle, "late"), 0);
  EXPECT_EQ(client.ReadReply().body, "late");
  EXPECT_TRUE(client.WaitForEnd());
}

TEST_F(HttpServerRequest, FollowedByAnotherAndAHalfCloseAreBothAnswered) {
  Start(Echo);
  CRawClient client(Port());
  client.Send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  client.ShutdownSend();
  EXPECT_EQ(client.ReadReply().body, "GET /1 [] 0:0 -");
  EXPECT_EQ(client.ReadReply().body, "GET /2 [] 0:0 -");
  EXPECT_TRUE(client.WaitForEnd());
}

TEST_F(HttpServerRequest, CutOffIsNotDelivered) {
  Start();
  for (const std::string_view text :
       {"GET / HT", "GET / HTTP/1.1\r\nHost: h\r\n", "POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nab",
        "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nab"}) {
    CRawClient client(Port());
    client.Send(text);
    client.ShutdownSend();
    EXPECT_TRUE(client.WaitForEnd()) << text;
    CRawClient other(Port());
    other.Send(text);
    other.Reset();
  }
  EXPECT_FALSE(HasDelivery());
}

TEST_F(HttpServerRequest, WhoseClientVanishesIsForgotten) {
  Start();
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  client.Reset();
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
  EXPECT_EQ(AnswerText(delivery.handle, "late"), TansyNet::kNetUnknownHandle);
}

TEST_F(HttpServerRequest, ThatIsMalformedIsRefused) {
  Start(Echo);
  EXPECT_EQ(StatusOf("NONSENSE\r\n\r\n"), 400);
  EXPECT_EQ(StatusOf("GET / HTTP/3.0\r\n\r\n"), 505);
  EXPECT_EQ(StatusOf("PUT / HTTP/1.1\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"), 400);
  EXPECT_EQ(StatusOf("PUT / HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\nabcde"), 400);
  EXPECT_EQ(StatusOf("PUT / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\nabcde"), 501);
  EXPECT_EQ(StatusOf("PUT / HTTP/1.1\r\nContent-Length: 4294967296\r\n\r\nabcde"), 413);
  EXPECT_EQ(StatusOf("GET / HTTP/1.1\r\nA: " + std::string(70000, 'x') + "\r\n\r\n"), 431);
  EXPECT_EQ(StatusOf("PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"), 400);
}

TEST_F(HttpServerRequest, IsRefusedInTheWordsOfItsProtocol) {
  style_.refusal = [](int status, const HttpServerRecv& message) {
    const auto origin = message.headers.find("Origin");
    TansyNet::Refusal refusal;
    refusal.response.status = status == 413 ? 400 : status;
    refusal.response.headers["X-Mine"] = origin == message.headers.end() ? "-" : origin->second;
    refusal.body = std::to_string(status) + " " + message.method + " " + message.url;
    return refusal;
  };
  Start(Echo);
  const auto ask = [this](const std::string& request) {
    CRawClient client(Port());
    client.Send(request);
    const RawReply reply = client.ReadReply();
    EXPECT_TRUE(client.WaitForEnd());
    return std::to_string(reply.status) + " " + reply.Header("x-mine") + ": " + reply.body;
  };
  EXPECT_EQ(ask("PUT /b/k HTTP/1.1\r\nOrigin: here\r\nContent-Length: 4294967296\r\n\r\n"), "400 here: 413 PUT /b/k");
  EXPECT_EQ(ask("POST /b HTTP/1.1\r\nContent-Length: 67108865\r\nOrigin: here\r\n\r\n"), "400 here: 413 POST /b");
  EXPECT_EQ(ask("PUT /b/k HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n"), "400 -: 400 PUT /b/k");
  EXPECT_EQ(ask("NONSENSE\r\n\r\n"), "400 -: 400  ");
}

TEST_F(HttpServerRequest, RefusedDoesNotLetTheRestPassAsARequest) {
  Start();
  CRawClient client(Port());
  client.Send("NONSENSE\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().status, 400);
  EXPECT_TRUE(client.WaitForEnd());
  EXPECT_FALSE(HasDelivery());
}

TEST_F(HttpServerRequest, MayFillTheHeaderLimit) {
  Start(Echo);
  const std::string begin = "GET /x HTTP/1.1\r\nA: ";
  const std::string end = "\r\n\r\n";
  EXPECT_EQ(Exchange(begin + std::string(65536 - begin.size() - end.size(), 'x') + end), "GET /x [] 0:0 -");
}

TEST_F(HttpServerRequest, ThatExpectsItIsToldToContinue) {
  Start(Echo);
  CRawClient client(Port());
  client.Send("PUT /a HTTP/1.1\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(client.ReadBytes(25), "HTTP/1.1 100 Continue\r\n\r\n");
  client.Send("abc");
  EXPECT_EQ(client.ReadReply().body, "PUT /a [] 3:3 abc");
  client.Send("POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(client.ReadBytes(25), "HTTP/1.1 100 Continue\r\n\r\n");
  client.Send("3\r\nabc\r\n0\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "POST /a [] 3:3 abc");
}

TEST_F(HttpServerRequest, ThatDoesNotWaitIsNotToldToContinue) {
  Start(Echo);
  EXPECT_EQ(Exchange("PUT /a HTTP/1.1\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\nabc"), "PUT /a [] 3:3 abc");
  EXPECT_EQ(Exchange("PUT /a HTTP/1.1\r\nContent-Length: 0\r\nExpect: 100-continue\r\n\r\n"), "PUT /a [] 0:0 -");
}

TEST_F(HttpServerRequest, ThatIsTooLargeIsRefusedInsteadOfContinued) {
  Start(Echo);
  EXPECT_EQ(StatusOf("POST / HTTP/1.1\r\nContent-Length: 67108865\r\nExpect: 100-continue\r\n\r\n"), 413);
  EXPECT_EQ(StatusOf("PUT / HTTP/1.1\r\nContent-Length: 4294967296\r\nExpect: 100-continue\r\n\r\n"), 413);
}

TEST_F(HttpServerRequest, LargerThanTheCapIsRefusedForOtherMethodsThanPut) {
  TansyNet::HttpServerLimits limits;
  limits.whole_body_bytes = 1000;
  CHttpServer::SetLimits(limits);
  Start(Echo);
  EXPECT_EQ(Exchange("POST / HTTP/1.1\r\nContent-Length: 1000\r\n\r\n" + std::string(1000, 'x')),
            "POST / [] 1000:1000 " + std::string(1000, 'x'));
  EXPECT_EQ(StatusOf("POST / HTTP/1.1\r\nContent-Length: 1001\r\n\r\n" + std::string(1001, 'x')), 413);
  EXPECT_EQ(StatusOf("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3E9\r\n" + std::string(1001, 'x')), 413);
}

TEST_F(HttpServerRequest, ThatUploadsMuchInChunksNeedsALength) {
  Start(Echo);
  const std::string chunk = "100000\r\n" + std::string(0x100000, 'x') + "\r\n";
  CRawClient client(Port());
  client.Send("PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  bool open = true;
  for (int sent = 0; open && sent < 11; ++sent) {
    open = client.TrySend(chunk);
  }
  EXPECT_EQ(client.ReadReply().status, 411);
}

TEST_F(HttpServerRequest, OfTenMebibytesIsDeliveredWhole) {
  Start();
  std::string body(TansyNet::kWholeBodyLimit, 'a');
  for (std::size_t index = 0; index < body.size(); index += 1001) {
    body[index] = static_cast<char>('a' + index % 26);
  }
  CRawClient client(Port());
  client.Send("PUT /b HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
  client.Send(body);
  const Delivery delivery = Take();
  EXPECT_EQ(delivery.message.error_code, TansyNet::kWholeRequest);
  EXPECT_EQ(delivery.message.body_size, TansyNet::kWholeBodyLimit);
  EXPECT_TRUE(delivery.Body() == body);
  AnswerText(delivery.handle, "ok");
  EXPECT_EQ(client.ReadReply().status, 200);
}

TEST_F(HttpServerRequest, OfAnotherMethodIsDeliveredWholeAboveThatToo) {
  Start();
  const std::string body(TansyNet::kWholeBodyLimit + 5, 'a');
  CRawClient client(Port());
  client.Send("POST /b HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
  client.Send(body);
  const Delivery delivery = Take();
  EXPECT_EQ(delivery.message.error_code, TansyNet::kWholeRequest);
  EXPECT_TRUE(delivery.Body() == body);
  AnswerText(delivery.handle, "ok");
  EXPECT_EQ(client.ReadReply().status, 200);
}

TEST_F(HttpServerRequest, WithAFormIsTakenApart) {
  Start();
  const std::string form =
      "--B\r\nContent-Disposition: form-data; name=\"PictureLength\"\r\n\r\n3\r\n"
      "--B\r\nContent-Disposition: form-data; name=\"Picture\"; filename=\"p\"\r\n\r\nabc\r\n--B--\r\n";
  CRawClient client(Port());
  client.Send("POST /w HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=B\r\nContent-Length: " +
              std::to_string(form.size()) + "\r\n\r\n" + form);
  const Delivery delivery = Take();
  const auto parts = delivery.message.FormParts();
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_EQ(parts[0].name, "PictureLength");
  EXPECT_EQ(parts[1].data, "abc");
  // A copy shares the bytes that the parts view.
  const HttpServerRecv copy = delivery.message;
  EXPECT_EQ(copy.body.get(), delivery.message.body.get());
  EXPECT_EQ(copy.FormParts()[1].data.data(), parts[1].data.data());
  AnswerText(delivery.handle, "");
}

TEST_F(HttpServerRequest, WhoseCallbackThrowsEndsTheConnectionOnly) {
  Start([](std::int32_t handle, HttpServerRecv& message) {
    if (message.url == "/throw") {
      throw std::runtime_error("handler");
    }
    AnswerText(handle, "fine");
  });
  CRawClient bad(Port());
  bad.Send("GET /throw HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(bad.WaitForEnd());
  EXPECT_EQ(Exchange("GET / HTTP/1.1\r\n\r\n"), "fine");
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
}

TEST_F(HttpServerRequest, IsOpenUntilItsAnswerOrItsClientsEnd) {
  Start();
  CRawClient answered(Port());
  answered.Send("GET / HTTP/1.1\r\n\r\n");
  const std::int32_t first = Take().handle;
  EXPECT_TRUE(CHttpServer::IsRequestOpen(first));
  AnswerText(first, "ok");
  EXPECT_FALSE(CHttpServer::IsRequestOpen(first));
  CRawClient gone(Port());
  gone.Send("GET / HTTP/1.1\r\n\r\n");
  const std::int32_t second = Take().handle;
  EXPECT_TRUE(CHttpServer::IsRequestOpen(second));
  gone.Reset();
  EXPECT_TRUE(Eventually([&] { return !CHttpServer::IsRequestOpen(second); }));
  EXPECT_FALSE(CHttpServer::IsRequestOpen(0));
}

}  // namespace
