// Lifecycle: the exported functions, listeners and address updates.
#include "StorageServer/PicServer/PictureServer.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "PictureServerFixture.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyCloudStorage/PictureServer.h"
#include "fakes/HeldLoop.h"

namespace Tansy::CloudStorage {
namespace {

using Calls = std::vector<std::string>;

class PictureServerLifecycle : public PictureServerTest {
 protected:
  static StorageServerConfig Plain() { return MakeConfig(); }
  static std::string HandleOf(std::size_t listener) { return std::to_string(Http().Listeners().at(listener).handle); }
};

TEST_F(PictureServerLifecycle, ThePlainRecordOpensHttpOnBothFamilies) {
  EXPECT_EQ(InitPicServer(Plain()), 0);
  EXPECT_EQ(Http().Calls(), (Calls{"start 0.0.0.0:9700", "start [::]:9700"}));
  for (const auto& listener : Http().Listeners()) {
    EXPECT_TRUE(listener.reuse_address);
    EXPECT_EQ(listener.callback, &CPictureServer::RecvMsgCallBack);
  }
}

TEST_F(PictureServerLifecycle, TheSecondRecordOpensHttpsWithTheDefaultCertificateToo) {
  EXPECT_EQ(InitPicServer(MakeConfig()), 0);
  EXPECT_EQ(Http().Calls(),
            (Calls{"start 0.0.0.0:9700", "start [::]:9700", "start https 0.0.0.0:9743", "start https [::]:9743"}));
  const std::string certificate = "./META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server";
  for (const std::size_t index : {2u, 3u}) {
    const auto listener = Http().Listeners().at(index);
    EXPECT_EQ(listener.callback, &CPictureServer::RecvMsgCallBack);
    EXPECT_EQ(listener.tls.certificate_path, certificate);
    EXPECT_EQ(listener.tls.private_key_path, certificate);
    EXPECT_EQ(listener.tls.trust_path, "");
    EXPECT_FALSE(listener.tls.request_client_certificate);
    EXPECT_FALSE(listener.tls.require_client_certificate);
    EXPECT_FALSE(listener.tls.legacy_protocols);
  }
}

TEST_F(PictureServerLifecycle, AnHttpsPortOfZeroOpensNothingAndSucceeds) {
  StorageServerConfig_V1 config = MakeConfig();
  config.https_download_port = 0;
  EXPECT_EQ(InitPicServer(config), 0);
  EXPECT_EQ(Http().Calls(), (Calls{"start 0.0.0.0:9700", "start [::]:9700"}));
  EXPECT_EQ(SetPicServerEnable(false), 0);
  EXPECT_EQ(SetPicServerEnable(true), 0);
  EXPECT_EQ(Http().Listeners().size(), 4u);
}

TEST_F(PictureServerLifecycle, PortsAreTakenAs16Bits) {
  StorageServerConfig_V1 config = MakeConfig();
  config.upload_port = config.download_port = 65536 + 9800;
  EXPECT_EQ(InitPicServer(config), 0);
  EXPECT_EQ(Http().Calls().at(0), "start 0.0.0.0:9800");
}

TEST_F(PictureServerLifecycle, DifferentPortsFailAfterBothListenersAreOpen) {
  StorageServerConfig_V1 config = MakeConfig();
  config.upload_port = 9701;
  EXPECT_EQ(InitPicServer(config), -1);
  EXPECT_EQ(Http().Calls(), (Calls{"start 0.0.0.0:9700", "start [::]:9700"}));
  EXPECT_TRUE(Http().Listeners().at(0).open);
  EXPECT_TRUE(Http().Listeners().at(1).open);
  const std::string format = "[%s]unsupport different download port[%d] and upload port[%d][%s(%d)]";
  ExpectLog(format, logging::kError, "CPictureServer::Init");
  EXPECT_NE(log_->Text(format).find("]unsupport different download port[9700] and upload port[9701]["),
            std::string::npos);
}

TEST_F(PictureServerLifecycle, FailingStartsAreReportedOneByOne) {
  const std::vector<std::string> formats = {
      "[%s]StartHttpServer error, revalue = %d[%s(%d)]", "[%s]StartHttpServer v6 error, revalue = %d[%s(%d)]",
      "[%s]StartHttpsServer error, revalue = %d[%s(%d)]", "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]"};
  for (int start = 1; start <= 4; ++start) {
    Http().Reset();
    log_->Clear();
    Http().FailStart(start, 1000 + start);
    EXPECT_EQ(InitPicServer(MakeConfig()), 1000 + start);
    EXPECT_EQ(Http().Calls().size(), static_cast<std::size_t>(start));
    const std::string& format = formats.at(static_cast<std::size_t>(start) - 1);
    ExpectLog(format, logging::kError, "CPictureServer::Init");
    EXPECT_NE(log_->Text(format).find("revalue = " + std::to_string(1000 + start)), std::string::npos);
    for (const auto& listener : Http().Listeners()) {
      EXPECT_TRUE(listener.open);  // what is open stays open
    }
    EXPECT_EQ(UninitPicServer(), 0);
  }
}

TEST_F(PictureServerLifecycle, InitStartsTheSharedLoopBeforeTheListeners) {
  Http().FailStart(1, 1001);
  EXPECT_EQ(InitPicServer(Plain()), 1001);
  EXPECT_FALSE(CServerMsgLoop::Instance().Start(4, 4, 5));  // it runs already
  Tests::CHeldLoop four(CServerMsgLoop::Instance(), 4);     // and has four threads
}

TEST_F(PictureServerLifecycle, EnablingAStartedServerChangesNothing) {
  StartServer();
  const Calls before = Http().Calls();
  EXPECT_EQ(SetPicServerEnable(true), 0);
  EXPECT_EQ(Http().Calls(), before);
  ExpectLog("[%s]SetPicServerEnable, already started.[%s(%d)]", logging::kNotable,
            "CPictureServer::SetPicServerEnable");
}

TEST_F(PictureServerLifecycle, DisablingTwiceStopsOnce) {
  InitPicServer(Plain());
  const std::string v4 = HandleOf(0);
  const std::string v6 = HandleOf(1);
  EXPECT_EQ(SetPicServerEnable(false), 0);
  EXPECT_EQ(Http().Calls(), (Calls{"start 0.0.0.0:9700", "start [::]:9700", "stop " + v4, "stop " + v6}));
  log_->Clear();
  EXPECT_EQ(SetPicServerEnable(false), 0);
  EXPECT_EQ(Http().Calls().size(), 4u);
  ExpectLog("[%s]SetPicServerEnable, already stoped.[%s(%d)]", logging::kNotable, "CPictureServer::SetPicServerEnable");
}

TEST_F(PictureServerLifecycle, DisableAndEnableCoverHttpsInTheSameOrder) {
  StartServer();
  const Calls stops = {"stop " + HandleOf(0), "stop " + HandleOf(1), "stop " + HandleOf(2), "stop " + HandleOf(3)};
  EXPECT_EQ(SetPicServerEnable(false), 0);
  Calls calls = Http().Calls();
  EXPECT_EQ(Calls(calls.begin() + 4, calls.end()), stops);
  EXPECT_EQ(SetPicServerEnable(true), 0);
  calls = Http().Calls();
  EXPECT_EQ(Calls(calls.begin() + 8, calls.end()),
            (Calls{"start 0.0.0.0:9700", "start [::]:9700", "start https 0.0.0.0:9743", "start https [::]:9743"}));
  EXPECT_TRUE(Ask(Signed(Request("GET", kVersionPath))).IsThere());
}

TEST_F(PictureServerLifecycle, AFailingStopLeavesTheFlagAndCanBeTriedAgain) {
  const std::vector<std::string> formats = {"[%s]SetPicServerEnable, StopServer error, revalue = %d[%s(%d)]",
                                            "[%s]SetPicServerEnable, StopServer v6 error, revalue = %d[%s(%d)]"};
  for (int stop = 1; stop <= 4; ++stop) {
    Http().Reset();
    ASSERT_EQ(StartServer(), 0);
    Http().FailStop(stop, 2000 + stop);
    EXPECT_EQ(SetPicServerEnable(false), 2000 + stop);
    const std::string& format = formats.at((static_cast<std::size_t>(stop) - 1) % 2);
    ExpectLog(format, logging::kError, "CPictureServer::SetPicServerEnable");
    EXPECT_NE(log_->Text(format).find("revalue = " + std::to_string(2000 + stop)), std::string::npos);
    EXPECT_EQ(SetPicServerEnable(false), 0);  // not "already stopped": the rest is stopped now
    for (const auto& listener : Http().Listeners()) {
      EXPECT_FALSE(listener.open);
    }
    UninitPicServer();
  }
}

TEST_F(PictureServerLifecycle, AFailingStartLeavesTheFlagAndCanBeTriedAgain) {
  const std::vector<std::string> formats = {"[%s]SetPicServerEnable, StartHttpServer error, revalue = %d[%s(%d)]",
                                            "[%s]SetPicServerEnable, StartHttpServer v6 error, revalue = %d[%s(%d)]",
                                            "[%s]StartHttpsServer error, revalue = %d[%s(%d)]",
                                            "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]"};
  for (int start = 1; start <= 4; ++start) {
    Http().Reset();
    StartServer();
    ASSERT_EQ(SetPicServerEnable(false), 0);
    log_->Clear();
    Http().FailStart(start, 3000 + start);
    EXPECT_EQ(SetPicServerEnable(true), 3000 + start);
    const std::string& format = formats.at(static_cast<std::size_t>(start) - 1);
    ExpectLog(format, logging::kError, "CPictureServer::SetPicServerEnable");
    EXPECT_NE(log_->Text(format).find("revalue = " + std::to_string(3000 + start)), std::string::npos);
    EXPECT_EQ(SetPicServerEnable(true), 0);  // opens what is missing, nothing twice
    std::map<std::string, int> open;
    for (const auto& listener : Http().Listeners()) {
      open[listener.address + (listener.https ? "s" : "")] += listener.open ? 1 : 0;
    }
    EXPECT_EQ(open, (std::map<std::string, int>{{"0.0.0.0", 1}, {"::", 1}, {"0.0.0.0s", 1}, {"::s", 1}}));
    UninitPicServer();
  }
}

TEST_F(PictureServerLifecycle, UninitStopsTheListenersAndTheSharedLoop) {
  StartServer();
  EXPECT_EQ(UninitPicServer(), 0);
  for (const auto& listener : Http().Listeners()) {
    EXPECT_FALSE(listener.open);
  }
  EXPECT_FALSE(Tests::Post(CServerMsgLoop::Instance(), [] {}));
  // A request that still came in is refused at once.
  const auto handle = Http().Deliver(&CPictureServer::RecvMsgCallBack, Signed(Request("GET", kVersionPath)));
  ExpectError(Http().AnswerOf(handle), -50004, 500);
}

TEST_F(PictureServerLifecycle, UninitAnswersWhatWaitsAndLetsFinishWhatRuns) {
  StartServer();
  auto& loop = CServerMsgLoop::Instance();
  Tests::CHeldLoop held(loop, 4);
  const auto waiting = Http().Deliver(&CPictureServer::RecvMsgCallBack, Signed(Request("GET", kVersionPath)));
  std::thread uninit([] { UninitPicServer(); });
  while (Tests::Post(loop, [] {})) {
    std::this_thread::yield();
  }
  held.Release();
  uninit.join();
  ExpectError(Http().AnswerOf(waiting), -50004, 500);
  EXPECT_EQ(loop.GetWorkTaskCount(), 0u);
}

TEST_F(PictureServerLifecycle, UninitReturnsTheResultOfTheStopAndStopsTheLoopAllTheSame) {
  StartServer();
  Http().FailStop(2, 2002);
  EXPECT_EQ(UninitPicServer(), 2002);
  EXPECT_FALSE(Tests::Post(CServerMsgLoop::Instance(), [] {}));
}

TEST_F(PictureServerLifecycle, InitAfterUninitServesAgain) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(StartServer(), 0);
    EXPECT_EQ(Ask(Signed(Request("GET", kVersionPath))).response.status, 200);
    ASSERT_EQ(UninitPicServer(), 0);
  }
  for (const auto& listener : Http().Listeners()) {
    EXPECT_FALSE(listener.open);
  }
}

