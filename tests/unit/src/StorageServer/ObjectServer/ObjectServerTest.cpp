#include "StorageServer/ObjectServer/ObjectServer.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "OSAL/Osal.h"
#include "ObjectServerFixture.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"

namespace {

// What the address formatting was asked for; an address that ends in this byte has no text.
constexpr unsigned char kNoText = 99;
std::atomic<int> g_family{0};
std::atomic<std::size_t> g_buffer_size{0};

}  // namespace

// This program uses this function instead of the library's.
int OSAL_InetNtop(int family, const void* address, char* buffer, std::size_t buffer_size) {
  g_family = family;
  g_buffer_size = buffer_size;
  if (static_cast<const unsigned char*>(address)[15] == kNoText) {
    return 0;
  }
  return inet_ntop(AF_INET6, address, buffer, static_cast<socklen_t>(buffer_size)) != nullptr ? 1 : 0;
}

namespace Tansy::Tests {
namespace {

using CloudStorage::AdapterAddresses;
using CloudStorage::StorageServerConfig;
using CloudStorage::StorageServerConfig_V1;
using ::testing::ElementsAre;

class CObjectServerLifecycleTest : public CObjectServerTest {
 protected:
  CObjectServerLifecycleTest() { Forget(); }

  // The listeners are closed, but the server takes them for open, as after its construction.
  void Forget() {
    EXPECT_EQ(server_.SetObjectServerEnable(false), 0);
    http_.OpenNothing(true);
    EXPECT_EQ(server_.SetObjectServerEnable(true), 0);
    http_.Reset();
    log_->Clear();
  }
  static StorageServerConfig PlainConfig() { return Config(); }
};

TEST_F(CObjectServerLifecycleTest, PlainInitOpensHttpOnBothFamilies) {
  EXPECT_EQ(server_.Init(PlainConfig()), 0);

  const auto listeners = http_.Listeners();
  ASSERT_EQ(listeners.size(), 2u);
  EXPECT_EQ(listeners[0].address, "0.0.0.0");
  EXPECT_EQ(listeners[1].address, "::");
  for (const auto& listener : listeners) {
    EXPECT_FALSE(listener.https);
    EXPECT_EQ(listener.port, 9700);
    EXPECT_TRUE(listener.reuse_address);
    EXPECT_EQ(listener.callback, &CloudStorage::CObjectServer::RecvMsgCallBack);
  }
}

TEST_F(CObjectServerLifecycleTest, ThePortIsReadAsSixteenBits) {
  StorageServerConfig config = PlainConfig();
  config.upload_port = config.download_port = 65536 + 9700;
  EXPECT_EQ(server_.Init(config), 0);
  EXPECT_THAT(http_.Calls(), ElementsAre("start 0.0.0.0:9700", "start [::]:9700"));
}

TEST_F(CObjectServerLifecycleTest, InitV1OpensHttpsWithTheDefaultCertificate) {
  EXPECT_EQ(server_.Init(Config()), 0);

  EXPECT_THAT(http_.Calls(), ElementsAre("start 0.0.0.0:9700", "start [::]:9700", "start https 0.0.0.0:9743",
                                         "start https [::]:9743"));
  const TansyNet::HttpsServer tls = http_.Listeners()[2].tls;
  EXPECT_FALSE(tls.request_client_certificate || tls.require_client_certificate || tls.legacy_protocols);
  EXPECT_EQ(tls.certificate_path, "./META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server");
  EXPECT_EQ(tls.private_key_path, tls.certificate_path);
  EXPECT_EQ(tls.trust_path, "");
}

TEST_F(CObjectServerLifecycleTest, InitWithOtherPortsOpensThose) {
  ASSERT_EQ(server_.Init(Config()), 0);
  const auto before = http_.Listeners();
  ASSERT_EQ(before.size(), 4u);
  StorageServerConfig_V1 config = Config();
  config.upload_port = config.download_port = 9800;
  config.https_port = config.https_download_port = 9843;
  http_.ForgetCalls();
  EXPECT_EQ(server_.Init(config), 0);
  const auto stop = [&before](std::size_t i) { return "stop " + std::to_string(before[i].handle); };
  EXPECT_THAT(http_.Calls(), ElementsAre("start 0.0.0.0:9800", stop(0), "start [::]:9800", stop(1),
                                         "start https 0.0.0.0:9843", stop(2), "start https [::]:9843", stop(3)));
  // The same once more changes nothing.
  http_.ForgetCalls();
  EXPECT_EQ(server_.Init(config), 0);
  EXPECT_THAT(http_.Calls(), ElementsAre());
}

TEST_F(CObjectServerLifecycleTest, APortThatCannotBeOpenedIsAnErrorAndLeavesTheOldOneOpen) {
  ASSERT_EQ(server_.Init(PlainConfig()), 0);
  StorageServerConfig config = PlainConfig();
  config.upload_port = config.download_port = 9800;
  http_.ForgetCalls();
  http_.FailStart(1, 1001);
  EXPECT_EQ(server_.Init(config), 1001);
  EXPECT_THAT(http_.Calls(), ElementsAre("start 0.0.0.0:9800"));
  EXPECT_TRUE(http_.Listeners()[0].open && http_.Listeners()[1].open);
  EXPECT_EQ(server_.Init(config), 0) << "the next try goes on";
  EXPECT_EQ(http_.Listeners().back().port, 9800);
}

TEST_F(CObjectServerLifecycleTest, FailedStartsEndInitAndLeaveOpenWhatIsOpen) {
  struct Case {
    int start;
    const char* format;
  };
  const Case cases[] = {{1, "[%s]StartHttpServer error, revalue = %d[%s(%d)]"},
                        {2, "[%s]StartHttpServer v6 error, revalue = %d[%s(%d)]"},
                        {3, "[%s]StartHttpsServer error, revalue = %d[%s(%d)]"},
                        {4, "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]"}};
  for (const Case& c : cases) {
    http_.FailStart(c.start, 1001);
    EXPECT_EQ(server_.Init(Config()), 1001) << c.start;
    EXPECT_EQ(log_->Count(c.format, logging::kError), 1u) << c.format;
    EXPECT_EQ(http_.Calls().size(), static_cast<std::size_t>(c.start));
    EXPECT_EQ(http_.Listeners().size(), static_cast<std::size_t>(c.start - 1));
    Forget();
  }
}

TEST_F(CObjectServerLifecycleTest, DifferentPortsAreRefusedAfterBothListenersAreOpen) {
  StorageServerConfig_V1 config = Config();
  config.upload_port = 8080;
  config.download_port = 8081;
  EXPECT_EQ(server_.Init(config), -1);
  EXPECT_THAT(http_.Calls(), ElementsAre("start 0.0.0.0:8081", "start [::]:8081"));
  EXPECT_TRUE(http_.Listeners()[0].open && http_.Listeners()[1].open);
  const auto lines = log_->Find("[%s]unsupport different download port[%d] and upload port[%d][%s(%d)]");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, logging::kError);
  EXPECT_NE(lines[0].text.find("download port[8081] and upload port[8080]"), std::string::npos) << lines[0].text;
}

TEST_F(CObjectServerLifecycleTest, ACatalogueThatDoesNotLoadDoesNotKeepTheServerFromStarting) {
  Database().FailStatementsWith("local_bucket");
  EXPECT_EQ(server_.Init(PlainConfig()), 0);
  Database().Heal();
  EXPECT_GE(log_->Count("[%s]Init failed, query bucket failed.[%s(%d)]", logging::kError), 1u);
  EXPECT_THAT(http_.Calls(), ElementsAre("start 0.0.0.0:9700", "start [::]:9700"));
}

std::atomic<int> g_streamed{0};
int CountStreamed(const char*, std::uint32_t, std::uint32_t, std::string& location) {
  ++g_streamed;
  location = "somewhere";
  return 0;
}

TEST_F(CObjectServerLifecycleTest, TheLastStepsAreTheCleanerAndTheStreamCallback) {
  auto& streams = CloudStorage::details::CBigFileStreamMgr::Instance();
  const auto id = static_cast<std::uint32_t>(http_.NewHandle());
  ASSERT_TRUE(streams.RegisterStream(id));
  StorageServerConfig config = PlainConfig();
  config.stream_save = &CountStreamed;
  // A start that fails does not get that far.
  config.upload_port = 1;
  EXPECT_EQ(server_.Init(config), -1);
  EXPECT_TRUE(streams.UploadStream(id, "x", 1, "b"));
  EXPECT_EQ(g_streamed, 0);
  config.upload_port = config.download_port;
  EXPECT_EQ(server_.Init(config), 0);
  EXPECT_TRUE(streams.UploadStream(id, "x", 1, "b"));
  EXPECT_EQ(g_streamed, 1);
  EXPECT_FALSE(CloudStorage::CCleanExpiredTaskThread::Instance().Start(3600000)) << "it runs";
  streams.RemoveStream(id);
  server_.Init(Config());  // the storage of the other tests
}

TEST_F(CObjectServerLifecycleTest, EnableRightAfterInitSaysAlreadyStarted) {
  server_.Init(PlainConfig());
  EXPECT_EQ(server_.SetObjectServerEnable(true), 0);
  EXPECT_EQ(log_->Count("[%s]SetPicServerEnable, already started.[%s(%d)]", logging::kNotable), 1u);
  EXPECT_EQ(http_.Calls().size(), 2u);
}

TEST_F(CObjectServerLifecycleTest, DisableStopsInOrderAndTwiceSaysAlreadyStopped) {
  server_.Init(Config());
  const auto listeners = http_.Listeners();
  EXPECT_EQ(server_.SetObjectServerEnable(false), 0);
  const auto calls = http_.Calls();
  ASSERT_EQ(calls.size(), 8u);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(calls[4 + i], "stop " + std::to_string(listeners[i].handle));
  }
  EXPECT_EQ(log_->Count("[%s]SetPicServerEnable, already stoped.[%s(%d)]"), 0u);

