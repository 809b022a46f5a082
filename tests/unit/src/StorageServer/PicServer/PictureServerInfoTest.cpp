// Best node, pool list, version.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "PictureServerFixture.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::CloudStorage {
namespace {

using ::testing::MatchesRegex;

class PictureServerInfo : public PictureServerTest {
 protected:
  static constexpr const char* kNoHost = "[%s]HandleGetBestNode, host field not exist.[%s(%d)]";
  static constexpr const char* kNoColon = "[%s]HandleGetBestNode, host field[%s] invalid.[%s(%d)]";
  static constexpr const char* kWrongPort = "[%s]HandleGetBestNode, host field[%s] port[%s] invalid.[%s(%d)]";

  Tests::FakeAnswer AskNode(const std::string& host) {
    auto request = Request("GET", kNodePath, "SerialID=1&PoolID=p&Replication=0");
    request.headers["Host"] = host;
    return Ask(Signed(request));
  }
  // "ip port" of the answer, or its error code.
  std::string Node(const std::string& host) {
    const auto answer = AskNode(host);
    TansyProto::CRapidJsonProto json;
    if (answer.response.status != 200 || !json.Parse(answer.body)) {
      return answer.body.substr(14, answer.body.find(',') - 14);
    }
    return json.GetString("/GatewayIP") + " " + json.GetString("/GatewayPort");
  }
  static StorageServerConfig_V1 WanConfig() {
    StorageServerConfig_V1 config = MakeConfig();
    config.wan_enable = true;
    return config;
  }
};

TEST_F(PictureServerInfo, TheBestNodeAnswerHasTextsAndANewTokenEachTime) {
  StartServer();
  std::set<std::string> bodies;
  for (int i = 0; i < 5; ++i) {
    const auto answer = AskNode("192.168.1.10:9700");
    EXPECT_THAT(answer.body,
                MatchesRegex("\\{\"GatewayIP\":\"192\\.168\\.1\\.10\",\"GatewayPort\":\"9700\",\"Token\":\""
                             "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\"\\}"));
    ExpectJson(answer, answer.body);
    bodies.insert(answer.body);
  }
  EXPECT_EQ(bodies.size(), 5u);
}

TEST_F(PictureServerInfo, TheBestNodeWantsAHostWithAPort) {
  StartServer();
  ExpectError(Ask(Signed(Request("GET", kNodePath))), -50001, 400);
  ExpectLog(kNoHost, logging::kError, "CPictureServer::HandleGetBestNode");
  log_->Clear();
  ExpectError(AskNode(""), -50001, 400);
  ExpectLog(kNoHost, logging::kError, "CPictureServer::HandleGetBestNode");
  log_->Clear();
  ExpectError(AskNode("192.168.1.10"), -50001, 400);
  ExpectLog(kNoColon, logging::kError, "CPictureServer::HandleGetBestNode");
  EXPECT_NE(log_->Text(kNoColon).find("host field[192.168.1.10] invalid."), std::string::npos);
}

TEST_F(PictureServerInfo, OnTheMachineItselfTheAnswerIsTheLoopbackAddress) {
  for (const auto& config : {MakeConfig(), WanConfig()}) {
    StartServer(config);
    EXPECT_EQ(Node("127.0.0.1:9700"), "127.0.0.1 9700");
    EXPECT_EQ(Node("127.0.0.1:9743"), "127.0.0.1 9743");
    EXPECT_EQ(Node("127.0.0.1:19700"), "-50003");
    EXPECT_EQ(Node("127.0.0.1:19743"), "-50003");
    EXPECT_EQ(Node("127.0.0.1:0"), "-50003");
    TearDown();
  }
}

TEST_F(PictureServerInfo, FromOutsideTheAnswerIsTheWanAddressWhenThatIsOn) {
  StartServer(WanConfig());
  EXPECT_EQ(Node("cloud.example:19700"), "203.0.113.5 19700");
  EXPECT_EQ(Node("cloud.example:19743"), "203.0.113.5 19743");
  EXPECT_EQ(Node("203.0.113.5:19700"), "203.0.113.5 19700");
  EXPECT_EQ(Node("cloud.example:9700"), "-50003");
  EXPECT_EQ(Node("cloud.example:9743"), "-50003");
}

TEST_F(PictureServerInfo, AtItsOwnAddressTheServerAnswersWithThatWhateverTheWanSays) {
  StartServer(WanConfig());
  EXPECT_EQ(Node("192.168.1.10:9700"), "192.168.1.10 9700");
  EXPECT_EQ(Node("192.168.1.10:9743"), "192.168.1.10 9743");
  EXPECT_EQ(Node("192.168.1.10:19700"), "-50003");
}

TEST_F(PictureServerInfo, WithoutWanEveryAddressIsAnsweredWithTheServersOwn) {
  StartServer();
  EXPECT_EQ(Node("anything:9700"), "192.168.1.10 9700");
  EXPECT_EQ(Node("anything:9743"), "192.168.1.10 9743");
  EXPECT_EQ(Node("anything:19700"), "-50003");
  EXPECT_EQ(Node(":9700"), "192.168.1.10 9700");
}

TEST_F(PictureServerInfo, AWrongPortIsLoggedWithAddressAndPort) {
  StartServer();
  ExpectError(AskNode("cloud.example:81"), -50003, 400);
  ExpectLog(kWrongPort, logging::kError, "CPictureServer::HandleGetBestNode");
  EXPECT_NE(log_->Text(kWrongPort).find("host field[cloud.example] port[81] invalid."), std::string::npos);
}

TEST_F(PictureServerInfo, BracketsAreTakenOffWhatStandsBeforeTheFirstColon) {
  StartServer(WanConfig());
  EXPECT_EQ(Node("[192.168.1.10]:9700"), "192.168.1.10 9700");
  EXPECT_EQ(Node("[127.0.0.1]:9743"), "127.0.0.1 9743");
  EXPECT_EQ(Node("x[192.168.1.10]y:9700"), "192.168.1.10 9700");
  EXPECT_EQ(Node("]192.168.1.10[:19700"), "203.0.113.5 19700");
  // The port of an IPv6 address is what follows its brackets, and a client needs them to ask there.
  EXPECT_EQ(Node("[::1]:9700"), "[::1] 9700");
  EXPECT_EQ(Node("[fe80::1]:19700"), "203.0.113.5 19700");
  EXPECT_EQ(Node("[fe80::1]:9700"), "-50003");
  EXPECT_EQ(Node("[::1]"), "-50001");
}

TEST_F(PictureServerInfo, ThePortIsReadAsADecimalNumber) {
  StartServer();
  EXPECT_EQ(Node("a: 9700"), "192.168.1.10 9700");
  EXPECT_EQ(Node("a:9700x"), "192.168.1.10 9700");
  EXPECT_EQ(Node("a:09700"), "192.168.1.10 9700");
  EXPECT_EQ(Node("a:9700:1"), "192.168.1.10 9700");
  EXPECT_EQ(Node("a:-9700"), "-50003");
  EXPECT_EQ(Node("a:0x25e4"), "-50003");
  EXPECT_EQ(Node("a:"), "-50003");
  EXPECT_EQ(Node("a:4294976996"), "-50003");  // 9700 beyond 32 bits
}

TEST_F(PictureServerInfo, PortsThatAreNotSetMatchNothing) {
  StorageServerConfig_V1 config = WanConfig();
  config.https_port = 0;
  config.https_wan_port = 0;
  config.wan_port = 0;
  StartServer(config);
  EXPECT_EQ(Node("127.0.0.1:0"), "-50003");
  EXPECT_EQ(Node("192.168.1.10:x"), "-50003");
  EXPECT_EQ(Node("outside:0"), "-50003");
}

TEST_F(PictureServerInfo, ThePoolListIsAlwaysTheSame) {
  StartServer();
  ExpectJson(Ask(Signed(Request("GET", kPoolsPath))),
             "{\"Marker\":\"\",\"MaxKeys\":3000,\"IsTruncated\":false,\"PoolCount\":1,\"List\":[{\"PoolID\":\"1\","
             "\"PoolName\":\"kiv_local_pool\",\"PoolType\":\"3\",\"CoverType\":\"1\",\"LockLimit\":\"10\","
             "\"Size\":\"1000\",\"FreeSize\":\"1000\",\"PoolStatus\":\"1\",\"BeginTime\":\"1\",\"CoverTime\":\"1\","
             "\"DomainID\":\"1\"}]}");
}

TEST_F(PictureServerInfo, TheVersionIsTexts) {
  StartServer();
  ExpectJson(Ask(Signed(Request("GET", kVersionPath))),
             "{\"MajorVersion\":\"2\",\"MinorVersion\":\"0\",\"RevisionVersion\":\"0\"}");
}

}  // namespace
}  // namespace Tansy::CloudStorage
