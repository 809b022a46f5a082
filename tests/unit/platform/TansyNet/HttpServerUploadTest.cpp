// Bodies that are delivered in pieces.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/MemoryAccount.h"
#include "fakes/RandomBytes.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

constexpr std::size_t kMebibyte = 1024 * 1024;

std::string PutHead(std::uint64_t size, std::string_view more = {}) {
  return "PUT /b/k HTTP/1.1\r\nContent-Length: " + std::to_string(size) + "\r\nx-qvs-a: v\r\n" + std::string(more) +
         "\r\n";
}

class HttpServerUpload : public ServerFixture {};

TEST_F(HttpServerUpload, ArrivesInPiecesInOrder) {
  Start();
  const std::string body = Tansy::Tests::RandomBytes(TansyNet::kWholeBodyLimit + 1);
  CRawClient client(Port());
  std::jthread sender([&] { client.Send(PutHead(body.size()) + body); });
  std::string received;
  std::int32_t handle = 0;
  for (bool last = false; !last;) {
    const Delivery piece = Take();
    last = piece.message.error_code == TansyNet::kLastBodyPiece;
    EXPECT_TRUE(last || piece.message.error_code == TansyNet::kBodyPiece);
    EXPECT_TRUE(handle == 0 || handle == piece.handle);
    handle = piece.handle;
    EXPECT_EQ(piece.message.method, "PUT");
    EXPECT_EQ(piece.message.url, "/b/k");
    EXPECT_EQ(piece.message.headers.at("x-qvs-a"), "v");
    EXPECT_EQ(piece.message.content_length, body.size());
    EXPECT_EQ(piece.message.body_size, piece.Body().size());
    EXPECT_GT(piece.message.body_size, 0U);
    EXPECT_LE(piece.message.body_size, TansyNet::kWholeBodyLimit);
    EXPECT_NE(piece.message.token, nullptr);
    received += piece.Body();
  }
  sender.join();
  EXPECT_TRUE(received == body);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 1U);
  EXPECT_EQ(AnswerText(handle, "stored"), 0);
  EXPECT_EQ(client.ReadReply().body, "stored");
  // The whole body was read, so the connection goes on.
  client.Send("GET / HTTP/1.1\r\n\r\n");
  AnswerText(Take().handle, "next");
  EXPECT_EQ(client.ReadReply().body, "next");
}

TEST_F(HttpServerUpload, EndsWithAFullPieceToo) {
  Start();
  const std::string body = Tansy::Tests::RandomBytes(12 * kMebibyte);
  CRawClient client(Port());
  std::jthread sender([&] { client.Send(PutHead(body.size()) + body); });
  std::string received;
  Delivery piece;
  do {
    piece = {};
    piece = Take();
    received += piece.Body();
    EXPECT_GT(piece.message.body_size, 0U);
  } while (piece.message.error_code != TansyNet::kLastBodyPiece);
  sender.join();
  EXPECT_TRUE(received == body);
  AnswerText(piece.handle, "");
  EXPECT_EQ(client.ReadReply().status, 200);
}

TEST_F(HttpServerUpload, DeliversTheNextPieceWhenTheTokenOfTheLastIsGone) {
  Start();
  const std::string body = Tansy::Tests::RandomBytes(16 * kMebibyte);
  CRawClient client(Port());
  std::jthread sender([&] { client.TrySend(PutHead(body.size()) + body); });
  auto first = std::make_unique<Delivery>(Take());
  auto copy = std::make_unique<HttpServerRecv>(first->message);
  EXPECT_EQ(copy->body.get(), first->message.body.get());
  first.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(HasDelivery()) << "a copy still holds the token";
  // The server reads only a bounded number of bytes ahead; the client still has the rest of the body.
  const auto token = copy->token;
  copy.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(HasDelivery()) << "the token alone counts as well";
  std::weak_ptr<const void> gone = token;
  const_cast<std::shared_ptr<const void>&>(token).reset();
  EXPECT_TRUE(gone.expired());
  const Delivery second = Take();
  EXPECT_EQ(second.message.error_code, TansyNet::kBodyPiece);
  CHttpServer::Shutdown(0);
  sender.join();
}