TEST_F(PictureServerLifecycle, EnableAndDisableFromManyThreadsLeaveOneSetOfListeners) {
  StartServer();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 50; ++n) {
        SetPicServerEnable((n + i) % 2 == 0);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  SetPicServerEnable(true);
  int open = 0;
  for (const auto& listener : Http().Listeners()) {
    open += listener.open ? 1 : 0;
  }
  EXPECT_EQ(open, 4);
}

// What the address updates change shows in the best-node answer.
class PictureServerUpdates : public PictureServerTest {
 protected:
  std::string NodeFor(const std::string& host) {
    auto request = Request("GET", kNodePath);
    request.headers["Host"] = host;
    const auto answer = Ask(Signed(request));
    return answer.body.substr(0, answer.body.find(",\"Token\""));
  }
  static std::string Node(const std::string& ip, const std::string& port) {
    return "{\"GatewayIP\":\"" + ip + "\",\"GatewayPort\":\"" + port + "\"";
  }
  static constexpr const char* kRefused = "{\"ErrorCode\": -50003";
  static bool Refuses(const std::string& node) { return node.rfind(kRefused, 0) == 0; }
};

TEST_F(PictureServerUpdates, TheLocalAddress) {
  StartServer();
  CPictureServer::Instance().UpdateLocalServerIp("10.0.0.1");
  EXPECT_EQ(NodeFor("elsewhere:9700"), Node("10.0.0.1", "9700"));
}

