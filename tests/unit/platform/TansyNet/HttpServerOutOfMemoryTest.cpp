// A failed allocation ends no more than the connection for which it was made.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/FailingAllocation.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CFailingAllocation;
using Tansy::Tests::CFailingAllocationAnywhere;
using Tansy::Tests::CRawClient;
using Tansy::Tests::CUnharmedThread;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

constexpr std::uint32_t kShortMs = 200;

class HttpServerOutOfMemory : public ServerFixture {
 protected:
  HttpServerOutOfMemory() {
    CHttpServer::SetLimits({.header_timeout_ms = kShortMs,
                            .idle_timeout_ms = 60000,
                            .body_timeout_ms = kShortMs,
                            .unanswered_timeout_ms = kShortMs});
    Start([](std::int32_t handle, HttpServerRecv& message) {
      const CUnharmedThread callback;  // handlers have tests of their own for missing memory
      if (message.error_code != TansyNet::kBodyPiece) {
        AnswerText(handle, "ok");
      }
    });
  }

  // Lets each allocation that the server makes for the request fail once. A client may be cut, or hear nothing before
  // its time is over; the next one is served.
  void FailEachAllocationFor(const std::string& request) {
    const CUnharmedThread mine;
    bool has_failed = true;
    for (std::size_t number = 1; has_failed; ++number) {
      has_failed = FailAllocationFor(request, number);
      CRawClient next(Port());
      next.Send("GET / HTTP/1.1\r\n\r\n");
      ASSERT_EQ(next.ReadReply().body, "ok") << "after allocation " << number;
    }
    EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; })) << "handles are given back";
  }

 private:
  // Returns false when the server makes fewer allocations.
  bool FailAllocationFor(const std::string& request, std::size_t number) {
    const CFailingAllocationAnywhere failing(number);
    try {
      CRawClient client(Port());
      client.TrySend(request);
      client.ReadReply();
    } catch (const std::runtime_error&) {
      // the connection was cut, or no answer came
    }
    return failing.HasFailed();
  }
};

TEST_F(HttpServerOutOfMemory, EndsNoServiceOfSmallRequests) {
  FailEachAllocationFor("GET /a?b HTTP/1.1\r\nHost: h\r\nx-long: " + std::string(100, 'x') + "\r\n\r\n");
}

TEST_F(HttpServerOutOfMemory, EndsNoServiceOfBodies) {
  FailEachAllocationFor("POST / HTTP/1.1\r\nContent-Length: 200000\r\n\r\n" + std::string(200000, 'x'));
}

TEST_F(HttpServerOutOfMemory, EndsNoServiceOfChunkedBodies) {
  FailEachAllocationFor("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n186a0\r\n" + std::string(100000, 'x') +
                        "\r\n0\r\n\r\n");
}

TEST_F(HttpServerOutOfMemory, EndsNoServiceOfUploads) {
  constexpr std::size_t kSize = TansyNet::kWholeBodyLimit + 1;
  FailEachAllocationFor("PUT / HTTP/1.1\r\nContent-Length: " + std::to_string(kSize) + "\r\n\r\n" +
                        std::string(kSize, 'x'));
}

// A token that is given back without memory is found when the piece after it is complete, not when the request's time
// is over.
class HttpServerLostToken : public ServerFixture {
 protected:
  static constexpr std::size_t kSize = TansyNet::kWholeBodyLimit + 1;

  HttpServerLostToken() { Start(); }

  // Waits until the library holds no copy of the piece's token any more.
  static bool IsLastCopy(const Delivery& piece) {
    return Eventually([&piece] { return piece.message.token.use_count() == 1; });
  }
};

TEST_F(HttpServerLostToken, IsFoundByThePieceThatIsBeingRead) {
  const std::string body(kSize, 'x');
  CRawClient client(Port());
  client.Send("PUT / HTTP/1.1\r\nContent-Length: " + std::to_string(kSize) + "\r\n\r\n" + body.substr(0, kSize / 2));
  Delivery first = Take();
  ASSERT_EQ(first.message.error_code, TansyNet::kBodyPiece);
  ASSERT_TRUE(IsLastCopy(first));
  {
    const CFailingAllocation failing(1);
    first.message.token.reset();
    ASSERT_TRUE(failing.HasFailed());
  }
  client.Send(body.substr(kSize / 2));

  std::size_t received = first.message.body_size;
  for (bool is_last = false; !is_last;) {
    const Delivery piece = Take();
    is_last = piece.message.error_code == TansyNet::kLastBodyPiece;
    received += piece.message.body_size;
    if (is_last) {
      AnswerText(piece.handle, "ok");
    }
  }
  EXPECT_EQ(received, kSize);
  EXPECT_EQ(client.ReadReply().body, "ok");
}

}  // namespace
