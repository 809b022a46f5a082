// Callbacks that run whole requests on the library's own threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::Tests {
namespace {

using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

constexpr const char* kRequest = "GET /quick HTTP/1.1\r\nHost: h\r\n\r\n";

class HttpServerLoanTest : public ServerFixture {
 protected:
  // Answers everything at once, except "/slow" on a lent thread, which waits until it is released and is answered then,
  // or right before it waits.
  void StartSlow(bool answers_first) {
    Start([this, answers_first](std::int32_t handle, HttpServerRecv& message) {
      if (message.url != "/slow") {
        AnswerText(handle, "quick");
        return;
      }
      if (!CHttpServer::IsThreadLent()) {
        AnswerText(handle, "not lent");
        return;
      }
      ++slow_;  // before the answer, because MakeSlow takes the answer for another one without it
      if (answers_first) {
        AnswerText(handle, "slow");
      }
      released_.wait();
      if (!answers_first) {
        AnswerText(handle, "slow");
      }
      ++over_;
    });
  }

  // Sends "/slow" until it has got a lent thread.
  void MakeSlow(CRawClient& client) {
    const int before = slow_;
    while (slow_ == before) {
      client.Send("GET /slow HTTP/1.1\r\nHost: h\r\n\r\n");
      while (slow_ == before && client.IsSilent(10)) {
      }
      if (slow_ == before) {
        ASSERT_EQ(client.ReadReply().body, "not lent");
      }
    }
  }

  std::latch released_{1};
  std::atomic<int> slow_{0};
  std::atomic<int> over_{0};
};

TEST_F(HttpServerLoanTest, ACallbackThatIsSlowHoldsUpNobodyElse) {
  StartSlow(false);
  std::vector<std::unique_ptr<CRawClient>> others;
  for (int i = 0; i < 8; ++i) {  // more than there are threads, so that each thread has some
    others.push_back(std::make_unique<CRawClient>(Port()));
    others.back()->Send(kRequest);
    EXPECT_EQ(others.back()->ReadReply().body, "quick");
  }
  CRawClient slow(Port());
  MakeSlow(slow);
  for (int round = 0; round < 3; ++round) {
    for (const auto& other : others) {
      other->Send(kRequest);
      EXPECT_EQ(other->ReadReply().body, "quick");
    }
  }
  EXPECT_EQ(over_, 0);
  released_.count_down();
  EXPECT_EQ(slow.ReadReply().body, "slow");
  slow.Send(kRequest);
  EXPECT_EQ(slow.ReadReply().body, "quick");
}

// Its own client's next request comes while the callback still runs, and is seen by another thread.
TEST_F(HttpServerLoanTest, ACallbackThatGoesOnAfterItsAnswerLosesNoRequest) {
  StartSlow(true);
  CRawClient client(Port());
  MakeSlow(client);
  EXPECT_EQ(client.ReadReply().body, "slow");
  client.Send(kRequest);
  CRawClient other(Port());
  other.Send(kRequest);
  EXPECT_EQ(other.ReadReply().body, "quick");
  released_.count_down();
  EXPECT_EQ(client.ReadReply().body, "quick");
}

TEST_F(HttpServerLoanTest, AClientThatLeavesMeanwhileIsForgotten) {
  StartSlow(false);
  {
    CRawClient client(Port());
    MakeSlow(client);
    client.Reset();
  }
  CRawClient other(Port());
  other.Send(kRequest);
  EXPECT_EQ(other.ReadReply().body, "quick");
  released_.count_down();
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
}

TEST_F(HttpServerLoanTest, ALargeAnswerIsFinishedAfterASlowCallback) {
  const std::string large(8 * 1024 * 1024, 'x');
  Start([&](std::int32_t handle, HttpServerRecv&) {
    const bool is_lent = CHttpServer::IsThreadLent();
    slow_ += is_lent ? 1 : 0;
    AnswerText(handle, large);
    if (is_lent) {
      released_.wait();
    }
  });
  bool was_lent = false;
  while (!was_lent) {
    CRawClient client(Port(), {.receive_buffer = 4096});
    client.Send(kRequest);
    // Once the first bytes are here it is known whether the callback waits.
    while (client.IsSilent(10)) {
    }
    was_lent = slow_ > 0;
    std::thread releaser([&] {
      if (was_lent) {
        released_.count_down();
      }
    });
    EXPECT_EQ(client.ReadReply().body.size(), large.size());
    releaser.join();
  }
}

TEST_F(HttpServerLoanTest, AShutdownWaitsForASlowCallback) {
  StartSlow(false);
  CRawClient client(Port());
  MakeSlow(client);
  std::thread releaser([&] { released_.count_down(); });
  CHttpServer::Shutdown(10000);
  EXPECT_EQ(over_, 1);
  releaser.join();
}

TEST_F(HttpServerLoanTest, NothingIsLentOutsideACallback) {
  EXPECT_FALSE(CHttpServer::IsThreadLent());
}

}  // namespace
}  // namespace Tansy::Tests
