// Secure connections: who is trusted, what is resumed, and what it means when one ends without close_notify.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <string>
#include <utility>

#include "TansyNet/HttpClient.h"
#include "fakes/Ipv6Loopback.h"
#include "fakes/ScriptedServer.h"
#include "fakes/TestCertificate.h"

namespace TansyNet {
namespace {

using Tansy::Tests::CTemporaryFile;
using Tansy::Tests::MakeTestCertificate;
using Tansy::Tests::ScriptedAnswer;
using Tansy::Tests::ScriptedServer;
using Tansy::Tests::ScriptedServerOptions;
using Tansy::Tests::TestCertificate;

class HttpClientTlsTest : public testing::Test {
 protected:
  HttpClientTlsTest() { HttpClient::SetTlsTrust({}); }
  ~HttpClientTlsTest() override { HttpClient::SetTlsTrust({}); }

  static void Trust(const std::string& file) { HttpClient::SetTlsTrust({.trust_file = file, .accept_any = false}); }
  static void TrustAnybody() { HttpClient::SetTlsTrust({.trust_file = {}, .accept_any = true}); }

  HttpClient::Error Get(const std::string& url) {
    CHttpClientRequest request;
    request.url = url;
    request.receive_timeout_ms = 3000;
    HttpClient::Error error;
    response_ = {};
    HttpClient().Send(request, &response_, &error);
    return error;
  }

  // What a server with this certificate gets from a client that trusts it.
  HttpClient::Error GetTrusting(const TestCertificate& certificate, const std::string& host = "127.0.0.1") {
    ScriptedServer server({.https = true, .certificate = certificate});
    server.Answer("GET /", {.body = "secret"});
    Trust(server.CertificateFile());
    return Get("https://" + host + ":" + std::to_string(server.Port()) + "/");
  }

  CHttpClientResponse response_;
};

TEST_F(HttpClientTlsTest, ATrustedServerIsTalkedTo) {
  ScriptedServer server({.https = true});
  server.Answer("GET /", {.body = "secret"});
  Trust(server.CertificateFile());
  const std::string port = std::to_string(server.Port());
  for (const std::string host : {"127.0.0.1", "localhost"}) {
    const HttpClient::Error error = Get("https://" + host + ":" + port + "/");
    EXPECT_EQ(error.kind, HttpClient::kNone) << host << ": " << HttpClient::ErrorText(error);
    EXPECT_EQ(response_.body, "secret");
  }
}

TEST_F(HttpClientTlsTest, ATrustedServerIsTalkedToOverIpv6) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  ScriptedServer server({.https = true, .address = "::1"});
  server.Answer("GET /", {.body = "secret"});
  Trust(server.CertificateFile());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  EXPECT_EQ(response_.body, "secret");
}

TEST_F(HttpClientTlsTest, AnUnknownServerIsNot) {
  ScriptedServer server({.https = true});
  server.Answer("GET /", {.body = "secret"});
  const HttpClient::Error error = Get(server.Url("/"));
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_EQ(error.detail, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  EXPECT_NE(HttpClient::ErrorText(error).find("certificate not trusted"), std::string::npos);
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(HttpClientTlsTest, AnotherServersCertificateIsNoTrust) {
  const CTemporaryFile other(MakeTestCertificate().certificate_pem);
  ScriptedServer server({.https = true});
  Trust(other.path());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kTls);
}

TEST_F(HttpClientTlsTest, TheSwitchAcceptsAnybody) {
  TestCertificate strange = MakeTestCertificate({.names = "DNS:strange.example", .valid_until = -60});
  ScriptedServer server({.https = true, .certificate = strange});
  server.Answer("GET /", {.body = "secret"});
  TrustAnybody();
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  EXPECT_EQ(response_.body, "secret");
}

TEST_F(HttpClientTlsTest, TheNameMustBeTheServers) {
  const TestCertificate named = MakeTestCertificate({.names = "DNS:localhost"});
  EXPECT_EQ(GetTrusting(named, "localhost").kind, HttpClient::kNone);
  HttpClient::Error error = GetTrusting(named, "127.0.0.1");
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_EQ(error.detail, X509_V_ERR_IP_ADDRESS_MISMATCH);
  const TestCertificate numbered = MakeTestCertificate({.names = "IP:127.0.0.1"});
  EXPECT_EQ(GetTrusting(numbered, "127.0.0.1").kind, HttpClient::kNone);
  const TestCertificate other = MakeTestCertificate({.names = "DNS:other.example"});
  error = GetTrusting(other, "localhost");
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_EQ(error.detail, X509_V_ERR_HOSTNAME_MISMATCH);
}

TEST_F(HttpClientTlsTest, TheCertificateMustBeInItsTime) {
  HttpClient::Error error = GetTrusting(MakeTestCertificate({.valid_from = -7200, .valid_until = -3600}));
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_EQ(error.detail, X509_V_ERR_CERT_HAS_EXPIRED);
  error = GetTrusting(MakeTestCertificate({.valid_from = 3600}));
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_EQ(error.detail, X509_V_ERR_CERT_NOT_YET_VALID);
}

TEST_F(HttpClientTlsTest, AnAuthorityMayVouchForTheServer) {
  const TestCertificate authority = MakeTestCertificate({.common_name = "authority", .authority = true});
  ScriptedServer server({.https = true, .certificate = MakeTestCertificate({}, &authority)});
  server.Answer("GET /", {.body = "secret"});
  const CTemporaryFile trust(authority.certificate_pem);
  Trust(trust.path());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);

  const TestCertificate stranger = MakeTestCertificate({.common_name = "authority", .authority = true});
  const CTemporaryFile wrong_trust(stranger.certificate_pem);
  Trust(wrong_trust.path());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kTls);
}

