// HTTPS listeners.
#include <openssl/ssl.h>
#include <signal.h>

#include <filesystem>
#include <thread>

#include "fakes/Ipv6Loopback.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

const char* const kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server";

class TlsTest : public TansydTest {
 protected:
  void SetUp() override {
    launch_.with_https = true;
    ASSERT_TRUE(server_.Start(launch_));
  }
  ConnectOptions Tls(int newest = 0) {
    ConnectOptions options;
    options.tls = true;
    options.newest_tls = newest;
    return options;
  }
  void ExpectBothProtocols(const ConnectOptions& options) {
    EXPECT_EQ(Outcome(Send("PUT", "/b", "<CreateBucketConfiguration/>", {}, options)), "200");
    const Reply version = Call(server_.GetPictureHttpsPort(), Signed({"GET", "/Quorvane/Version", {}, ""}), options);
    EXPECT_EQ(version.status, 200);
    EXPECT_THAT(version.body, testing::HasSubstr("MajorVersion"));
  }
  Launch launch_;
};

TEST_F(TlsTest, ServesBothProtocols) {
  ExpectBothProtocols(Tls());
}

TEST_F(TlsTest, ServesBothProtocolsOnIpv6) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  ConnectOptions options = Tls();
  options.ipv6 = true;
  ExpectBothProtocols(options);
}

TEST_F(TlsTest, TheCertificateIsGoodForLocalhost) {
  ConnectOptions options = Tls();
  options.trust = server_.Data(std::string(kCertificate) + ".crt");
  EXPECT_EQ(Outcome(Send("GET", "/", "", {}, options)), "200");
}

TEST_F(TlsTest, OldVersionsAreRefused) {
  EXPECT_EQ(CConnection::Open(server_.GetObjectHttpsPort(), Tls(TLS1_VERSION)), nullptr);
  EXPECT_EQ(CConnection::Open(server_.GetObjectHttpsPort(), Tls(TLS1_1_VERSION)), nullptr);
  EXPECT_NE(CConnection::Open(server_.GetObjectHttpsPort(), Tls(TLS1_2_VERSION)), nullptr);
  EXPECT_NE(CConnection::Open(server_.GetObjectHttpsPort(), Tls(TLS1_3_VERSION)), nullptr);
}

TEST_F(TlsTest, PlainHttpOnATlsPortAndSilenceAreClosed) {
  const auto plain = CConnection::Open(server_.GetObjectHttpsPort());
  const auto silent = CConnection::Open(server_.GetObjectHttpsPort());
  ASSERT_NE(plain, nullptr);
  plain->Send("GET / HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(plain->Receive(std::chrono::seconds(30)).status, 400);
  EXPECT_TRUE(plain->IsClosedByServer(std::chrono::seconds(30)));
  EXPECT_EQ(Outcome(Send("GET", "/", "", {}, Tls())), "200");
  EXPECT_TRUE(silent->IsClosedByServer(std::chrono::seconds(40)));
  EXPECT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), testing::HasSubstr("request refused, status = 400, handle = 0, ip = 127.0.0.1"));
  EXPECT_THAT(server_.GetLog(),
              testing::HasSubstr("TLS handshake failed[the client was silent or left], ip = 127.0.0.1"));
}

TEST_F(TlsTest, AReplacedCertificateIsTakenUpWithoutDroppingConnections) {
  const auto old_connection = CConnection::Open(server_.GetObjectHttpsPort(), Tls());
  ASSERT_NE(old_connection, nullptr);
  const std::string old_serial = old_connection->CertificateSerial();
  // Another server's pair, made on the way.
  CTansyd other(temp_.GetPath(), "other");
  ASSERT_TRUE(other.Start(launch_));
  other.Stop();
  for (const std::string end : {".crt", ".key"}) {
    std::filesystem::copy_file(other.Data(kCertificate + end), server_.Data(kCertificate + end),
                               std::filesystem::copy_options::overwrite_existing);
  }
  server_.Signal(SIGHUP);
  std::string serial = old_serial;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (serial == old_serial && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto connection = CConnection::Open(server_.GetObjectHttpsPort(), Tls());
    ASSERT_NE(connection, nullptr);
    serial = connection->CertificateSerial();
  }
  EXPECT_NE(serial, old_serial);
  const Request request = Signed({"GET", "/", {}, ""});
  ASSERT_TRUE(old_connection->Send(Serialize(request, server_.GetObjectHttpsPort())));
  EXPECT_EQ(Outcome(old_connection->Receive()), "200");

  // A broken one is not taken.
  std::ofstream(server_.Data(std::string(kCertificate) + ".key")) << "nonsense";
  server_.Signal(SIGHUP);
  const auto log_deadline = std::chrono::steady_clock::now() + kPatience;
  while (server_.GetLog().find("the certificate was not replaced") == std::string::npos &&
         std::chrono::steady_clock::now() < log_deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_THAT(server_.GetLog(), testing::HasSubstr("the certificate was not replaced"));
  const auto connection = CConnection::Open(server_.GetObjectHttpsPort(), Tls());
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(connection->CertificateSerial(), serial);
}

TEST_F(TlsTest, BestNodeNamesTheHttpsPortToHttpsClients) {
  EXPECT_EQ(Outcome(Send("PUT", "/b", "<CreateBucketConfiguration/>")), "200");
  const std::string address = "127.0.0.1:" + std::to_string(server_.GetObjectHttpsPort());
  EXPECT_EQ(XmlValue(Send("GET", "/b/o?bestnode", "", {{"Host", address}}, Tls()).body, "Location"), address);
}

}  // namespace
}  // namespace system_tests
