// What the log says about clients that the callback never hears of.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/TempFolder.h"
#include "fakes/TestCertificate.h"

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CLogCapture;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Eventually;
using Tansy::Tests::MakeTestCertificate;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

constexpr const char* kRefused = "[%s]request refused, status = %d, handle = %d, ip = %s, url = %s[%s(%d)]";
constexpr const char* kBrokenOff = "[%s]request broken off, handle = %d, ip = %s, url = %s[%s(%d)]";
constexpr const char* kHandshake = "[%s]TLS handshake failed[%s], ip = %s[%s(%d)]";

class HttpServerLog : public ServerFixture {
 protected:
  // Expects one line of this format that contains `words`, at the level that operators see.
  void ExpectLine(const char* format, const std::string& words) {
    EXPECT_TRUE(Eventually([&] { return log_->Count(format) > 0; })) << format;
    EXPECT_EQ(log_->Count(format, logging::kNotable), 1U);
    EXPECT_NE(log_->Text(format).find(words), std::string::npos) << log_->Text(format);
    log_->Clear();
  }
  std::size_t LineCount() { return log_->Count(kRefused) + log_->Count(kBrokenOff) + log_->Count(kHandshake); }

  CLogCapture log_;
};

TEST_F(HttpServerLog, NamesWhatIsRefused) {
  Start();
  struct Case {
    std::string bytes;
    std::string words;
  };
  const Case cases[] = {
      {"hello\r\n\r\n", "status = 400, handle = 0, ip = 127.0.0.1, url = ["},
      {"GET / HTTP/1.1\r\nX: " + std::string(70000, 'x') + "\r\n\r\n", "status = 431, "},
      {"PUT /b/k HTTP/1.1\r\nContent-Length: 4294967296\r\n\r\n", "status = 413, "},
      {"POST /b/k HTTP/1.1\r\nContent-Length: 67108865\r\n\r\n",
       "status = 413, handle = 0, ip = 127.0.0.1, url = /b/k["},
      {"POST /b/k HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "ip = 127.0.0.1, url = /b/k["},
  };
  for (const Case& c : cases) {
    CRawClient client(Port());
    client.TrySend(c.bytes);
    EXPECT_GE(client.ReadReply().status, 400);
    ExpectLine(kRefused, c.words);
  }
}

TEST_F(HttpServerLog, NamesWhatTakesTooLong) {
  CHttpServer::SetLimits({.header_timeout_ms = 100, .body_timeout_ms = 100});
  Start();
  CRawClient header(Port());
  header.Send("GET /b/k HTT");
  EXPECT_EQ(header.ReadReply().status, 408);
  ExpectLine(kRefused, "status = 408, handle = 0, ip = 127.0.0.1, url = [");
  CRawClient body(Port());
  body.Send("POST /b/k HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
  EXPECT_EQ(body.ReadReply().status, 408);
  ExpectLine(kRefused, "status = 408, handle = 0, ip = 127.0.0.1, url = /b/k[");
}

TEST_F(HttpServerLog, NamesBodiesThatAreShorterThanDeclared) {
  Start();
  const std::string_view requests[] = {"POST /b/k HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc",
                                       "PUT /b/k HTTP/1.1\r\nContent-Length: 20000000\r\n\r\nabc",
                                       "POST /b/k HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabc"};
  for (const std::string_view request : requests) {
    CRawClient client(Port());
    client.Send(request);
    client.ShutdownSend();
    EXPECT_TRUE(client.WaitForEnd());
    ExpectLine(kBrokenOff, "handle = 0, ip = 127.0.0.1, url = /b/k[");
  }
  CRawClient client(Port());
  client.Send("GET /b/k HTT");
  client.ShutdownSend();
  ExpectLine(kBrokenOff, "ip = 127.0.0.1, url = [");
}

TEST_F(HttpServerLog, HasNothingToSayAboutProperClients) {
  CHttpServer::SetLimits({.idle_timeout_ms = 100});
  Start([](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "ok"); });
  {
    const CRawClient looks_in(Port());
    CRawClient leaves(Port());
    leaves.Send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(leaves.ReadReply().body, "ok");
  }
  CRawClient idles(Port());
  idles.Send("PUT / HTTP/1.1\r\nContent-Length: 2\r\n\r\nok");
  EXPECT_EQ(idles.ReadReply().body, "ok");
  EXPECT_TRUE(idles.WaitForEnd());
  EXPECT_EQ(LineCount(), 0U);
}

TEST_F(HttpServerLog, NamesHandshakesThatComeToNothing) {
  auto folder = std::make_unique<Tansy::Tests::CTempFolder>();
  const auto certificate = MakeTestCertificate();
  folder->Write("pair.crt", certificate.certificate_pem);
  folder->Write("pair.key", certificate.key_pem);
  TansyNet::HttpsServer tls;
  tls.certificate_path = tls.private_key_path = folder->Path("pair");
  CHttpServer::SetLimits({.header_timeout_ms = 200});
  StartTls(tls);
  folder.reset();

  CRawClient silent(Port());
  EXPECT_TRUE(silent.WaitForEnd());
  ExpectLine(kHandshake, "failed[the client was silent or left], ip = 127.0.0.1[");
  CRawClient half(Port());
  half.Send(std::string_view("\x16\x03\x01\x02\x00\x01\x00", 7));
  EXPECT_TRUE(half.WaitForEnd());
  ExpectLine(kHandshake, "failed[the client was silent or left], ip = 127.0.0.1[");
  CRawClient noise(Port());
  noise.Send(std::string(300, '\x7f'));
  ExpectLine(kHandshake, "failed[wrong version number], ip = 127.0.0.1[");
  CRawClient plain(Port());
  plain.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(plain.ReadReply().status, 400);
  ExpectLine(kRefused, "status = 400, handle = 0, ip = 127.0.0.1, url = [");
}

}  // namespace