TEST_F(HttpClientTlsTest, AnIssuerThatIsNoAuthorityVouchesForNobody) {
  const TestCertificate issuer = MakeTestCertificate({.common_name = "issuer"});
  ScriptedServer server({.https = true, .certificate = MakeTestCertificate({}, &issuer)});
  const CTemporaryFile trust(issuer.certificate_pem);
  Trust(trust.path());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kTls);
}

TEST_F(HttpClientTlsTest, TheServersOwnCertificateIsTrustEnough) {
  const TestCertificate authority = MakeTestCertificate({.common_name = "authority", .authority = true});
  EXPECT_EQ(GetTrusting(MakeTestCertificate({}, &authority)).kind, HttpClient::kNone);
}

TEST_F(HttpClientTlsTest, ATrustFileThatCannotBeReadFailsEverything) {
  ScriptedServer server({.https = true});
  Trust("/nowhere/trust.pem");
  HttpClient::Error error = Get(server.Url("/"));
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_NE(error.detail, 0);
  const CTemporaryFile garbage("no certificate");
  Trust(garbage.path());
  error = Get(server.Url("/"));
  EXPECT_EQ(error.kind, HttpClient::kTls);
  EXPECT_NE(error.detail, 0);
}

TEST_F(HttpClientTlsTest, OnlyModernProtocolsAreSpoken) {
  for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    ScriptedServer server({.https = true, .newest_tls = version});
    server.Answer("GET /", {.body = "secret"});
    Trust(server.CertificateFile());
    const HttpClient::Error error = Get(server.Url("/"));
    EXPECT_EQ(error.kind, version == TLS1_1_VERSION ? HttpClient::kTls : HttpClient::kNone)
        << HttpClient::ErrorText(error);
  }
}

TEST_F(HttpClientTlsTest, TheServerIsToldWhichNameIsMeant) {
  ScriptedServer server({.https = true});
  server.Answer("GET /", {.body = "secret"});
  Trust(server.CertificateFile());
  EXPECT_EQ(Get("https://localhost:" + std::to_string(server.Port()) + "/").kind, HttpClient::kNone);
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  EXPECT_EQ(server.Requests().at(0).server_name, "localhost");
  EXPECT_EQ(server.Requests().at(1).server_name, "") << "an address is no name";
}

class HttpClientTlsVersionTest : public HttpClientTlsTest, public testing::WithParamInterface<int> {};

TEST_P(HttpClientTlsVersionTest, AConnectionIsKept) {
  ScriptedServer server({.https = true, .newest_tls = GetParam()});
  server.Answer("GET /", {.body = "secret"});
  Trust(server.CertificateFile());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  }
  EXPECT_EQ(server.ConnectionCount(), 1);
}

TEST_P(HttpClientTlsVersionTest, ASessionIsResumed) {
  ScriptedServer server({.https = true, .newest_tls = GetParam()});
  server.Answer("GET /", {.body = "secret"});
  Trust(server.CertificateFile());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
    HttpClient::CloseIdleConnections();
  }
  EXPECT_EQ(server.ConnectionCount(), 3);
  EXPECT_EQ(server.ResumedCount(), 2);
}

TEST_P(HttpClientTlsVersionTest, ASessionOfAnotherTrustIsNotResumed) {
  ScriptedServer server({.https = true, .newest_tls = GetParam()});
  server.Answer("GET /", {.body = "secret"});
  TrustAnybody();
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  HttpClient::SetTlsTrust({});
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kTls) << "neither the connection nor its session may be used again";
  EXPECT_EQ(server.ResumedCount(), 0);
}

