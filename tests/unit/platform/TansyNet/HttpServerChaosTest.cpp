// Clients that break off anywhere, many at once, while workers answer in every way there is.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/MemoryAccount.h"
#include "fakes/TestCertificate.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::CRawTlsClient;
using Tansy::Tests::CTemporaryFile;
using Tansy::Tests::Eventually;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

constexpr std::size_t kBigAnswer = 3 * 1024 * 1024;
constexpr std::size_t kChunk = 1024 * 1024;
constexpr std::uint64_t kUpload = 11 * 1024 * 1024;

// Answers from threads of its own, as the module's message loop does.
class CWorkers {
 public:
  CWorkers() {
    for (int count = 0; count < 3; ++count) {
      threads_.emplace_back([this](const std::stop_token& stop) { Run(stop); });
    }
  }

  void Post(std::int32_t handle, HttpServerRecv message) {
    const std::scoped_lock lock(mutex_);
    tasks_.emplace_back(handle, std::move(message));
    wake_.notify_one();
  }

 private:
  void Run(const std::stop_token& stop) {
    for (;;) {
      std::unique_lock lock(mutex_);
      if (!wake_.wait(lock, stop, [this] { return !tasks_.empty(); })) {
        return;
      }
      const auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      Answer(task.first, task.second);
    }
  }

  static void Answer(std::int32_t handle, const HttpServerRecv& message) {
    if (message.error_code == TansyNet::kBodyPiece) {
      return;
    }
    if (message.url == "/big") {
      AnswerText(handle, std::string(kBigAnswer, 'b'));
    } else if (message.url == "/chunks") {
      const std::string chunk(kChunk, 'c');
      TansyNet::HttpResponse response;
      response.send_timeout_ms = 2000;
      for (std::size_t sent = 0; sent < kBigAnswer; sent += kChunk) {
        if (CHttpServer::HttpServerSyncSendBigRsp(handle, response, kChunk, chunk.data(), kBigAnswer) != 0) {
          return;
        }
      }
    } else if (message.url != "/never") {
      AnswerText(handle, "small");
      AnswerText(handle, "twice");
    }
  }

  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::deque<std::pair<std::int32_t, HttpServerRecv>> tasks_;
  std::vector<std::jthread> threads_;
};

class HttpServerChaos : public ServerFixture {
 protected:
  using Random = std::minstd_rand;

  static std::string SomeRequest(Random& random) {
    switch (random() % 7) {
      case 0:
        return "GET /big HTTP/1.1\r\n\r\n";
      case 1:
        return "GET /chunks HTTP/1.1\r\n\r\n";
      case 2:
        return "GET /never HTTP/1.1\r\n\r\n";
      case 3:
        return "PUT /up HTTP/1.1\r\nContent-Length: " + std::to_string(kUpload) + "\r\n\r\n" +
               std::string(random() % kUpload, 'u');
      case 4:
        return "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n";
      case 5:
        return "NONSENSE\r\n\r\n";
      default:
        return "GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\nPOST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello";
    }
  }

  // One connection that ends somehow.
  static void Misbehave(CRawClient& client, Random& random) {
    const std::string request = SomeRequest(random);
    const std::string_view bytes = request;
    const std::size_t cut = random() % 3 == 0 ? random() % bytes.size() : bytes.size();
    if (!client.TrySend(bytes.substr(0, cut))) {
      return;
    }
    if (random() % 2 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    }
    switch (random() % 4) {
      case 0:
        client.Reset();
        break;
      case 1:
        client.ShutdownSend();
        break;
      case 2:
        try {
          client.ReadBytes(1 + random() % 1000);
        } catch (const std::runtime_error&) {
          return;  // refused, or closed after its time
        }
        break;
      default:
        break;
    }
  }

  template <typename Client>
  void Rage(std::uint16_t port) {
    std::vector<std::jthread> clients;
    for (unsigned seed = 1; seed <= 6; ++seed) {
      clients.emplace_back([port, seed] {
        Random random(seed);
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
        while (std::chrono::steady_clock::now() < end) {
          try {
            Client client(port);
            Misbehave(client, random);
          } catch (const std::runtime_error&) {
            continue;  // the connection or its handshake was cut off
          }
        }
      });
    }
  }

  void ExpectCalm(std::uint16_t port) {
    EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }))
        << CHttpServer::OpenRequestCount() << " requests are still open";
    CRawClient client(port);
    client.Send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.ReadReply().body, "small");
    EXPECT_TRUE(Eventually([] { return TansyNet::CMemoryAccount::Process().Used() == 0; }));
  }

  static TansyNet::HttpServerLimits ShortLimits() {
    TansyNet::HttpServerLimits limits;
    limits.header_timeout_ms = limits.body_timeout_ms = limits.idle_timeout_ms = limits.unanswered_timeout_ms = 300;
    return limits;
  }

  CWorkers workers_;
};

TEST_F(HttpServerChaos, LeavesNothingBehind) {
  CHttpServer::SetLimits(ShortLimits());
  Start([this](std::int32_t handle, HttpServerRecv& message) { workers_.Post(handle, std::move(message)); });
  Rage<CRawClient>(Port());
  ExpectCalm(Port());
}

// Sends unencrypted bytes into encrypted connections from time to time, because TrySend does not encrypt.
class CTlsClientThatSlips final : public CRawTlsClient {
 public:
  explicit CTlsClientThatSlips(std::uint16_t port) : CRawTlsClient(port) {
    Send("GET / HTTP/1.1\r\n\r\nGET /big HTTP/1.1\r\n\r\n");
  }
};

TEST_F(HttpServerChaos, LeavesNothingBehindOverTls) {
  const auto certificate = Tansy::Tests::MakeTestCertificate();
  const CTemporaryFile both(certificate.certificate_pem + certificate.key_pem);
  TansyNet::HttpsServer tls;
  tls.certificate_path = tls.private_key_path = both.path();
  CHttpServer::SetLimits(ShortLimits());
  StartTls(tls, [this](std::int32_t handle, HttpServerRecv& message) { workers_.Post(handle, std::move(message)); });
  Rage<CTlsClientThatSlips>(Port());
  EXPECT_TRUE(Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
  CRawTlsClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "small");
}

TEST_F(HttpServerChaos, CanBeShutDownInTheMiddle) {
  CHttpServer::SetLimits(ShortLimits());
  for (int round = 0; round < 3; ++round) {
    Start([this](std::int32_t handle, HttpServerRecv& message) { workers_.Post(handle, std::move(message)); });
    std::jthread clients([this] { Rage<CRawClient>(Port()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    CHttpServer::Shutdown(20);
    EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
  }
}

}  // namespace
