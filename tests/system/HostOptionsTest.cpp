// Tests what tansyd's options mean for its clients: where it listens, which address it names, what it refuses.
#include <filesystem>

#include "fakes/Ipv6Loopback.h"
#include "support/OwnNetwork.h"
#include "support/Ports.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::Not;

class HostOptionsTest : public TansydTest {
 protected:
  static Launch With(std::vector<std::string> arguments) {
    Launch launch;
    launch.arguments = std::move(arguments);
    return launch;
  }
  void ExpectUsage(const Launch& launch, const std::string& words) {
    const Ended ended = server_.RunToEnd(launch);
    EXPECT_EQ(ended.code, 2) << words;
    EXPECT_THAT(ended.err, HasSubstr(words));
  }
  static std::unique_ptr<CConnection> ConnectTo(const std::string& address, std::uint16_t port) {
    ConnectOptions options;
    options.address = address;
    return CConnection::Open(port, options);
  }
  // Gives the best-node answer to a client that knows the server by this name.
  std::string BestNode(const std::string& host, std::uint16_t port) {
    const Reply reply = Send("GET", "/b/any?bestnode", "", {{"Host", host + ":" + std::to_string(port)}});
    return reply.status == 200 ? XmlValue(reply.body, "Location") : Outcome(reply);
  }
  std::string PictureBestNode(const std::string& host, std::uint16_t port) {
    const Request request = {"GET", "/Quorvane/BestNode", {{"Host", host + ":" + std::to_string(port)}}, ""};
    return Call(server_.GetPicturePort(), Signed(request)).body;
  }
};

TEST_F(HostOptionsTest, ListensWhereItIsToldAndNowhereElse) {
  const bool has_ipv6 = Tansy::Tests::HasIpv6Loopback();
  Launch launch = With({"--listen", "127.0.0.2"});
  if (has_ipv6) {
    launch.arguments.insert(launch.arguments.end(), {"--listen", "::1"});
  }
  launch.with_https = true;
  ASSERT_TRUE(server_.Start(launch));
  ConnectOptions over_ipv6;
  over_ipv6.ipv6 = true;
  for (const std::uint16_t port : {server_.GetObjectPort(), server_.GetPicturePort(), server_.GetObjectHttpsPort(),
                                   server_.GetPictureHttpsPort()}) {
    EXPECT_NE(ConnectTo("127.0.0.2", port), nullptr) << port;
    EXPECT_EQ(ConnectTo("127.0.0.1", port), nullptr) << port;
    EXPECT_EQ(CConnection::Open(port, over_ipv6) != nullptr, has_ipv6) << port;
  }
  ConnectOptions over_second;
  over_second.address = "127.0.0.2";
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), Signed({"GET", "/", {}, ""}), over_second)), "200");
  EXPECT_TRUE(server_.Stop());
  EXPECT_EQ(ConnectTo("127.0.0.2", server_.GetObjectPort()), nullptr);
}

TEST_F(HostOptionsTest, TwoServersShareThePortsOfTwoAddresses) {
  ASSERT_TRUE(server_.Start(With({"--listen", "127.0.0.2"})));
  CTansyd second(temp_.GetPath(), "second");
  Launch launch = With({"--listen", "127.0.0.3", "--object-port", std::to_string(server_.GetObjectPort()),
                        "--picture-port", std::to_string(server_.GetPicturePort()), "--object-https-port", "0",
                        "--picture-https-port", "0", "--s3-port", "0", "--s3-https-port", "0"});
  launch.with_ports = false;
  ASSERT_TRUE(second.Start(launch));
  EXPECT_THAT(second.GetReadyLine(), HasSubstr("http://127.0.0.3:" + std::to_string(server_.GetObjectPort())))
      << "an address that it listens on";
  EXPECT_NE(ConnectTo("127.0.0.2", server_.GetObjectPort()), nullptr);
  EXPECT_NE(ConnectTo("127.0.0.3", server_.GetObjectPort()), nullptr);
}

TEST_F(HostOptionsTest, AnAddressOfAnotherMachineIsNamedInTheFailure) {
  const Ended ended = server_.RunToEnd(With({"--listen", "203.0.113.7"}));
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("203.0.113.7"));
}

TEST_F(HostOptionsTest, AddressesWithAnythingAroundThemAreUsage) {
  for (const std::string option : {"--local-ip", "--wan-ip", "--listen"}) {
    for (const std::string text : {"192.168.1.5 ", "1.2.3.4\n", "[::1]", "name"}) {
      Launch launch = With({option, text});
      launch.with_local_ip = false;
      ExpectUsage(launch, option + " \"");
    }
  }
}