TEST_F(PictureServerUpdates, TheWanAddressAndPort) {
  StartServer();
  CPictureServer::Instance().UpdateWanServerInfo(true, "203.0.113.9", 20000);
  EXPECT_EQ(NodeFor("outside:20000"), Node("203.0.113.9", "20000"));
  EXPECT_TRUE(Refuses(NodeFor("outside:19700")));
  CPictureServer::Instance().UpdateWanServerInfo(false, "203.0.113.9", 20000);
  EXPECT_TRUE(Refuses(NodeFor("outside:20000")));
  EXPECT_EQ(NodeFor("outside:9700"), Node("192.168.1.10", "9700"));
}

TEST_F(PictureServerUpdates, TheMapOfFields) {
  StartServer();
  auto& server = CPictureServer::Instance();
  server.UpdateWanServerInfoV1({{WAN_ENABLE, "true"}});
  EXPECT_EQ(NodeFor("outside:19700"), Node("203.0.113.5", "19700"));
  server.UpdateWanServerInfoV1({{WAN_IP, "203.0.113.77"}});
  EXPECT_EQ(NodeFor("outside:19743"), Node("203.0.113.77", "19743"));
  server.UpdateWanServerInfoV1({{WAN_PIC_PORT, "20001"}});
  EXPECT_EQ(NodeFor("outside:20001"), Node("203.0.113.77", "20001"));
  EXPECT_EQ(NodeFor("outside:19743"), Node("203.0.113.77", "19743"));
  server.UpdateWanServerInfoV1({{WAN_PIC_HTTPS_PORT, "20002"}});
  EXPECT_EQ(NodeFor("outside:20002"), Node("203.0.113.77", "20002"));
  EXPECT_TRUE(Refuses(NodeFor("outside:19743")));
}