TEST_F(HttpServerUpload, IsReadAheadByOnePieceOnly) {
  Start();
  constexpr std::size_t kSize = 256 * kMebibyte;
  CRawClient client(Port());
  std::atomic<std::size_t> sent{0};
  std::jthread sender([&] {
    client.TrySend(PutHead(kSize));
    const std::string block(kMebibyte, 'x');
    while (sent < kSize && client.TrySend(block)) {
      sent += block.size();
    }
  });
  {
    const Delivery first = Take();
    std::size_t before = 0;
    EXPECT_TRUE(Eventually([&] {
      const bool stands_still = sent == before;
      before = sent;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      return stands_still;
    }));
    // Two pieces and what the two socket buffers hold.
    EXPECT_LE(sent, 2 * first.message.body_size + 20 * kMebibyte);
  }
  CHttpServer::Shutdown(0);
  sender.join();
}

TEST_F(HttpServerUpload, MayHaveItsTokenDroppedAnywhere) {
  std::mutex mutex;
  std::vector<std::thread> threads;
  std::string received;
  std::atomic<int> inside{0};
  Start([&](std::int32_t handle, HttpServerRecv& message) {
    EXPECT_EQ(inside++, 0) << "one delivery at a time";
    const bool last = message.error_code == TansyNet::kLastBodyPiece;
    const std::scoped_lock lock(mutex);
    received += *message.body;
    if (threads.size() % 2 == 0) {
      auto kept = std::make_shared<HttpServerRecv>(std::move(message));
      threads.emplace_back([kept]() mutable { kept.reset(); });
    } else {
      threads.emplace_back([] {});
      message = {};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    --inside;
    if (last) {
      AnswerText(handle, "done");
    }
  });
  const std::string body = Tansy::Tests::RandomBytes(30 * kMebibyte + 12345);
  CRawClient client(Port());
  client.Send(PutHead(body.size()) + body);
  EXPECT_EQ(client.ReadReply().body, "done");
  CHttpServer::Shutdown(5000);
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(received == body);
}

TEST_F(HttpServerUpload, ThatBlocksItsReceiverDisturbsNobody) {
  std::mutex storage;
  std::atomic<int> blocked{0};
  Start([&](std::int32_t handle, HttpServerRecv& message) {
    if (message.error_code == TansyNet::kWholeRequest) {
      AnswerText(handle, "quick");
      return;
    }
    ++blocked;
    const std::scoped_lock lock(storage);
  });
  std::vector<std::unique_ptr<CRawClient>> uploads;
  {
    const std::scoped_lock lock(storage);
    const std::string begin(4 * kMebibyte, 'x');
    for (int count = 0; count < 8; ++count) {
      uploads.push_back(std::make_unique<CRawClient>(Port()));
      uploads.back()->Send(PutHead(20 * kMebibyte) + begin);
    }
    EXPECT_TRUE(Eventually([&] { return blocked >= 2; }));
    for (int count = 0; count < 50; ++count) {
      CRawClient quick(Port());
      quick.Send("GET / HTTP/1.1\r\n\r\n");
      EXPECT_EQ(quick.ReadReply().body, "quick");
    }
  }
  EXPECT_TRUE(Eventually([&] { return blocked == 8; }));
  CHttpServer::Shutdown(0);
}

TEST_F(HttpServerUpload, RefusedAtItsFirstPieceIsNotReadToItsEnd) {
  std::atomic<int> deliveries{0};
  Start([&](std::int32_t handle, HttpServerRecv& /*message*/) {
    ++deliveries;
    TansyNet::HttpResponse response;
    response.status = 403;
    EXPECT_EQ(CHttpServer::HttpServerSyncSend(handle, response, 6, "denied"), 0);
  });
  CRawClient client(Port());
  constexpr std::uint64_t kDeclared = 4294967295U;
  client.Send(PutHead(kDeclared));
  const std::string block(kMebibyte, 'x');
  std::size_t sent = 0;
  while (sent < 1024 * kMebibyte && client.TrySend(block)) {
    sent += block.size();
  }
  EXPECT_LT(sent, 200 * kMebibyte) << "the server went on reading and throwing away";
  EXPECT_EQ(deliveries, 1);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
}

TEST_F(HttpServerUpload, RefusedIsAnsweredEvenToAClientThatSendsAllBeforeItReads) {
  Start([&](std::int32_t handle, HttpServerRecv& /*message*/) {
    TansyNet::HttpResponse response;
    response.status = 403;
    CHttpServer::HttpServerSyncSend(handle, response, 6, "denied");
  });
  const std::string body(40 * kMebibyte, 'x');
  CRawClient client(Port());
  client.Send(PutHead(body.size()) + body);
  const auto reply = client.ReadReply();
  EXPECT_EQ(reply.status, 403);
  EXPECT_EQ(reply.body, "denied");
  EXPECT_EQ(reply.Header("connection"), "close");
  client.ShutdownSend();
  EXPECT_TRUE(client.WaitForEnd());
}

TEST_F(HttpServerUpload, AnsweredWhileAPieceIsKeptDeliversNoMore) {
  Start();
  const std::string body(16 * kMebibyte, 'x');
  CRawClient client(Port());
  std::jthread sender([&] { client.TrySend(PutHead(body.size()) + body); });
  auto first = std::make_unique<Delivery>(Take());
  EXPECT_EQ(AnswerText(first->handle, "enough"), 0);
  first.reset();
  sender.join();
  EXPECT_EQ(client.ReadReply().body, "enough");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(HasDelivery());
}

// The socket of an upload that waits for storage is not watched; its answer has to set that right.
TEST_F(HttpServerUpload, AnsweredWhileItsLastPieceWaitsLeavesAConnectionThatListens) {
  Start();
  const std::string body(12 * kMebibyte, 'x');
  for (bool is_kept = false; !is_kept;) {
    CRawClient client(Port());
    client.Send(PutHead(body.size()) + body.substr(0, 4 * kMebibyte));
    Delivery first = Take();
    client.Send(std::string_view(body).substr(4 * kMebibyte, 4 * kMebibyte));
    const std::int32_t handle = first.handle;
    first = {};
    const Delivery second = Take();
    client.Send(std::string_view(body).substr(8 * kMebibyte));
    AnswerText(handle, "failed");
    const auto reply = client.ReadReply();
    EXPECT_EQ(reply.body, "failed");
    is_kept = reply.Header("connection") != "close";  // otherwise the last piece has not been read yet
    if (is_kept) {
      client.Send("GET / HTTP/1.1\r\n\r\n");
      AnswerText(Take().handle, "heard");
      EXPECT_EQ(client.ReadReply().body, "heard");
    }
  }
}

TEST_F(HttpServerUpload, IsToldToContinue) {
  Start();
  CRawClient client(Port());
  client.Send(PutHead(11 * kMebibyte, "Expect: 100-continue\r\n"));
  EXPECT_EQ(client.ReadBytes(25), "HTTP/1.1 100 Continue\r\n\r\n");
  std::jthread sender([&] { client.Send(std::string(11 * kMebibyte, 'x')); });
  Delivery piece = Take();
  while (piece.message.error_code != TansyNet::kLastBodyPiece) {
    piece = {};
    piece = Take();
  }
  sender.join();
  AnswerText(piece.handle, "ok");
  EXPECT_EQ(client.ReadReply().body, "ok");
}

TEST_F(HttpServerUpload, WhoseClientVanishesIsForgotten) {
  Start();
  CRawClient client(Port());
  client.Send(PutHead(20 * kMebibyte) + std::string(5 * kMebibyte, 'x'));
  Delivery first = Take();
  client.Reset();
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
  EXPECT_EQ(AnswerText(first.handle, "late"), TansyNet::kNetUnknownHandle);
  first = {};
  EXPECT_FALSE(HasDelivery());
}

TEST_F(HttpServerUpload, MayOutliveTheLibrary) {
  Start();
  CRawClient client(Port());
  client.Send(PutHead(20 * kMebibyte) + std::string(5 * kMebibyte, 'x'));
  Delivery first = Take();
  EXPECT_FALSE(CHttpServer::Shutdown(10));
  EXPECT_EQ(first.Body().size(), first.message.body_size);
  first = {};
}

TEST_F(HttpServerUpload, ManyAtOnceArriveWhole) {
  constexpr int kUploads = 4;
  std::mutex mutex;
  std::map<std::int32_t, std::string> bodies;
  Start([&](std::int32_t handle, HttpServerRecv& message) {
    bool whole = false;
    {
      const std::scoped_lock lock(mutex);
      std::string& body = bodies[handle];
      body += *message.body;
      whole = body.size() == message.content_length;
    }
    EXPECT_EQ(whole, message.error_code == TansyNet::kLastBodyPiece);
    if (whole) {
      AnswerText(handle, std::to_string(handle));
    }
  });
  const std::string body = Tansy::Tests::RandomBytes(11 * kMebibyte + 17);
  std::vector<std::thread> clients;
  std::atomic<int> right{0};
  for (int index = 0; index < kUploads; ++index) {
    clients.emplace_back([&] {
      CRawClient client(Port());
      client.Send(PutHead(body.size()) + body);
      const std::int32_t handle = std::stoi(client.ReadReply().body);
      const std::scoped_lock lock(mutex);
      right += bodies[handle] == body ? 1 : 0;
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(right, kUploads);
}

// A body of unknown length, in chunks of this size.
std::string Chunked(std::string_view body, std::size_t chunk) {
  std::string text;
  while (!body.empty()) {
    const std::string_view part = body.substr(0, chunk);
    body.remove_prefix(part.size());
    char length[20];
    std::snprintf(length, sizeof length, "%zx\r\n", part.size());
    text.append(length).append(part).append("\r\n");
  }
  return text + "0\r\n\r\n";
}

constexpr const char* kChunkedHead = "PUT /b/k HTTP/1.1\r\nTransfer-Encoding: chunked\r\n";

class HttpServerChunkedUpload : public ServerFixture {
 protected:
  HttpServerChunkedUpload() { style_.unknown_length = TansyNet::EUnknownLength::kInPieces; }

  // Takes all pieces of a body; gives its bytes.
  std::string TakeAll(std::int32_t& handle) {
    std::string received;
    for (bool last = false; !last;) {
      const Delivery piece = Take();
      last = piece.message.error_code == TansyNet::kLastBodyPiece;
      EXPECT_TRUE(last || piece.message.error_code == TansyNet::kBodyPiece);
      EXPECT_EQ(piece.message.content_length, 0U);
      EXPECT_LE(piece.message.body_size, TansyNet::kWholeBodyLimit);
      EXPECT_NE(piece.message.token, nullptr);
      handle = piece.handle;
      received += piece.Body();
    }
    return received;
  }
};

TEST_F(HttpServerChunkedUpload, ArrivesInPiecesInOrder) {
  Start();
  for (const std::size_t chunk : {std::size_t{100}, std::size_t{65536}, 64 * kMebibyte}) {
    const std::string body = Tansy::Tests::RandomBytes(13 * kMebibyte + 1);
    CRawClient client(Port());
    std::jthread sender([&] { client.Send(std::string(kChunkedHead) + "\r\n" + Chunked(body, chunk)); });
    std::int32_t handle = 0;
    EXPECT_TRUE(TakeAll(handle) == body) << chunk;
    sender.join();
    EXPECT_EQ(AnswerText(handle, "stored"), 0);
    EXPECT_EQ(client.ReadReply().body, "stored");
    // The whole body was read, so the connection goes on.
    client.Send("GET / HTTP/1.1\r\n\r\n");
    AnswerText(Take().handle, "next");
    EXPECT_EQ(client.ReadReply().body, "next");
  }
}

TEST_F(HttpServerChunkedUpload, ArrivesWholeWhenItIsSmall) {
  Start();
  CRawClient client(Port());
  client.Send(std::string(kChunkedHead) + "\r\n" + Chunked("hello", 3));
  const Delivery whole = Take();
  EXPECT_EQ(whole.message.error_code, TansyNet::kWholeRequest);
  EXPECT_EQ(whole.Body(), "hello");
  AnswerText(whole.handle, "");
}

TEST_F(HttpServerChunkedUpload, IsToldToContinue) {
  Start();
  const std::string body = Tansy::Tests::RandomBytes(5 * kMebibyte);
  CRawClient client(Port());
  client.Send(std::string(kChunkedHead) + "Expect: 100-Continue\r\n\r\n");
  EXPECT_EQ(client.ReadReply(true).status, 100);
  std::jthread sender([&] { client.Send(Chunked(body, kMebibyte)); });
  std::int32_t handle = 0;
  EXPECT_TRUE(TakeAll(handle) == body);
  AnswerText(handle, "");
}

TEST_F(HttpServerChunkedUpload, ThatGoesOnWithNoChunkIsRefused) {
  Start();
  CRawClient client(Port());
  std::string text = Chunked(Tansy::Tests::RandomBytes(5 * kMebibyte), kMebibyte);
  text.resize(text.size() - std::string_view("0\r\n\r\n").size());
  std::jthread sender([&] { client.TrySend(std::string(kChunkedHead) + "\r\n" + text); });
  const Delivery first = Take();
  EXPECT_EQ(first.message.error_code, TansyNet::kBodyPiece);
  sender.join();
  client.TrySend("no chunk\r\n");  // not before: a request that is refused already is not delivered
  EXPECT_EQ(client.ReadReply().status, 400);
  EXPECT_FALSE(CHttpServer::IsRequestOpen(first.handle));
}

TEST_F(HttpServerChunkedUpload, WaitsForTheMemoryOfItsNextPiece) {
  Start();
  const std::string body = Tansy::Tests::RandomBytes(13 * kMebibyte);
  CRawClient client(Port());
  std::jthread sender([&] { client.Send(std::string(kChunkedHead) + "\r\n" + Chunked(body, kMebibyte)); });
  const TansyNet::CMemoryAccount& account = TansyNet::CMemoryAccount::Process();
  TansyNet::CMemoryShare all;
  Delivery first = Take();
  while (account.Used() < account.Limit()) {
    all.Resize(all.Bytes() + (account.Limit() - account.Used()));
  }
  const std::shared_ptr<const std::string> kept = first.message.body;  // so that its memory does not come back
  first.message = {};
  // The pieces that come now have no room. What is refused is refused within this time.
  for (int i = 0; i < 100 && CHttpServer::IsRequestOpen(first.handle); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  all.Resize(0);
  std::int32_t handle = 0;
  const std::string rest = TakeAll(handle);
  EXPECT_TRUE(*kept + rest == body);
  EXPECT_EQ(AnswerText(handle, "stored"), 0);
  EXPECT_EQ(client.ReadReply().status, 200);
}

TEST_F(HttpServerChunkedUpload, IsReadAheadByOnePieceOnly) {
  Start();
  constexpr std::size_t kSize = 256 * kMebibyte;
  CRawClient client(Port());
  std::atomic<std::size_t> sent{0};
  std::jthread sender([&] {
    const std::string chunk = "100000\r\n" + std::string(kMebibyte, 'x') + "\r\n";
    client.TrySend(std::string(kChunkedHead) + "\r\n");
    while (sent < kSize && client.TrySend(chunk)) {
      sent += kMebibyte;
    }
  });
  const Delivery first = Take();
  std::size_t before = 0;
  EXPECT_TRUE(Eventually([&] {
    const bool stands = sent == before;
    before = sent;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return stands;
  }));
  EXPECT_LT(sent, kSize / 2) << "the token of the first piece is still out";
  EXPECT_FALSE(HasDelivery());
  CHttpServer::Shutdown(0);
}

TEST_F(HttpServerChunkedUpload, IsRefusedByListenersThatDoNotTakeIt) {
  style_.unknown_length = TansyNet::EUnknownLength::kRefuse;
  Start();
  CRawClient client(Port());
  std::jthread sender([&] {
    client.TrySend(std::string(kChunkedHead) + "\r\n" + Chunked(std::string(11 * kMebibyte, 'x'), kMebibyte));
  });
  EXPECT_EQ(client.ReadReply().status, 411);
}

class HttpServerHead : public ServerFixture {};

TEST_F(HttpServerHead, IsAnsweredWithALengthAndNoBytes) {
  Start();
  CRawClient client(Port());
  client.Send("HEAD /k HTTP/1.1\r\n\r\n");
  TansyNet::HttpResponse response;
  EXPECT_EQ(CHttpServer::HttpServerSendHead(Take().handle, response, 5000000000ULL), 0);
  const auto head = client.ReadReply(true);
  EXPECT_EQ(head.status, 200);
  EXPECT_NE(head.head.find("Content-Length: 5000000000"), std::string::npos);
  client.Send("GET / HTTP/1.1\r\n\r\n");
  AnswerText(Take().handle, "next");
  EXPECT_EQ(client.ReadReply().body, "next");
}

TEST_F(HttpServerHead, DoesNotAnswerAnotherMethod) {
  Start();
  CRawClient client(Port());
  client.Send("GET /k HTTP/1.1\r\n\r\n");
  EXPECT_EQ(CHttpServer::HttpServerSendHead(Take().handle, {}, 5), TansyNet::kNetSendFailed);
  EXPECT_EQ(client.ReadReply().status, 500);
}

}  // namespace
