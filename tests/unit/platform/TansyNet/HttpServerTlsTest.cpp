// HTTPS listeners and their certificates.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/TempFolder.h"
#include "fakes/TestCertificate.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::CRawTlsClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::FreePort;
using Tansy::Tests::MakeTestCertificate;
using Tansy::Tests::ServerFixture;
using Tansy::Tests::TestCertificate;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;
using TansyNet::HttpsServer;

constexpr std::string_view kGet = "GET / HTTP/1.1\r\n\r\n";

// A fresh folder with the certificate pair "pair.crt" and "pair.key".
class HttpServerTls : public ServerFixture {
 protected:
  HttpServerTls() {
    Write("pair.crt", certificate_.certificate_pem);
    Write("pair.key", certificate_.key_pem);
    settings_.certificate_path = Path("pair");
    settings_.private_key_path = Path("pair");
  }

  std::string Path(const std::string& name) const { return folder_.Path(name); }
  void Write(const std::string& name, const std::string& text) const { folder_.Write(name, text); }

  int Start(const HttpsServer& settings) {
    std::int32_t handle = 0;
    const int result = CHttpServer::StartHttpsServer(handle, "127.0.0.1", FreePort(), settings, OnRequest);
    if (result == 0) {
      CHttpServer::StopServer(handle);
    }
    return result;
  }