TEST_F(PictureServerUpdates, FieldsOfTheObjectServerAndUnknownOnesChangeNothing) {
  StartServer();
  auto& server = CPictureServer::Instance();
  server.UpdateWanServerInfoV1({{WAN_ENABLE, "true"},
                                {WAN_OBJECT_PORT, "20001"},
                                {WAN_OBJECT_HTTPS_PORT, "20002"},
                                {static_cast<WanServerInfoFieldType>(6), "20003"}});
  EXPECT_EQ(NodeFor("outside:19700"), Node("203.0.113.5", "19700"));
  EXPECT_EQ(NodeFor("outside:19743"), Node("203.0.113.5", "19743"));
}

TEST_F(PictureServerUpdates, AnythingButTrueSwitchesTheWanAddressOff) {
  for (const char* value : {"false", "TRUE", "1", "", "true "}) {
    StartServer();
    CPictureServer::Instance().UpdateWanServerInfo(true, "203.0.113.5", 19700);
    CPictureServer::Instance().UpdateWanServerInfoV1({{WAN_ENABLE, value}});
    EXPECT_EQ(NodeFor("outside:9700"), Node("192.168.1.10", "9700")) << value;
    UninitPicServer();
  }
}

TEST_F(PictureServerUpdates, APortThatIsNoNumberIsZeroAndZeroMatchesNothing) {
  StartServer();
  CPictureServer::Instance().UpdateWanServerInfoV1({{WAN_ENABLE, "true"}, {WAN_PIC_PORT, "port"}});
  EXPECT_TRUE(Refuses(NodeFor("outside:19700")));
  EXPECT_TRUE(Refuses(NodeFor("outside:0")));
  EXPECT_TRUE(Refuses(NodeFor("outside:port")));
}

TEST_F(PictureServerUpdates, ThePlainRecordKeepsTheHttpsFieldsAtZero) {
  StartServer();  // leaves HTTPS ports behind
  UninitPicServer();
  InitPicServer(static_cast<const StorageServerConfig&>(MakeConfig()));
  EXPECT_TRUE(Refuses(NodeFor("127.0.0.1:9743")));
  EXPECT_TRUE(Refuses(NodeFor("127.0.0.1:0")));
  EXPECT_EQ(NodeFor("127.0.0.1:9700"), Node("127.0.0.1", "9700"));
}

TEST_F(PictureServerUpdates, MayComeWhileRequestsAreAnswered) {
  StartServer();
  std::thread updates([] {
    for (int i = 0; i < 300; ++i) {
      const std::string ip = "10.0.0." + std::to_string(i % 250);
      CPictureServer::Instance().UpdateLocalServerIp(ip);
      CPictureServer::Instance().UpdateWanServerInfo(i % 2 == 0, ip, 9700);
      CPictureServer::Instance().UpdateWanServerInfoV1({{WAN_IP, ip}});
    }
  });
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(NodeFor("outside:9700").rfind("{\"GatewayIP\":\"1", 0), 0u);
  }
  updates.join();
}

}  // namespace
}  // namespace Tansy::CloudStorage
