// What happens to clients that are too slow, too many, or silent.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/MemoryAccount.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::RawReply;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerLimits;
using TansyNet::HttpServerRecv;

constexpr std::uint32_t kShortMs = 150;
// Limits that a test must not break have this length, because the machine may have much else to do.
constexpr std::uint32_t kLongerMs = 600;
// No test takes that long.
constexpr std::uint32_t kNoWindowMs = 600000;
constexpr std::size_t kMebibyte = 1024 * 1024;

class HttpServerLimit : public ServerFixture {
 protected:
  void StartWith(const HttpServerLimits& limits, Handler handler = {}) {
    CHttpServer::SetLimits(limits);
    Start(std::move(handler));
    begin_ = steady_clock::now();
  }

  void ExpectAtLeastTheLimit() const { EXPECT_GE(steady_clock::now() - begin_, milliseconds(kShortMs - 20)); }

  void ExpectTimeout(CRawClient& client) {
    EXPECT_EQ(client.ReadReply().status, 408);
    ExpectAtLeastTheLimit();
    EXPECT_TRUE(client.WaitForEnd());
  }

  // Sends the same few bytes again and again, much more often than the limits ask for, until the client is refused.
  static std::jthread Drip(CRawClient& client, std::string bytes) {
    return std::jthread([&client, bytes = std::move(bytes)](const std::stop_token& stop) {
      while (!stop.stop_requested() && client.TrySend(bytes)) {
        std::this_thread::sleep_for(milliseconds(kShortMs / 10));
      }
    });
  }

  steady_clock::time_point begin_;
};

TEST_F(HttpServerLimit, DefaultsAreThoseOfTheRecord) {
  const HttpServerLimits limits;
  EXPECT_EQ(limits.header_bytes, 65536U);
  EXPECT_EQ(limits.header_timeout_ms, 10000U);
  EXPECT_EQ(limits.idle_timeout_ms, 60000U);
  EXPECT_EQ(limits.body_timeout_ms, 30000U);
  EXPECT_EQ(limits.unanswered_timeout_ms, 120000U);
  EXPECT_EQ(limits.connections, 10000U);
  EXPECT_EQ(limits.whole_body_bytes, 67108864U);
  EXPECT_EQ(limits.memory_bytes, 1073741824U);
}

TEST_F(HttpServerLimit, HeaderBytes) {
  StartWith({.header_bytes = 1000});
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\nA: " + std::string(1000, 'x') + "\r\n\r\n");
  EXPECT_EQ(client.ReadReply().status, 431);
  EXPECT_TRUE(client.WaitForEnd());
  EXPECT_FALSE(HasDelivery());
}

TEST_F(HttpServerLimit, HeaderTimeIsNotProlongedByProgress) {
  StartWith({.header_timeout_ms = kShortMs});
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n");
  const std::jthread dripping = Drip(client, "A: b\r\n");
  EXPECT_EQ(client.ReadReply().status, 408);
  ExpectAtLeastTheLimit();
  EXPECT_LT(steady_clock::now() - begin_, std::chrono::seconds(10));
}

TEST_F(HttpServerLimit, HeaderTimeBeginsWithTheFirstByte) {
  StartWith({.header_timeout_ms = kShortMs}, [](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  CRawClient client(Port());
  std::this_thread::sleep_for(milliseconds(2 * kShortMs));
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "ok");
  std::this_thread::sleep_for(milliseconds(2 * kShortMs));
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "ok");
}