  EXPECT_EQ(server_.SetObjectServerEnable(false), 0);
  EXPECT_EQ(log_->Count("[%s]SetPicServerEnable, already stoped.[%s(%d)]", logging::kNotable), 1u);
  EXPECT_EQ(http_.Calls().size(), 8u);
}

TEST_F(CObjectServerLifecycleTest, EnableStartsAllFourWhicheverInitWasUsed) {
  server_.Init(PlainConfig());
  server_.SetObjectServerEnable(false);
  EXPECT_EQ(server_.SetObjectServerEnable(true), 0);
  const auto calls = http_.Calls();
  ASSERT_EQ(calls.size(), 10u);
  EXPECT_EQ(calls[6], "start 0.0.0.0:9700");
  EXPECT_EQ(calls[7], "start [::]:9700");
  EXPECT_EQ(calls[8].substr(0, 20), "start https 0.0.0.0:");
  EXPECT_EQ(calls[9].substr(0, 17), "start https [::]:");
}

TEST_F(CObjectServerLifecycleTest, AFailedStopIsReportedAndCanBeTriedAgain) {
  for (int stop = 1; stop <= 4; ++stop) {
    server_.Init(Config());
    http_.FailStop(stop, 1007);
    EXPECT_EQ(server_.SetObjectServerEnable(false), 1007);
    const char* const format = stop % 2 == 1 ? "[%s]SetObjectServerEnable, StopServer error, revalue = %d[%s(%d)]"
                                             : "[%s]SetObjectServerEnable, StopServer v6 error, revalue = %d[%s(%d)]";
    EXPECT_EQ(log_->Count(format, logging::kError), 1u) << stop;
    // Still started; the second try stops the rest.
    EXPECT_EQ(server_.SetObjectServerEnable(false), 0);
    for (const FakeListener& listener : http_.Listeners()) {
      EXPECT_FALSE(listener.open);
    }
    Forget();
  }
}

