// Callbacks that run whole requests on the library's own threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/Latch.h"

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
      released_.Wait();
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

  // Says whether anybody listens.
  bool CanConnect() const {
    try {
      const CRawClient client(Port());
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  // Connects clients to each event loop, which serves them.
  void ConnectOthers() {
    for (int i = 0; i < 8; ++i) {  // more than there are loops, which get them in turn
      others_.push_back(std::make_unique<CRawClient>(Port()));
      others_.back()->Send(kRequest);
      EXPECT_EQ(others_.back()->ReadReply().body, "quick");
    }
  }

  // Lets each loop answer something. A loop whose thread is kept has another one afterwards, which has also seen what
  // happened before.
  void LetOthersPass() {
    for (const auto& other : others_) {
      other->Send(kRequest);
      EXPECT_EQ(other->ReadReply().body, "quick");
    }
  }

  std::vector<std::unique_ptr<CRawClient>> others_;
  CLatch released_{1};
  std::atomic<int> slow_{0};
  std::atomic<int> over_{0};
};

TEST_F(HttpServerLoanTest, ACallbackThatIsSlowHoldsUpNobodyElse) {
  StartSlow(false);
  ConnectOthers();
  CRawClient slow(Port());
  MakeSlow(slow);
  for (int round = 0; round < 3; ++round) {
    LetOthersPass();
  }
  EXPECT_EQ(over_, 0);
  released_.CountDown();
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
  released_.CountDown();
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
  released_.CountDown();
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
}

TEST_F(HttpServerLoanTest, AClientThatLeavesMeanwhileIsNoticedWithoutAnAnswer) {
  Start([this](std::int32_t handle, HttpServerRecv& message) {
    if (message.url != "/slow") {
      AnswerText(handle, "quick");
    } else if (!CHttpServer::IsThreadLent()) {
      AnswerText(handle, "not lent");
    } else {
      ++slow_;
      released_.Wait();  // and leaves the answer to somebody else
    }
  });
  ConnectOthers();
  {
    CRawClient client(Port());
    MakeSlow(client);
    LetOthersPass();
    client.Reset();
  }
  LetOthersPass();
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 1u);
  released_.CountDown();
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
}

// A second thread that went on would read into the same memory as the one that leads now.
TEST_F(HttpServerLoanTest, WhatFollowsASlowCallbackRunsOnTheThreadThatLeadsNow) {
  std::thread::id slow;
  std::thread::id next;
  Start([&](std::int32_t handle, HttpServerRecv& message) {
    if (message.url == "/slow" && CHttpServer::IsThreadLent()) {
      slow = std::this_thread::get_id();
      ++slow_;
      released_.Wait();
    } else if (message.url == "/next") {
      next = std::this_thread::get_id();
    }
    AnswerText(handle, message.url == "/slow" && slow_ == 0 ? "not lent" : "quick");
  });
  ConnectOthers();
  CRawClient client(Port());
  MakeSlow(client);
  client.Send("GET /next HTTP/1.1\r\nHost: h\r\n\r\n");
  LetOthersPass();
  released_.CountDown();
  EXPECT_EQ(client.ReadReply().body, "quick");
  EXPECT_EQ(client.ReadReply().body, "quick");
  EXPECT_NE(next, slow);
}

TEST_F(HttpServerLoanTest, ALargeAnswerIsFinishedThoughItsCallbackGoesOn) {
  const std::string large(8 * 1024 * 1024, 'x');
  Start([&](std::int32_t handle, HttpServerRecv& message) {
    if (message.url != "/slow") {
      AnswerText(handle, "quick");
    } else if (!CHttpServer::IsThreadLent()) {
      AnswerText(handle, "not lent");
    } else {
      ++slow_;
      AnswerText(handle, large);
      released_.Wait();
    }
  });
  ConnectOthers();
  CRawClient client(Port(), {.receive_buffer = 4096});
  MakeSlow(client);
  LetOthersPass();
  std::thread releaser([&] {
    LetOthersPass();  // while the client reads: the socket takes more, and another thread sees it
    released_.CountDown();
  });
  EXPECT_EQ(client.ReadReply().body.size(), large.size());
  releaser.join();
}

TEST_F(HttpServerLoanTest, AShutdownWaitsForASlowCallback) {
  StartSlow(false);
  CRawClient client(Port());
  MakeSlow(client);
  // The callback is released only when the shutdown has begun.
  std::thread releaser([&] {
    EXPECT_TRUE(Eventually([this] { return !CanConnect(); }));
    released_.CountDown();
  });
  CHttpServer::Shutdown(10000);
  EXPECT_EQ(over_, 1);
  releaser.join();
}

TEST_F(HttpServerLoanTest, NothingIsLentOutsideACallback) {
  EXPECT_FALSE(CHttpServer::IsThreadLent());
}

}  // namespace
}  // namespace Tansy::Tests