  void ExpectCertificateError(const HttpsServer& settings, const std::string& names) {
    EXPECT_EQ(Start(settings), TansyNet::kNetCertificate);
    const std::string error = CHttpServer::LastError();
    EXPECT_NE(error.find(names), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }

  const TestCertificate certificate_ = MakeTestCertificate();
  HttpsServer settings_;
  Tansy::Tests::CTempFolder folder_;
};

std::string Echo(CRawClient& client, const std::string& body) {
  client.Send("POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  return client.ReadReply().body;
}

void EchoHandler(std::int32_t handle, HttpServerRecv& message) {
  AnswerText(handle, message.body == nullptr ? std::string_view("none") : std::string_view(*message.body));
}

TEST_F(HttpServerTls, ServesModernProtocolsOnly) {
  StartTls(settings_, EchoHandler);
  CRawTlsClient newest(Port());
  EXPECT_EQ(newest.ProtocolName(), "TLSv1.3");
  EXPECT_EQ(Echo(newest, "hello"), "hello");
  CRawTlsClient older(Port(), TLS1_2_VERSION);
  EXPECT_EQ(older.ProtocolName(), "TLSv1.2");
  EXPECT_NE(older.CipherName().find("ECDHE"), std::string::npos) << older.CipherName();
  EXPECT_EQ(Echo(older, "hello"), "hello");
  EXPECT_THROW(CRawTlsClient(Port(), TLS1_1_VERSION), std::runtime_error);
  EXPECT_THROW(CRawTlsClient(Port(), TLS1_VERSION), std::runtime_error);
}

TEST_F(HttpServerTls, CarriesLargeBodiesBothWays) {
  StartTls(settings_, EchoHandler);
  std::string body(3 * 1024 * 1024 + 11, ' ');
  for (std::size_t index = 0; index < body.size(); ++index) {
    body[index] = static_cast<char>(index * 31 + index / 4096);
  }
  CRawTlsClient client(Port());
  for (const std::size_t size : {std::size_t{1}, std::size_t{16384}, std::size_t{16385}, body.size()}) {
    EXPECT_TRUE(Echo(client, body.substr(0, size)) == body.substr(0, size)) << size;
  }
}

TEST_F(HttpServerTls, CarriesUploadsInPieces) {
  std::string received;
  StartTls(settings_, [&](std::int32_t handle, HttpServerRecv& message) {
    received += *message.body;
    if (message.error_code == TansyNet::kLastBodyPiece) {
      AnswerText(handle, "stored");
    }
  });
  std::string body(11 * 1024 * 1024 + 3, ' ');
  for (std::size_t index = 0; index < body.size(); ++index) {
    body[index] = static_cast<char>(index * 17 + index / 4096);
  }
  CRawTlsClient client(Port());
  client.Send("PUT /b/k HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(client.ReadReply().body, "stored");
  EXPECT_TRUE(received == body);
}

TEST_F(HttpServerTls, CarriesAnswersInChunks) {
  StartTls(settings_);
  CRawTlsClient client(Port());
  client.Send(kGet);
  const std::int32_t handle = Take().handle;
  const std::string chunk(5 * 1024 * 1024, 'c');
  std::jthread reader([&] { EXPECT_EQ(client.ReadReply().body.size(), 3 * chunk.size()); });
  for (int count = 0; count < 3; ++count) {
    EXPECT_EQ(CHttpServer::HttpServerSyncSendBigRsp(handle, {}, static_cast<std::uint32_t>(chunk.size()), chunk.data(),
                                                    3 * chunk.size()),
              0);
  }
}

TEST_F(HttpServerTls, FinishesAnswersForSlowReaders) {
  StartTls(settings_);
  CRawTlsClient client(Port());
  client.Send(kGet);
  std::string body(10 * 1024 * 1024, ' ');
  for (std::size_t index = 0; index < body.size(); ++index) {
    body[index] = static_cast<char>(index * 13 + index / 4096);
  }
  EXPECT_EQ(AnswerText(Take().handle, body), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_TRUE(client.ReadReply().body == body);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
  client.Send(kGet);
  AnswerText(Take().handle, "next");
  EXPECT_EQ(client.ReadReply().body, "next");
}

TEST_F(HttpServerTls, ServesRequestsThatFollowWithoutWaiting) {
  StartTls(settings_, EchoHandler);
  CRawTlsClient client(Port());
  std::string requests;
  for (int index = 0; index < 100; ++index) {
    requests += "POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\n" + std::to_string(100 + index);
  }
  client.Send(requests);
  for (int index = 0; index < 100; ++index) {
    EXPECT_EQ(client.ReadReply().body, std::to_string(100 + index));
  }
}

TEST_F(HttpServerTls, ResumesSessions) {
  StartTls(settings_, EchoHandler);
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    CRawTlsClient first(Port(), version);
    EXPECT_FALSE(first.IsResumed());
    EXPECT_EQ(Echo(first, "x"), "x");
    SSL_SESSION* const session = first.Session();
    CRawTlsClient second(Port(), version, session);
    SSL_SESSION_free(session);
    EXPECT_TRUE(second.IsResumed()) << version;
    EXPECT_EQ(Echo(second, "y"), "y");
  }
}

TEST_F(HttpServerTls, TakesOneFileThatHoldsBoth) {
  Write("both.pem", certificate_.certificate_pem + certificate_.key_pem);
  settings_.certificate_path = settings_.private_key_path = Path("both.pem");
  EXPECT_EQ(Start(settings_), 0) << CHttpServer::LastError();
}

TEST_F(HttpServerTls, TakesTwoFilesByTheirNames) {
  settings_.certificate_path = Path("pair.crt");
  settings_.private_key_path = Path("pair.key");
  EXPECT_EQ(Start(settings_), 0) << CHttpServer::LastError();
}

TEST_F(HttpServerTls, SaysWhichFileIsMissing) {
  settings_.certificate_path = settings_.private_key_path = Path("none");
  ExpectCertificateError(settings_, Path("none.crt"));
  std::filesystem::remove(Path("pair.key"));
  settings_.certificate_path = settings_.private_key_path = Path("pair");
  ExpectCertificateError(settings_, Path("pair.key"));
  ExpectCertificateError({}, "certificate");
}

TEST_F(HttpServerTls, RefusesBrokenAndForeignPairs) {
  Write("broken.crt", "-----BEGIN CERTIFICATE-----\nnonsense\n-----END CERTIFICATE-----\n");
  Write("broken.key", certificate_.key_pem);
  HttpsServer broken;
  broken.certificate_path = broken.private_key_path = Path("broken");
  ExpectCertificateError(broken, Path("broken.crt"));
  Write("foreign.crt", certificate_.certificate_pem);
  Write("foreign.key", MakeTestCertificate().key_pem);
  HttpsServer foreign;
  foreign.certificate_path = foreign.private_key_path = Path("foreign");
  ExpectCertificateError(foreign, "mismatch");
  Write("empty.crt", certificate_.certificate_pem);
  Write("empty.key", "");
  HttpsServer empty;
  empty.certificate_path = empty.private_key_path = Path("empty");
  ExpectCertificateError(empty, Path("empty.key"));
}

TEST_F(HttpServerTls, ReloadsItsCertificateForNewConnections) {
  StartTls(settings_, EchoHandler);
  CRawTlsClient before(Port());
  const std::string old_certificate = before.PeerCertificate();
  const TestCertificate renewed = MakeTestCertificate();
  Write("pair.crt", renewed.certificate_pem);
  Write("pair.key", renewed.key_pem);
  EXPECT_EQ(CHttpServer::ReloadCertificates(), 0) << CHttpServer::LastError();
  CRawTlsClient after(Port());
  EXPECT_NE(after.PeerCertificate(), old_certificate);
  EXPECT_EQ(Echo(after, "new"), "new");
  EXPECT_EQ(Echo(before, "old"), "old");
  Write("pair.key", certificate_.key_pem);
  EXPECT_EQ(CHttpServer::ReloadCertificates(), TansyNet::kNetCertificate);
  EXPECT_NE(CHttpServer::LastError(), "");
  CRawTlsClient still(Port());
  EXPECT_EQ(still.PeerCertificate(), after.PeerCertificate());
}

TEST_F(HttpServerTls, AnswersPlainHttpWithARefusal) {
  StartTls(settings_, EchoHandler);
  CRawClient client(Port());
  client.Send(kGet);
  EXPECT_EQ(client.ReadReply().status, 400);
  EXPECT_TRUE(client.WaitForEnd());
}

TEST_F(HttpServerTls, ClosesOnNonsense) {
  StartTls(settings_, EchoHandler);
  CRawClient client(Port());
  client.Send(std::string(2000, '\xff'));
  std::string rest;
  EXPECT_THROW(
      for (;;) { rest += client.ReadBytes(1); }, std::runtime_error);
  CRawTlsClient other(Port());
  EXPECT_EQ(Echo(other, "fine"), "fine");
}

TEST_F(HttpServerTls, DoesNotWaitForAHandshakeThatNeverEnds) {
  TansyNet::HttpServerLimits limits;
  limits.header_timeout_ms = 150;
  CHttpServer::SetLimits(limits);
  StartTls(settings_, EchoHandler);
  const auto begin = std::chrono::steady_clock::now();
  CRawClient silent(Port());
  CRawClient partial(Port());
  partial.Send("\x16\x03\x01");
  EXPECT_TRUE(silent.WaitForEnd());
  EXPECT_TRUE(partial.WaitForEnd());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(130));
}

TEST_F(HttpServerTls, AsksForClientCertificatesWhenTold) {
  TestCertificate authority;
  authority = MakeTestCertificate({.names = "DNS:authority", .common_name = "authority", .authority = true});
  Write("trust.pem", authority.certificate_pem);
  settings_.require_client_certificate = true;
  ExpectCertificateError(settings_, "authorities");
  settings_.trust_path = Path("trust.pem");
  StartTls(settings_, EchoHandler);
  EXPECT_THROW(
      {
        CRawTlsClient anonymous(Port());
        Echo(anonymous, "x");
      },
      std::runtime_error);
}

TEST_F(HttpServerTls, ForgetsRequestsWhoseClientVanishes) {
  StartTls(settings_);
  auto client = std::make_unique<CRawTlsClient>(Port());
  client->Send(kGet);
  const Delivery delivery = Take();
  client->Reset();
  EXPECT_TRUE(Tansy::Tests::Eventually([] { return CHttpServer::OpenRequestCount() == 0; }));
  EXPECT_EQ(AnswerText(delivery.handle, "late"), TansyNet::kNetUnknownHandle);
}

TEST_F(HttpServerTls, EndsIdleConnectionsWithAGoodbye) {
  CHttpServer::SetLimits({.idle_timeout_ms = 100});
  StartTls(settings_, EchoHandler);
  CRawTlsClient client(Port());
  EXPECT_TRUE(client.WaitForEnd());
  EXPECT_TRUE(client.HasSaidGoodbye());
}

TEST_F(HttpServerTls, StoppedSaysGoodbyeToIdleConnections) {
  StartTls(settings_, EchoHandler);
  CRawTlsClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  client.ReadReply();
  EXPECT_EQ(CHttpServer::StopServer(ListenerHandle()), 0);
  EXPECT_TRUE(client.WaitForEnd());
  EXPECT_TRUE(client.HasSaidGoodbye());
}

}  // namespace
