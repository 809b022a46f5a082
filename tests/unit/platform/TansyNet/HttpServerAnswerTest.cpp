// Who may answer, when, and what becomes of slow clients.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/RandomBytes.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::RawReply;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpResponse;

constexpr std::string_view kGet = "GET / HTTP/1.1\r\n\r\n";

int SendChunk(std::int32_t handle, std::string_view chunk, std::uint64_t total, int timeout_ms = 20000) {
  HttpResponse response;
  response.send_timeout_ms = timeout_ms;
  return CHttpServer::HttpServerSyncSendBigRsp(handle, response, static_cast<std::uint32_t>(chunk.size()), chunk.data(),
                                               total);
}

class HttpServerAnswer : public ServerFixture {
 protected:
  // A client whose request is delivered, and its handle.
  std::unique_ptr<CRawClient> Ask(std::int32_t& handle, int receive_buffer = 0, std::string_view request = kGet) {
    auto client = std::make_unique<CRawClient>(
        Port(), Tansy::Tests::RawClientOptions{.ipv6 = false, .receive_buffer = receive_buffer});
    client->Send(request);
    handle = Take().handle;
    return client;
  }
};

TEST_F(HttpServerAnswer, IsGivenOnce) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle);
  EXPECT_EQ(AnswerText(handle, "one"), 0);
  EXPECT_EQ(AnswerText(handle, "two"), TansyNet::kNetUnknownHandle);
  EXPECT_EQ(SendChunk(handle, "three", 5), TansyNet::kNetUnknownHandle);
  EXPECT_EQ(client->ReadReply().body, "one");
  EXPECT_TRUE(client->IsSilent(20));
}

TEST_F(HttpServerAnswer, ToAnUnknownHandleIsDropped) {
  Start();
  for (const std::int32_t handle : {0, -1, 2000000000}) {
    EXPECT_EQ(AnswerText(handle, "x"), TansyNet::kNetUnknownHandle);
  }
}

TEST_F(HttpServerAnswer, NeverSharesAHandleWithAnother) {
  Start();
  std::set<std::int32_t> handles;
  CRawClient client(Port());
  for (int count = 0; count < 100; ++count) {
    client.Send(kGet);
    const Delivery delivery = Take();
    EXPECT_TRUE(handles.insert(delivery.handle).second);
    AnswerText(delivery.handle, "x");
    client.ReadReply();
  }
}

TEST_F(HttpServerAnswer, DoesNotWaitForAClientThatDoesNotRead) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle, 4096);
  const std::string body = Tansy::Tests::RandomBytes(10 * 1024 * 1024);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(AnswerText(handle, body), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(client->ReadReply().body == body);
  // The connection goes on after it.
  client->Send(kGet);
  AnswerText(Take().handle, "next");
  EXPECT_EQ(client->ReadReply().body, "next");
}

TEST_F(HttpServerAnswer, ThatIsNotTakenEndsTheConnection) {
  TansyNet::HttpServerLimits limits;
  limits.idle_timeout_ms = 100;  // lets the library look at its deadlines often
  CHttpServer::SetLimits(limits);
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle, 4096);
  const std::string body(10 * 1024 * 1024, 'x');
  HttpResponse response;
  response.send_timeout_ms = 100;
  EXPECT_EQ(CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(body.size()), body.data()), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_THROW(client->ReadReply(), std::runtime_error);
}

// Its socket counts as writable only once megabytes are free, which takes it longer than the time-out.
TEST_F(HttpServerAnswer, GoesOnWhileAClientTakesItSlowly) {
  TansyNet::HttpServerLimits limits;
  limits.idle_timeout_ms = 100;  // lets the library look at its deadlines often
  CHttpServer::SetLimits(limits);
  Start();
  const std::string body = Tansy::Tests::RandomBytes(std::size_t{6} * 1024 * 1024);
  for (const bool in_chunks : {false, true}) {
    std::int32_t handle = 0;
    const auto client = Ask(handle, 65536);
    HttpResponse response;
    response.send_timeout_ms = 400;
    const std::jthread sender([&] {
      const int result = in_chunks ? SendChunk(handle, body, body.size(), response.send_timeout_ms)
                                   : CHttpServer::HttpServerSyncSend(
                                         handle, response, static_cast<std::uint32_t>(body.size()), body.data());
      EXPECT_EQ(result, 0);
    });
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
      head += client->ReadBytes(1);
    }
    std::string taken;
    for (int round = 0; round < 30; ++round) {
      taken += client->ReadBytes(30000);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    taken += client->ReadBytes(body.size() - taken.size());
    EXPECT_TRUE(taken == body) << in_chunks;
  }
}