TEST_F(CObjectServerLifecycleTest, AFailedEnableIsReportedAndCanBeTriedAgain) {
  const char* const formats[] = {"[%s]SetObjectServerEnable, StartHttpServer error, revalue = %d[%s(%d)]",
                                 "[%s]SetObjectServerEnable, StartHttpServer v6 error, revalue = %d[%s(%d)]",
                                 "[%s]StartHttpsServer error, revalue = %d[%s(%d)]",
                                 "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]"};
  for (int start = 1; start <= 4; ++start) {
    server_.Init(Config());
    server_.SetObjectServerEnable(false);
    http_.FailStart(start, 1005);
    EXPECT_EQ(server_.SetObjectServerEnable(true), 1005);
    const auto lines = log_->Find(formats[start - 1]);
    ASSERT_EQ(lines.size(), 1u) << start;
    EXPECT_EQ(lines[0].text.rfind("[Tansy::CloudStorage::CObjectServer::SetObjectServerEnable]", 0), 0u)
        << lines[0].text;
    // Not started; the second try opens what is missing and nothing twice.
    EXPECT_EQ(server_.SetObjectServerEnable(true), 0);
    std::size_t open = 0;
    for (const FakeListener& listener : http_.Listeners()) {
      open += listener.open ? 1 : 0;
    }
    EXPECT_EQ(open, 4u) << start;
    EXPECT_EQ(http_.Calls().size(), 4u + 4u + 4u + 1u) << start;
    Forget();
  }
}