TEST_F(HostOptionsTest, AWanAddressNeedsAPortAndCountsWhereItHasOne) {
  ExpectUsage(With({"--wan-ip", "192.0.2.1"}), "wan-ip is of no use without a port");
  ASSERT_TRUE(server_.Start(With({"--wan-ip", "192.0.2.1", "--wan-object-port", "8080"})));
  MakeBucket("b");
  EXPECT_EQ(BestNode("storage.example", 8080), "192.0.2.1:8080");
  EXPECT_EQ(BestNode("storage.example", server_.GetObjectPort()), "400 InvalidHttpContent");
  EXPECT_THAT(PictureBestNode("storage.example", server_.GetPicturePort()), HasSubstr("\"GatewayIP\":\"127.0.0.1\""))
      << "pictures are not served at the WAN address";
}

TEST_F(HostOptionsTest, EmptyKeysAreUsageAndNoneAreMade) {
  Launch launch;
  launch.with_keys = false;
  launch.environment = {{"TANSY_ACCESS_KEY", ""}, {"TANSY_SECRET_KEY", ""}};
  ExpectUsage(launch, "TANSY_ACCESS_KEY must be");
  launch.environment["TANSY_ACCESS_KEY"] = "somebody";
  ExpectUsage(launch, "TANSY_SECRET_KEY must be");
  EXPECT_FALSE(std::filesystem::exists(server_.Data("tansyd.toml")));
}

TEST_F(HostOptionsTest, ADateIsRequiredWhereItIsSaid) {
  const Request old = Signed({"GET", "/", {{"Date", "Mon, 02 Jan 2023 10:00:00 GMT"}}, ""});
  const Request now = Signed({"GET", "/", {}, ""});
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), old)), "200") << "off by default";
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(With({"--require-date", "15"})));
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), old)), "403 AccessDenied");
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), now)), "200");
}

TEST_F(HostOptionsTest, TheLogTellsWhoseSignatureIsRefusedAndKeepsTheSecret) {
  ASSERT_TRUE(server_.Start());
  Keys wrong;
  wrong.secret_key = "wrong";
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), Signed({"GET", "/", {}, ""}, wrong))), "403 AccessDenied");
  ASSERT_TRUE(server_.Stop());
  const Keys keys;
  EXPECT_THAT(server_.GetLog(), HasSubstr("CheckHMACResult failed!"));
  EXPECT_THAT(server_.GetLog(), HasSubstr(keys.access_key));
  EXPECT_THAT(server_.GetLog(), Not(HasSubstr(keys.secret_key)));
}

TEST_F(HostOptionsTest, ALowLimitOfOpenFilesIsSaid) {
  Launch launch;
  launch.open_files = 500;
  ASSERT_TRUE(server_.Start(launch));
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), HasSubstr("no more than 500 files and connections"));
}

TEST_F(HostOptionsTest, BestNodeFollowsTheMachinesAddress) {
  bool has_adapter = true;
  const bool has_network = RunInOwnNetwork([&] {
    Launch launch;
    launch.with_local_ip = false;
    ASSERT_TRUE(server_.Start(launch)) << "before the machine has an address";
    MakeBucket("b");
    const std::string port = ":" + std::to_string(server_.GetObjectPort());
    EXPECT_EQ(BestNode("storage.example", server_.GetObjectPort()), "127.0.0.1" + port);
    const auto adapter = CAdapter::Make("tansy0");
    has_adapter = adapter != nullptr;
    if (!has_adapter) {
      return;
    }
    for (const std::string address : {"192.0.2.8", "192.0.2.9"}) {
      ASSERT_TRUE(adapter->SetAddress(address));
      EXPECT_TRUE(WaitUntil([&] { return BestNode("storage.example", server_.GetObjectPort()) == address + port; }))
          << BestNode("storage.example", server_.GetObjectPort());
    }
    EXPECT_THAT(PictureBestNode("storage.example", server_.GetPicturePort()), HasSubstr("\"192.0.2.9\""));
    EXPECT_TRUE(server_.Stop());
  });
  if (!has_network || !has_adapter) {
    GTEST_SKIP() << "this machine does not let a test have a network of its own";
  }
}

}  // namespace
}  // namespace system_tests