TEST_F(HttpServerLimit, IdleTimeClosesWithoutAWord) {
  StartWith({.idle_timeout_ms = kShortMs}, [](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  CRawClient fresh(Port());
  CRawClient used(Port());
  used.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(used.ReadReply().body, "ok");
  EXPECT_TRUE(fresh.WaitForEnd());
  EXPECT_TRUE(used.WaitForEnd());
  ExpectAtLeastTheLimit();
}

TEST_F(HttpServerLimit, BodyTimeEndsAWholeBody) {
  StartWith({.body_timeout_ms = kShortMs});
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
  ExpectTimeout(client);
  EXPECT_FALSE(HasDelivery());
}

TEST_F(HttpServerLimit, BodyTimeEndsABodyInChunks) {
  StartWith({.body_timeout_ms = kShortMs});
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabc");
  ExpectTimeout(client);
}

TEST_F(HttpServerLimit, BodyTimeEndsAnUpload) {
  StartWith({.body_timeout_ms = kShortMs});
  CRawClient client(Port());
  client.Send("PUT / HTTP/1.1\r\nContent-Length: 20000000\r\n\r\n" + std::string(5 * kMebibyte, 'x'));
  const Delivery first = Take();
  EXPECT_EQ(client.ReadReply().status, 408);
  EXPECT_TRUE(client.WaitForEnd());
  EXPECT_EQ(AnswerText(first.handle, "late"), TansyNet::kNetUnknownHandle);
}

TEST_F(HttpServerLimit, BodyTimeIsProlongedByProgress) {
  StartWith({.body_timeout_ms = kLongerMs},
            [](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, *message.body); });
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nContent-Length: 16\r\n\r\n");
  for (int count = 0; count < 16; ++count) {
    std::this_thread::sleep_for(milliseconds(kLongerMs / 14));
    client.Send("x");
  }
  EXPECT_EQ(client.ReadReply().body, std::string(16, 'x'));
}

TEST_F(HttpServerLimit, TheServersOwnSlownessIsNotTheClientsBodyTime) {
  StartWith({.body_timeout_ms = kLongerMs});
  const std::string body(14 * kMebibyte, 'x');
  CRawClient client(Port());
  std::jthread sender(
      [&] { client.TrySend("PUT / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body); });
  for (bool first = true, last = false; !last; first = false) {
    const Delivery piece = Take();
    std::this_thread::sleep_for(milliseconds(first ? 2 * kLongerMs : 0));
    last = piece.message.error_code == TansyNet::kLastBodyPiece;
    if (last) {
      AnswerText(piece.handle, "stored");
    }
  }
  EXPECT_EQ(client.ReadReply().body, "stored");
}

TEST_F(HttpServerLimit, UnansweredTimeClosesWithoutAWord) {
  StartWith({.unanswered_timeout_ms = kShortMs});
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  EXPECT_TRUE(client.WaitForEnd());
  ExpectAtLeastTheLimit();
  EXPECT_EQ(AnswerText(delivery.handle, "late"), TansyNet::kNetUnknownHandle);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
}

TEST_F(HttpServerLimit, UnansweredTimeEndsAnUploadWhosePieceIsKept) {
  StartWith({.unanswered_timeout_ms = kShortMs});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient client(Port());
  std::jthread sender(
      [&] { client.TrySend("PUT / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body); });
  const Delivery first = Take();
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
  ExpectAtLeastTheLimit();
}

TEST_F(HttpServerLimit, UnansweredTimeBeginsAnewWithEachChunkOfAnAnswer) {
  StartWith({.unanswered_timeout_ms = kLongerMs});
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const std::int32_t handle = Take().handle;
  for (int count = 0; count < 12; ++count) {
    std::this_thread::sleep_for(milliseconds(kLongerMs / 10));
    EXPECT_EQ(CHttpServer::HttpServerSyncSendBigRsp(handle, {}, 1, "x", 13), 0);
  }
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
  EXPECT_EQ(CHttpServer::HttpServerSyncSendBigRsp(handle, {}, 1, "x", 13), TansyNet::kNetUnknownHandle);
  EXPECT_THROW(client.ReadReply(), std::runtime_error) << "twelve of thirteen bytes came";
}

TEST_F(HttpServerLimit, ConnectionsBeyondTheNumberAreClosedWhenAllAreBusy) {
  StartWith({.connections = 3});
  std::vector<std::unique_ptr<CRawClient>> clients;
  std::vector<Delivery> requests;
  for (int count = 0; count < 3; ++count) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->Send("GET / HTTP/1.1\r\n\r\n");
    requests.push_back(Take());
  }
  CRawClient surplus(Port());
  EXPECT_TRUE(surplus.WaitForEnd());
  SetHandler([](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  clients.back()->Reset();
  EXPECT_TRUE(Eventually([&] {
    CRawClient next(Port());
    return next.TrySend("GET / HTTP/1.1\r\n\r\n") && !next.WaitForEnd();
  })) << "a place became free";
}

TEST_F(HttpServerLimit, AConnectionBeyondTheNumberTakesThePlaceOfTheLongestIdle) {
  StartWith({.connections = 3}, [](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  std::vector<std::unique_ptr<CRawClient>> clients;
  for (int count = 0; count < 3; ++count) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->Send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(clients.back()->ReadReply().body, "ok");
    std::this_thread::sleep_for(milliseconds(5));  // the server tells times apart by milliseconds
  }
  clients[0]->Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(clients[0]->ReadReply().body, "ok");
  CRawClient surplus(Port());
  surplus.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(surplus.ReadReply().body, "ok");
  EXPECT_TRUE(clients[1]->WaitForEnd()) << "it had waited longest";
  EXPECT_TRUE(clients[0]->IsSilent(10));
  EXPECT_TRUE(clients[2]->IsSilent(10));
}

// Such connections are done; they only wait until their clients notice it.
TEST_F(HttpServerLimit, ConnectionsAfterTheirLastAnswerGiveWay) {
  StartWith({.connections = 3}, [](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  std::vector<std::unique_ptr<CRawClient>> clients;
  for (int count = 0; count < 5; ++count) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->Send("GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(clients.back()->ReadReply().body, "ok");
  }
}

TEST_F(HttpServerLimit, CountForConnectionsThatComeLater) {
  StartWith({.idle_timeout_ms = 60000});
  CRawClient before(Port());
  before.Send("GET / HTTP/1.1\r\n\r\n");
  AnswerText(Take().handle, "ok");
  EXPECT_EQ(before.ReadReply().body, "ok");
  CHttpServer::SetLimits({.idle_timeout_ms = kShortMs});
  CRawClient after(Port());
  EXPECT_TRUE(after.WaitForEnd());
  EXPECT_TRUE(before.IsSilent(10));
}

TEST_F(HttpServerLimit, BodyMemoryIsSharedByAllRequests) {
  StartWith({.body_timeout_ms = kShortMs, .memory_bytes = 5 * kMebibyte});
  const std::string body(2 * kMebibyte, 'x');
  const std::string request = "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  CRawClient first(Port());
  first.Send(request);
  Delivery kept = Take();
  CRawClient second(Port());
  second.Send(request);
  Delivery also_kept = Take();
  CRawClient third(Port());
  third.TrySend(request);
  EXPECT_EQ(third.ReadReply().status, 503) << "it waited, and no room became free";
  EXPECT_TRUE(third.WaitForEnd());
  CRawClient chunked(Port());
  chunked.TrySend("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n200000\r\n" + body + "\r\n");
  EXPECT_EQ(chunked.ReadReply().status, 503);
  CRawClient small(Port());
  small.Send("POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nok");
  AnswerText(Take().handle, "fine");
  EXPECT_EQ(small.ReadReply().body, "fine");
  // The memory belongs to the message, whether it is answered or not, and is free again when its last copy goes.
  AnswerText(kept.handle, "done");
  EXPECT_EQ(first.ReadReply().body, "done");
  EXPECT_EQ(TansyNet::CMemoryAccount::Process().Used(), 2 * body.size());
  kept = {};
  also_kept = {};
  EXPECT_EQ(TansyNet::CMemoryAccount::Process().Used(), 0U);
  first.Send(request);
  AnswerText(Take().handle, "again");
  EXPECT_EQ(first.ReadReply().body, "again");
}

TEST_F(HttpServerLimit, ABodyWaitsForTheRoomOfOthers) {
  StartWith({.memory_bytes = 5 * kMebibyte});
  const std::string body(2 * kMebibyte, 'x');
  const std::string request = "PUT / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  CRawClient first(Port());
  first.Send(request);
  Delivery kept = Take();
  CRawClient second(Port());
  second.Send(request);
  Delivery also_kept = Take();
  CRawClient third(Port());
  std::jthread sender([&] { third.TrySend(request); });
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().IsShort(TansyNet::MemoryUse::kAnswers); }));
  EXPECT_FALSE(HasDelivery());
  kept = {};
  const Delivery last = Take();
  EXPECT_EQ(last.message.body_size, body.size());
  AnswerText(last.handle, "there");
  EXPECT_EQ(third.ReadReply().body, "there");
}

// Otherwise these bodies would occupy the room of all clients for as long as they like.
TEST_F(HttpServerLimit, BodiesThatStandStillMakeRoomForThoseThatCome) {
  StartWith({.least_rate_window_ms = 200, .memory_bytes = 4 * kMebibyte});
  const std::string body(2 * kMebibyte, 'x');
  const std::string request = "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  CRawClient slow(Port());
  slow.Send(std::string_view(request).substr(0, request.size() - 1));
  EXPECT_TRUE(Eventually([&] { return TansyNet::CMemoryAccount::Process().Used() >= body.size(); }));
  CRawClient client(Port());
  std::jthread sender([&] { client.TrySend(request); });
  AnswerText(Take().handle, "there");
  EXPECT_EQ(client.ReadReply().body, "there");
  EXPECT_EQ(slow.ReadReply().status, 408);
}

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// What the process has from its heaps, in blocks of all sizes. Sanitizers have heaps of their own.
std::size_t BytesInUse() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST_F(HttpServerLimit, NothingIsKeptOfAnAnswerThatIsSent) {
  const std::string body(16 * kMebibyte, 'x');
  StartWith({}, [&](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, body); });
  const std::size_t before = BytesInUse();
  CRawClient client(Port(), {.receive_buffer = 65536});
  client.Send("GET / HTTP/1.1\r\n\r\n");
  client.ReadBytes(1);
  EXPECT_TRUE(Eventually([&] { return BytesInUse() > before + 4 * kMebibyte; })) << "the socket does not take it all";
  for (std::size_t read = 0; read < body.size(); read += kMebibyte / 16) {
    client.ReadBytes(kMebibyte / 16);
  }
  EXPECT_TRUE(Eventually([&] { return BytesInUse() < before + 4 * kMebibyte; })) << "the connection is still open";
}
#endif

TEST_F(HttpServerLimit, LongHeadsThatDoNotEndAreCounted) {
  StartWith({.header_timeout_ms = 60000, .memory_bytes = kMebibyte});
  std::vector<std::unique_ptr<CRawClient>> clients;
  bool refused = false;
  for (int count = 0; count < 40 && !refused; ++count) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->TrySend("GET / HTTP/1.1\r\nA: " + std::string(60000, 'x'));
    refused = !clients.back()->IsSilent(50);
  }
  ASSERT_TRUE(refused);
  EXPECT_EQ(clients.back()->ReadReply().status, 503);
  EXPECT_LE(TansyNet::CMemoryAccount::Process().Used(), kMebibyte);
  clients.clear();
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 0; }));
}

// Each waiting body holds the bytes that came before the server knew that it has to wait.
TEST_F(HttpServerLimit, NoMoreBodiesWaitForRoomThanMayHoldSome) {
  StartWith({.memory_bytes = 5 * kMebibyte});
  const std::string body(2 * kMebibyte, 'x');
  const std::string request = "PUT / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  std::vector<std::unique_ptr<CRawClient>> clients;
  std::vector<Delivery> kept;
  for (int count = 0; count < 2; ++count) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->Send(request);
    kept.push_back(Take());
  }
  int refused = 0;
  for (int count = 0; count < 4; ++count) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->TrySend(std::string_view(request).substr(0, 100000));
    refused += clients.back()->IsSilent(200) ? 0 : 1;
  }
  EXPECT_EQ(refused, 2) << "two may wait";
  EXPECT_EQ(clients.back()->ReadReply().status, 503);
}

TEST_F(HttpServerLimit, ABodyThatNobodyCheckedHasATimeInAll) {
  StartWith({.body_timeout_ms = 60000, .unchecked_body_timeout_ms = kShortMs, .least_bytes_per_second = 1000000});
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nContent-Length: 1000\r\n\r\n");
  const std::jthread dripping = Drip(client, "x");
  EXPECT_EQ(client.ReadReply().status, 408);
  ExpectAtLeastTheLimit();
}

// The length of such a body is not known when its time begins.
TEST_F(HttpServerLimit, ABodyInChunksHasTheTimeThatItsBytesTake) {
  StartWith(
      {.unchecked_body_timeout_ms = kLongerMs, .least_bytes_per_second = 1000},
      [](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, std::to_string(message.body_size)); });
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  for (int count = 0; count < 10; ++count) {
    client.TrySend("3e8\r\n" + std::string(1000, 'x') + "\r\n");
    std::this_thread::sleep_for(milliseconds(kLongerMs / 5));
  }
  client.TrySend("0\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "10000");
}

TEST_F(HttpServerLimit, ABodyInChunksThatDripsHasATimeInAll) {
  StartWith({.body_timeout_ms = 60000, .unchecked_body_timeout_ms = kShortMs, .least_bytes_per_second = 1000000});
  CRawClient client(Port());
  client.Send("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  const std::jthread dripping = Drip(client, "1\r\nx\r\n");
  EXPECT_EQ(client.ReadReply().status, 408);
  ExpectAtLeastTheLimit();
}

TEST_F(HttpServerLimit, BodyMemoryCountsUploadsToo) {
  StartWith({.body_timeout_ms = kShortMs, .memory_bytes = 8 * kMebibyte});
  CRawClient upload(Port());
  std::jthread sender(
      [&] { upload.TrySend("PUT / HTTP/1.1\r\nContent-Length: 12582912\r\n\r\n" + std::string(12 * kMebibyte, 'x')); });
  Delivery first = Take();
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 8 * kMebibyte; }))
      << "a piece is kept, and one is read ahead";
  CRawClient client(Port());
  client.TrySend("POST / HTTP/1.1\r\nContent-Length: 2097152\r\n\r\n" + std::string(2 * kMebibyte, 'x'));
  EXPECT_EQ(client.ReadReply().status, 503);
  AnswerText(first.handle, "enough");
  first = {};
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 0; }));
}