// The request after it has come long before the answer is sent.
TEST_F(HttpServerAnswer, ThatIsTakenSlowlyIsFollowedByTheNext) {
  const std::string large(8 * 1024 * 1024, 'x');
  Start([&](std::int32_t handle, TansyNet::HttpServerRecv& message) {
    AnswerText(handle, message.url == "/large" ? large : message.url);
  });
  CRawClient client(Port(), {.receive_buffer = 4096});
  client.Send("GET /large HTTP/1.1\r\nHost: h\r\n\r\nGET /next HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body.size(), large.size());
  EXPECT_EQ(client.ReadReply().body, "/next");
}

TEST_F(HttpServerAnswer, ComesFromManyThreadsToManyClients) {
  Start();
  constexpr int kClients = 32;
  constexpr int kRequests = 50;
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int index = 0; index < 4; ++index) {
    workers.emplace_back([&] {
      while (!stop) {
        Delivery delivery;
        if (TryTake(delivery)) {
          AnswerText(delivery.handle, delivery.message.url);
        } else {
          std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
      }
    });
  }
  std::atomic<int> right{0};
  std::vector<std::thread> clients;
  for (int index = 0; index < kClients; ++index) {
    clients.emplace_back([&, index] {
      CRawClient client(Port());
      for (int count = 0; count < kRequests; ++count) {
        const std::string path = "/" + std::to_string(index) + "/" + std::to_string(count);
        client.Send("GET " + path + " HTTP/1.1\r\n\r\n");
        right += client.ReadReply().body == path ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : clients) {
    thread.join();
  }
  stop = true;
  for (std::thread& thread : workers) {
    thread.join();
  }
  EXPECT_EQ(right, kClients * kRequests);
}

TEST_F(HttpServerAnswer, InChunksIsOneBody) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle);
  const std::string body = Tansy::Tests::RandomBytes(25 * 1024 * 1024);
  std::jthread reader([&] {
    const RawReply reply = client->ReadReply();
    EXPECT_EQ(reply.Header("content-length"), std::to_string(body.size()));
    EXPECT_TRUE(reply.body == body);
  });
  constexpr std::size_t kChunk = 10 * 1024 * 1024;
  for (std::size_t begin = 0; begin < body.size(); begin += kChunk) {
    EXPECT_EQ(SendChunk(handle, std::string_view(body).substr(begin, kChunk), body.size()), 0);
  }
  reader.join();
  EXPECT_EQ(SendChunk(handle, "more", body.size()), TansyNet::kNetUnknownHandle);
  client->Send(kGet);
  AnswerText(Take().handle, "next");
  EXPECT_EQ(client->ReadReply().body, "next");
}

TEST_F(HttpServerAnswer, InChunksMayBeEmptyOrToHead) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle);
  EXPECT_EQ(SendChunk(handle, "", 0), 0);
  EXPECT_EQ(client->ReadReply().body, "");
  const auto head = Ask(handle, 0, "HEAD / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(SendChunk(handle, "abc", 5), 0);
  EXPECT_EQ(SendChunk(handle, "de", 5), 0);
  EXPECT_EQ(head->ReadReply(true).Header("content-length"), "5");
  EXPECT_TRUE(head->IsSilent(20));
}

TEST_F(HttpServerAnswer, AfterTheHeadOfAnotherEndsTheConnection) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle);
  EXPECT_EQ(SendChunk(handle, "abc", 10), 0);
  EXPECT_EQ(AnswerText(handle, "another"), TansyNet::kNetAlreadyAnswered);
  EXPECT_EQ(SendChunk(handle, "defghij", 10), TansyNet::kNetUnknownHandle);
  EXPECT_THROW(client->ReadReply(), std::runtime_error) << "nothing more may follow the three bytes";
}

TEST_F(HttpServerAnswer, InChunksNeverExceedsItsTotal) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle);
  EXPECT_EQ(SendChunk(handle, "abc", 5), 0);
  EXPECT_EQ(SendChunk(handle, "def", 5), TansyNet::kNetSendFailed);
  EXPECT_THROW(client->ReadReply(), std::runtime_error);
}

TEST_F(HttpServerAnswer, InChunksWaitsForTheClientButNotForEver) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle, 4096);
  const std::string chunk(10 * 1024 * 1024, 'x');
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(SendChunk(handle, chunk, 2 * chunk.size(), 200), TansyNet::kNetSendTimeout);
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, std::chrono::milliseconds(200));
  EXPECT_EQ(SendChunk(handle, chunk, 2 * chunk.size(), 200), TansyNet::kNetUnknownHandle);
}

// Bytes that the socket's buffer takes in a late attempt do not show that the client is alive.
TEST_F(HttpServerAnswer, InChunksWaitsForAStalledClientOnlyOnce) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle, 4096);
  const std::string chunk(10 * 1024 * 1024, 'x');
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(SendChunk(handle, chunk, chunk.size(), 1500), TansyNet::kNetSendTimeout);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2900));
}

TEST_F(HttpServerAnswer, InChunksNoticesThatTheClientIsGone) {
  Start();
  std::int32_t handle = 0;
  auto client = Ask(handle, 4096);
  const std::string chunk(10 * 1024 * 1024, 'x');
  std::jthread killer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client->Reset();
  });
  EXPECT_EQ(SendChunk(handle, chunk, 2 * chunk.size()), TansyNet::kNetSendFailed);
  killer.join();
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
}

TEST_F(HttpServerAnswer, InChunksFromTwoThreadsEndsTheConnection) {
  Start();
  std::int32_t handle = 0;
  const auto client = Ask(handle, 4096);
  const std::string chunk(10 * 1024 * 1024, 'x');
  std::jthread first([&] { EXPECT_EQ(SendChunk(handle, chunk, 4 * chunk.size()), TansyNet::kNetSendFailed); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_NE(SendChunk(handle, chunk, 4 * chunk.size()), 0);
  first.join();
}

TEST_F(HttpServerAnswer, WaitingForAClientLetsOthersPass) {
  Start();
  std::int32_t handle = 0;
  const auto slow = Ask(handle, 4096);
  const std::string chunk(10 * 1024 * 1024, 'x');
  std::jthread sender([&] { SendChunk(handle, chunk, chunk.size(), 2000); });
  for (int count = 0; count < 20; ++count) {
    std::int32_t other = 0;
    const auto quick = Ask(other);
    EXPECT_EQ(AnswerText(other, "quick"), 0);
    EXPECT_EQ(quick->ReadReply().body, "quick");
  }
  slow->Reset();
  sender.join();
}

}  // namespace