TEST_F(CObjectServerLifecycleTest, EnableCallsArePutInLine) {
  server_.Init(Config());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(server_.SetObjectServerEnable((round + i) % 2 == 0), 0);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  server_.SetObjectServerEnable(true);
  std::size_t open = 0;
  for (const FakeListener& listener : http_.Listeners()) {
    open += listener.open ? 1 : 0;
  }
  EXPECT_EQ(open, 4u);
}

// Adapters as a test wants them.
OSAL_AdapterInfo* MakeAdapter(std::uint32_t type, const char* ipv4, const char* ipv6, OSAL_AdapterInfo* next) {
  auto* adapter = new OSAL_AdapterInfo;
  adapter->type = type;
  adapter->next = next;
  if (ipv4 != nullptr) {
    adapter->ipv4 = new OSAL_Ipv4Address;
    std::strncpy(adapter->ipv4->text, ipv4, sizeof(adapter->ipv4->text) - 1);
  }
  if (ipv6 != nullptr) {
    adapter->ipv6 = new OSAL_Ipv6Address;
    inet_pton(AF_INET6, ipv6, adapter->ipv6->bytes);
  }
  return adapter;
}

struct AdapterGuard {
  explicit AdapterGuard(OSAL_AdapterSource source) { OSAL_SetAdapterSource(source); }
  ~AdapterGuard() { OSAL_SetAdapterSource(nullptr); }
};

TEST_F(CObjectServerLifecycleTest, AdapterAddressesLeaveOutLoopbackAndTunnels) {
  const AdapterGuard guard([](OSAL_AdapterInfo** adapters) {
    *adapters =
        MakeAdapter(24, "127.0.0.1", "::1",
                    MakeAdapter(6, "10.0.0.8", "fe80::8",
                                MakeAdapter(131, "10.9.9.9", nullptr, MakeAdapter(71, "10.0.0.9", nullptr, nullptr))));
    return 0;
  });
  AdapterAddresses addresses;
  EXPECT_TRUE(CloudStorage::CObjectServer::GetAdapterInfo(addresses));
  EXPECT_THAT(addresses.ipv4, ElementsAre("10.0.0.8", "10.0.0.9"));
  EXPECT_THAT(addresses.ipv6, ElementsAre("fe80::8"));
  EXPECT_EQ(log_->Count("[%s]adapter type[%d] is not support[%s(%d)]", logging::kNotable), 2u);
  EXPECT_NE(log_->Lines().front().text.find("]adapter type[24] is not support["), std::string::npos);
  EXPECT_EQ(g_family, 23);
  EXPECT_EQ(g_buffer_size, 130u);
}