TEST_F(HttpServerLimit, WhatSocketsDoNotTakeOfAnswersIsCounted) {
  StartWith({.least_rate_window_ms = kNoWindowMs, .memory_bytes = 40 * kMebibyte});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient reader(Port(), {.receive_buffer = 65536});
  reader.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), 0);
  const std::uint64_t used = TansyNet::CMemoryAccount::Process().Used(TansyNet::MemoryUse::kAnswers);
  EXPECT_GT(used, kMebibyte);
  EXPECT_LE(used, body.size() + 1024);
  CRawClient refused(Port());
  refused.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), TansyNet::kNetNoMemory);
  EXPECT_EQ(refused.ReadReply().status, 503);
  CRawClient small(Port());
  small.Send("GET / HTTP/1.1\r\n\r\n");
  AnswerText(Take().handle, "fine");
  EXPECT_EQ(small.ReadReply().body, "fine");
  EXPECT_TRUE(reader.ReadReply().body == body) << "a client that reads is not cut";
  EXPECT_EQ(TansyNet::CMemoryAccount::Process().Used(), 0U);
}

// Without a least rate, nothing would cut this client before its time to send is over.
TEST_F(HttpServerLimit, AReaderThatStandsStillMakesRoomForALargeAnswer) {
  StartWith({.least_bytes_per_second = 0, .least_rate_window_ms = 4 * kShortMs, .memory_bytes = 40 * kMebibyte});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient standing(Port(), {.receive_buffer = 65536});
  standing.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), 0);
  SetHandler([&](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, body); });
  EXPECT_TRUE(Eventually([&] {
    CRawClient honest(Port());
    honest.Send("GET / HTTP/1.1\r\n\r\n");
    return honest.ReadReply().body == body;
  }));
  EXPECT_THROW(standing.ReadReply(), std::runtime_error) << "it was cut";
}