TEST_P(HttpClientTlsVersionTest, AnEndWithoutFarewellIsNoEndOfABody) {
  ScriptedServer server({.https = true, .newest_tls = GetParam()});
  const std::string until_close = "HTTP/1.0 200 OK\r\n\r\nhello";
  server.Answer("GET /polite", {.raw = until_close, .close = true});
  server.Answer("GET /rude", {.raw = until_close, .close = true, .rude_tls = true});
  server.Answer("GET /length", {.body = "hello", .close = true, .rude_tls = true});
  Trust(server.CertificateFile());
  EXPECT_EQ(Get(server.Url("/polite")).kind, HttpClient::kNone);
  EXPECT_EQ(response_.body, "hello");
  EXPECT_EQ(Get(server.Url("/rude")).kind, HttpClient::kBadAnswer);
  EXPECT_EQ(Get(server.Url("/length")).kind, HttpClient::kNone);
}

TEST_P(HttpClientTlsVersionTest, AnAnswerCutAnywhereIsNeverTakenForWhole) {
  ScriptedServer server({.https = true, .newest_tls = GetParam()});
  Trust(server.CertificateFile());
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
  for (const bool rude : {false, true}) {
    for (std::size_t cut = 0; cut < answer.size(); ++cut) {
      server.ClearScript();
      server.Answer("GET /", {.raw = answer, .cut_after = cut, .rude_tls = rude});
      EXPECT_EQ(Get(server.Url("/")).kind, cut == 0 ? HttpClient::kReceive : HttpClient::kBadAnswer) << cut;
    }
  }
}

TEST_P(HttpClientTlsVersionTest, AKeptConnectionThatClosesUnderTheRequestIsReplaced) {
  for (const bool reset : {false, true}) {
    ScriptedServer server({.https = true, .newest_tls = GetParam()});
    server.Answer("GET /", {.body = "first"});
    server.Answer("GET /", {.cut_after = 0, .reset = reset});
    server.Answer("GET /", {.body = "second"});
    Trust(server.CertificateFile());
    EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
    EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
    EXPECT_EQ(response_.body, "second");
    EXPECT_EQ(server.Requests().size(), 3U);
  }
}

TEST_P(HttpClientTlsVersionTest, AKeptConnectionThatTheServerClosedIsReplaced) {
  ScriptedServer server({.https = true, .newest_tls = GetParam()});
  server.Answer("GET /", {.body = "x"});
  Trust(server.CertificateFile());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  server.CloseConnections();
  ASSERT_TRUE(server.WaitForNoConnections());
  EXPECT_EQ(Get(server.Url("/")).kind, HttpClient::kNone);
  EXPECT_EQ(server.Requests().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Versions, HttpClientTlsVersionTest, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) { return version.param == TLS1_2_VERSION ? "Tls12" : "Tls13"; });

TEST_F(HttpClientTlsTest, APlainServerIsReported) {
  ScriptedServer server;
  server.Answer("GET /", {.body = "x"});
  // The server takes these bytes for the beginning of a request and waits for the rest of it.
  CHttpClientRequest request;
  request.url = "https://" + server.Address() + "/";
  request.connect_timeout_ms = 300;
  HttpClient::Error error;
  EXPECT_FALSE(HttpClient().Send(request, &response_, &error));
  EXPECT_EQ(error.kind, HttpClient::kTimeout);
}

TEST_F(HttpClientTlsTest, ASecureServerIsNoPlainOne) {
  ScriptedServer server({.https = true});
  const HttpClient::Error error = Get("http://" + server.Address() + "/");
  EXPECT_TRUE(error.kind == HttpClient::kReceive || error.kind == HttpClient::kBadAnswer) << error.kind;
}

TEST_F(HttpClientTlsTest, ErrorTextsSayWhatIsWrong) {
  EXPECT_EQ(HttpClient::ErrorText({}), "success");
  EXPECT_EQ(HttpClient::ErrorText({HttpClient::kTls, X509_V_ERR_CERT_HAS_EXPIRED}),
            "certificate not trusted: certificate has expired");
  EXPECT_EQ(HttpClient::ErrorText({HttpClient::kTls, SSL_R_WRONG_VERSION_NUMBER}), "TLS failed: wrong version number");
  EXPECT_NE(HttpClient::ErrorText({HttpClient::kConnect, ECONNREFUSED}).find("refused"), std::string::npos);
  for (int kind = HttpClient::kNone; kind <= HttpClient::kTooLarge + 1; ++kind) {
    EXPECT_FALSE(HttpClient::ErrorText({kind, 1}).empty());
  }
}

}  // namespace
}  // namespace TansyNet