TEST_F(CObjectServerLifecycleTest, AnAddressWithoutATextIsLeftOut) {
  const AdapterGuard guard([](OSAL_AdapterInfo** adapters) {
    *adapters = MakeAdapter(6, nullptr, "fe80::63", MakeAdapter(6, "10.0.0.9", "fe80::9", nullptr));  // 0x63 is kNoText
    return 0;
  });
  AdapterAddresses addresses;
  EXPECT_TRUE(CloudStorage::CObjectServer::GetAdapterInfo(addresses));
  EXPECT_THAT(addresses.ipv4, ElementsAre("10.0.0.9"));
  EXPECT_THAT(addresses.ipv6, ElementsAre("fe80::9"));
  EXPECT_EQ(log_->Count("[%s]OSAL_InetNtop error![%s(%d)]", logging::kError), 1u);
}

TEST_F(CObjectServerLifecycleTest, AtMostSeventeenAdaptersAreLookedAt) {
  const AdapterGuard guard([](OSAL_AdapterInfo** adapters) {
    *adapters = nullptr;
    for (int i = 18; i >= 1; --i) {
      *adapters = MakeAdapter(6, ("10.0.0." + std::to_string(i)).c_str(), nullptr, *adapters);
    }
    return 0;
  });
  AdapterAddresses addresses;
  EXPECT_TRUE(CloudStorage::CObjectServer::GetAdapterInfo(addresses));
  EXPECT_EQ(addresses.ipv4.size(), 17u);
  EXPECT_TRUE(addresses.ipv4.contains("10.0.0.17"));
  EXPECT_FALSE(addresses.ipv4.contains("10.0.0.18"));
}

TEST_F(CObjectServerLifecycleTest, AdaptersThatTheSystemDoesNotTell) {
  const AdapterGuard guard([](OSAL_AdapterInfo** adapters) {
    *adapters = nullptr;
    return 111;
  });
  AdapterAddresses addresses;
  EXPECT_FALSE(CloudStorage::CObjectServer::GetAdapterInfo(addresses));
  constexpr const char* kFailed = "[%s]OSAL_GetAdapterInfo failed. Error code[%d].[%s(%d)]";
  EXPECT_NE(log_->Text(kFailed).find("code[111]"), std::string::npos);
  EXPECT_EQ(log_->Count(kFailed, logging::kError), 1u);
}

TEST_F(CObjectServerLifecycleTest, UpdatesWhileRequestsReadTheFields) {
  const std::string bucket = NewBucket();
  std::atomic<bool> stop{false};
  std::vector<std::thread> updaters;
  updaters.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      server_.UpdateLocalServerIp("10.0.0." + std::to_string(i % 250));
    }
  });
  updaters.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      server_.UpdateWanServerInfo(i % 2 == 0, "198.51.100." + std::to_string(i % 250), 19700);
    }
  });
  updaters.emplace_back([&] {
    while (!stop) {
      server_.UpdateWanServerInfoV1({{CloudStorage::WAN_OBJECT_HTTPS_PORT, "19743"}});
    }
  });
  for (int i = 0; i < 50; ++i) {
    const FakeAnswer answer = Get("/" + bucket + "/k", "bestnode", {{"Host", "127.0.0.1:9700"}});
    EXPECT_TRUE(IsXml(answer, Xml("<BestNodeInfo><Location>127.0.0.1:9700</Location></BestNodeInfo>")));
  }
  stop = true;
  for (std::thread& thread : updaters) {
    thread.join();
  }
}

}  // namespace
}  // namespace Tansy::Tests