TEST_F(HttpServerLimit, TheRoomOfAnAnswerIsClaimedBeforeItsBytesAreThere) {
  StartWith({.least_rate_window_ms = kNoWindowMs, .memory_bytes = 40 * kMebibyte});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient first(Port());
  first.Send("GET / HTTP/1.1\r\n\r\n");
  const std::int32_t claimed = Take().handle;
  EXPECT_EQ(CHttpServer::ClaimAnswer(claimed, 16 * kMebibyte), 0);
  CRawClient second(Port());
  second.Send("GET / HTTP/1.1\r\n\r\n");
  const std::int32_t refused = Take().handle;
  EXPECT_EQ(CHttpServer::ClaimAnswer(refused, 16 * kMebibyte), TansyNet::kNetNoMemory);
  EXPECT_EQ(second.ReadReply().status, 503);
  EXPECT_EQ(CHttpServer::ClaimAnswer(refused, 16 * kMebibyte), TansyNet::kNetUnknownHandle) << "it is answered";
  std::jthread answer([&] { EXPECT_EQ(AnswerText(claimed, body), 0); });
  EXPECT_TRUE(first.ReadReply().body == body);
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 0; }));
  // A claim ends with its request, whatever the answer.
  first.Send("GET / HTTP/1.1\r\n\r\n");
  const std::int32_t failed = Take().handle;
  EXPECT_EQ(CHttpServer::ClaimAnswer(failed, 16 * kMebibyte), 0);
  AnswerText(failed, "the storage failed");
  EXPECT_EQ(first.ReadReply().body, "the storage failed");
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 0; }));
}

TEST_F(HttpServerLimit, AReaderThatReadsKeepsItsRoom) {
  StartWith({.least_rate_window_ms = 4 * kLongerMs, .memory_bytes = 40 * kMebibyte});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient reading(Port(), {.receive_buffer = 65536});
  reading.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), 0);
  while (steady_clock::now() - begin_ < milliseconds(2 * kLongerMs)) {
    reading.ReadBytes(kMebibyte / 16);
    std::this_thread::sleep_for(milliseconds(kLongerMs / 20));
  }
  CRawClient refused(Port());
  refused.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), TansyNet::kNetNoMemory);
  EXPECT_EQ(refused.ReadReply().status, 503);
  reading.ReadBytes(10 * kMebibyte);
}

// A client that reads a byte now and then must not keep room that others need.
TEST_F(HttpServerLimit, ReadersThatDripAreCutWhileMemoryIsShort) {
  StartWith({.least_rate_window_ms = 400, .memory_bytes = 40 * kMebibyte});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient reader(Port(), {.receive_buffer = 65536});
  reader.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), 0);
  std::jthread dripping([&](const std::stop_token& stop) {
    try {
      while (!stop.stop_requested()) {
        reader.ReadBytes(1);
        std::this_thread::sleep_for(milliseconds(20));
      }
    } catch (const std::runtime_error&) {
      // cut
    }
  });
  EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 0; }));
}

TEST_F(HttpServerLimit, ReadersThatDripAreServedWhileMemoryIsNotShort) {
  StartWith({.least_rate_window_ms = 50, .memory_bytes = 400 * kMebibyte});
  const std::string body(16 * kMebibyte, 'x');
  CRawClient reader(Port(), {.receive_buffer = 65536});
  reader.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(AnswerText(Take().handle, body), 0);
  std::this_thread::sleep_for(milliseconds(300));  // several windows
  EXPECT_EQ(reader.ReadReply().body.size(), body.size());
}

TEST_F(HttpServerLimit, ManySilentConnectionsCostLittle) {
  StartWith({}, [](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  std::vector<std::unique_ptr<CRawClient>> silent;
  for (int count = 0; count < 300; ++count) {
    silent.push_back(std::make_unique<CRawClient>(Port()));
    silent.back()->Send(count % 2 == 0 ? "GET / HT" : "PUT / HTTP/1.1\r\nContent-Length: 10485760\r\n\r\n");
  }
  CRawClient client(Port());
  for (int count = 0; count < 20; ++count) {
    client.Send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.ReadReply().body, "ok");
  }
}

}  // namespace
