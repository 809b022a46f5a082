#include "StorageServer/ObjectServer/ObjectServerInterface.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CatalogueFixture.h"
#include "KivPlatform/FactoryInterface.h"
#include "OSAL/Osal.h"
#include "StorageServer/IInterfaceManager.h"
#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/ServerComm.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "fakes/FakeHttpServer.h"

namespace {

// A test runs this instead of sleeping.
std::function<void(std::uint32_t)> g_sleep;

}  // namespace

// This program uses this function instead of the library's, so that no test waits for five seconds.
void OSAL_Sleep(std::uint32_t milliseconds) {
  if (g_sleep) {
    g_sleep(milliseconds);
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }
}

namespace Tansy::CloudStorage {
namespace {

using Texts = std::vector<std::string>;

struct CLocalConfig : KivPlatform::ILocalConfig {
  int GetDatabaseType() override { return type; }
  std::string GetDatabaseHost() override { return host; }
  int GetDatabasePort() override { return port; }
  std::string GetDatabaseUser() override { return user; }
  std::string GetDatabasePassword() override { return password; }
  std::string GetDatabaseName() override {
    if (fails) {
      throw std::runtime_error("the host has no name for it");
    }
    return name;
  }

  int type = db_layer::kSqlite;
  std::string host = "db.example";
  int port = 5433;
  std::string user = "quirin";
  std::string password = "secret";
  std::string name = "catalogue";
  bool fails = false;
};

// The host, all of its interfaces in one.
struct CHost : KivPlatform::IFactoryInterface, KivPlatform::IDatabaseParam, KivPlatform::IConfigManager {
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() override {
    return std::shared_ptr<KivPlatform::IDatabaseParam>(self.lock(), this);
  }
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() override {
    return has_config_manager ? std::shared_ptr<KivPlatform::IConfigManager>(self.lock(), this) : nullptr;
  }
  std::shared_ptr<KivPlatform::ILocalConfig> GetLocalConfig() override { return config; }
  bool RegisterConfigListener(const std::string& owner, const std::string& config_name, Listener given) override {
    registrations.push_back(owner + "/" + config_name);
    listener = std::move(given);
    if (on_register) {
      on_register();
    }
    return true;
  }

  static std::shared_ptr<CHost> Make() {
    auto host = std::make_shared<CHost>();
    host->self = host;
    return host;
  }

  std::weak_ptr<CHost> self;
  std::shared_ptr<CLocalConfig> config = std::make_shared<CLocalConfig>();
  bool has_config_manager = true;
  Texts registrations;
  Listener listener;
  std::function<void()> on_register;
};

// Opens the test's database, whichever it is asked for, and remembers the call.
class CRecordingDriver : public db_layer::IDriver {
 public:
  explicit CRecordingDriver(std::string database) : database_(std::move(database)) {}

  std::unique_ptr<db_layer::CConnect> Open(const db_layer::DBParam& param, std::string& error) override {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      params_.push_back(param);
      if (failures_ != 0) {
        --failures_;
        error = "not now";
        return nullptr;
      }
    }
    db_layer::DBParam real = param;
    real.database = database_;
    return db_layer::BuiltInDriver(db_layer::kSqlite)->Open(real, error);
  }

  std::vector<db_layer::DBParam> Params() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return params_;
  }
  db_layer::DBParam LastParam() const {
    const auto params = Params();
    EXPECT_FALSE(params.empty());
    return params.empty() ? db_layer::DBParam() : params.back();
  }
  void FailOpens(int count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failures_ = count;
  }

 private:
  const std::string database_;
  mutable std::mutex mutex_;
  std::vector<db_layer::DBParam> params_;
  int failures_ = 0;
};

class ObjectServerInterface : public CatalogueFixture {
 protected:
  ObjectServerInterface() {
    db_layer::SetDriver(db_layer::kSqlite, driver_);
    ForgetListeners();
  }
  ~ObjectServerInterface() override {
    g_sleep = nullptr;
    ForgetListeners();
  }

  // The servers outlive a test: they give up their listeners and then take themselves for started, as when they are
  // new.
  void ForgetListeners() {
    EXPECT_EQ(CObjectServer::Instance().SetObjectServerEnable(false), 0);
    EXPECT_EQ(CPictureServer::Instance().SetPicServerEnable(false), 0);
    http_.Reset();
    http_.OpenNothing(true);
    EXPECT_EQ(CObjectServer::Instance().SetObjectServerEnable(true), 0);
    EXPECT_EQ(CPictureServer::Instance().SetPicServerEnable(true), 0);
    http_.Reset();
  }

  static StorageServerConfig_V1 Config() {
    StorageServerConfig_V1 config;
    config.upload_port = 9700;
    config.download_port = 9700;
    config.ip = "192.0.2.1";
    config.ak = "access";
    config.sk = "secret";
    config.https_port = 9743;
    config.https_download_port = 9743;
    return config;
  }

  // Gives the answer to a best-node request that came in at `host`.
  std::string AskObjectServer(const std::string& host) {
    const TansyNet::HttpServerRecv request = Signed("/bucket/key", "bestnode", host);
    const std::int32_t handle = http_.NewHandle();
    CObjectServer::Instance().HandleObjectMsg(handle, request);
    return http_.AnswerOf(handle).body;
  }
  std::string AskPictureServer(const std::string& host) {
    const TansyNet::HttpServerRecv request = Signed("/Quorvane/BestNode", "", host);
    const std::int32_t handle = http_.NewHandle();
    CPictureServer::Instance().HandlePicMsg(handle, request);
    return http_.AnswerOf(handle).body;
  }
  static TansyNet::HttpServerRecv Signed(const std::string& path, const std::string& query, const std::string& host) {
    TansyNet::HttpServerRecv request;
    request.method = "GET";
    request.url = path;
    request.query = query;
    request.headers["Host"] = host;
    const std::string text = "GET\n\n\n\n\n" + path + (query.empty() ? "" : "?" + query);
    request.headers["Authorization"] = "quorvane access:" + SignHmacSha1(text, "secret");
    return request;
  }

  static void ExpectContains(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " is not in " << text;
  }

  std::shared_ptr<CRecordingDriver> driver_ = std::make_shared<CRecordingDriver>(database_.Param().database);
  std::shared_ptr<CHost> host_ = CHost::Make();
  Tests::CFakeHttpServer& http_ = Tests::CFakeHttpServer::Instance();
};

TEST_F(ObjectServerInterface, InitHandsTheHostsSettingsToTheDatabase) {
  EXPECT_EQ(InitObjectServer(static_cast<const StorageServerConfig&>(Config()), host_), 0);
  const db_layer::DBParam param = driver_->LastParam();
  EXPECT_EQ(param.type, db_layer::kSqlite);
  EXPECT_EQ(param.host, "db.example");
  EXPECT_EQ(param.port, 5433);
  EXPECT_EQ(param.user, "quirin");
  EXPECT_EQ(param.password, "secret");
  EXPECT_EQ(param.database, "catalogue");
  EXPECT_EQ(param.min_connections, 4);
  EXPECT_EQ(param.max_connections, 68);
  EXPECT_NE(CBaseDBLayerConn::Instance().ApplyConn(), nullptr) << "registered as the module that connections are of";
}

TEST_F(ObjectServerInterface, InitConnectsThenFollowsTheConfigurationThenLoadsAndListens) {
  ASSERT_TRUE(
      database_.Run("INSERT INTO platform.local_bucket (id, guid, name, acl, location, cycle, size, update_time)"
                    " VALUES (1, 'g', 'loaded at start', 0, '', 0, 0, '')"));
  host_->on_register = [this] {
    EXPECT_FALSE(driver_->Params().empty()) << "the database comes first";
    EXPECT_FALSE(manager_.IsBucketExist("loaded at start"));
    EXPECT_TRUE(http_.Calls().empty()) << "the listeners come last";
  };
  EXPECT_EQ(InitObjectServer(static_cast<const StorageServerConfig&>(Config()), host_), 0);
  EXPECT_EQ(host_->registrations, Texts{"CloudStorage/Config_LocalConfigManager"});
  EXPECT_TRUE(manager_.IsBucketExist("loaded at start"));
  EXPECT_EQ(http_.Calls(), (Texts{"start 0.0.0.0:9700", "start [::]:9700"}));
}

TEST_F(ObjectServerInterface, InitWithHttpsPortsOpensHttpsToo) {
  EXPECT_EQ(InitObjectServer(Config(), host_), 0);
  EXPECT_EQ(http_.Calls(),
            (Texts{"start 0.0.0.0:9700", "start [::]:9700", "start https 0.0.0.0:9743", "start https [::]:9743"}));
}

TEST_F(ObjectServerInterface, InitReturnsWhatTheServerReturns) {
  StorageServerConfig_V1 config = Config();
  config.upload_port = 8080;
  config.download_port = 8081;
  EXPECT_EQ(InitObjectServer(static_cast<const StorageServerConfig&>(config), host_), -1);
  EXPECT_EQ(InitObjectServer(config, host_), -1);
  ForgetListeners();
  http_.FailStart(1, 1001);
  EXPECT_EQ(InitObjectServer(Config(), host_), 1001);
}

TEST_F(ObjectServerInterface, InitGoesOnWithoutFactory) {
  const auto bare = CHost::Make();
  bare->config = nullptr;
  bare->has_config_manager = false;
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(bare));  // nothing of the tests before
  log_->Clear();
  EXPECT_EQ(InitObjectServer(static_cast<const StorageServerConfig&>(Config()), nullptr), 0);
  ExpectLine(5, "CIInterfaceManager::Init", "[%s]i_factory_interface id nullptr[%s(%d)]",
             "i_factory_interface id nullptr");
  EXPECT_EQ(driver_->LastParam().user, "");
  EXPECT_EQ(driver_->LastParam().min_connections, 4);
  EXPECT_EQ(driver_->LastParam().max_connections, 68);
  EXPECT_EQ(http_.Calls().size(), 2U);
}

TEST_F(ObjectServerInterface, InitTriesTheDatabaseUntilItAccepts) {
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(host_));
  std::vector<std::uint32_t> sleeps;
  g_sleep = [&](std::uint32_t milliseconds) {
    sleeps.push_back(milliseconds);
    EXPECT_TRUE(host_->registrations.empty()) << "no listener before there is a database";
  };
  driver_->FailOpens(3);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(InitDBModule());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Init DB Conn Fail...\nInit DB Conn Fail...\nInit DB Conn Fail...\n");
  EXPECT_EQ(sleeps, (std::vector<std::uint32_t>{5000, 5000, 5000}));
  constexpr const char* kFormat = "[%s]LocalStorage Init DB Connect... username:%s, port:%d[%s(%d)]";
  EXPECT_EQ(log_->Count(kFormat, 5), 3U);
  EXPECT_TRUE(log_->Text(kFormat).starts_with(
      "[Tansy::CloudStorage::InitDBModule]LocalStorage Init DB Connect... username:quirin, port:5433["))
      << log_->Text(kFormat);
  EXPECT_EQ(host_->registrations.size(), 1U);
}

TEST_F(ObjectServerInterface, WaitingForTheDatabaseSaysWhyAndTakesCorrectedSettings) {
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(host_));
  int tries = 0;
  g_sleep = [&](std::uint32_t) {
    host_->config = std::make_shared<CLocalConfig>();
    host_->config->host = "right.example";
    host_->config->user = "corrected " + std::to_string(++tries);
  };
  driver_->FailOpens(2);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(InitDBModule());
  testing::internal::GetCapturedStdout();
  constexpr const char* kReason = "[%s]database not reached: %s[%s(%d)]";
  EXPECT_EQ(log_->Count(kReason, 5), 2U);
  EXPECT_NE(log_->Text(kReason).find("not now"), std::string::npos) << log_->Text(kReason);
  EXPECT_EQ(driver_->LastParam().host, "right.example");
  EXPECT_EQ(driver_->LastParam().user, "corrected 2");
  EXPECT_EQ(driver_->LastParam().max_connections, 68);
}

TEST_F(ObjectServerInterface, AHostThatHasNoSettingsAnyMoreKeepsTheOldOnes) {
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(host_));
  ASSERT_TRUE(InitDBModule());
  const std::size_t opened = driver_->Params().size();
  host_->config = nullptr;
  host_->listener("Config_LocalConfigManager");
  EXPECT_EQ(log_->Count("[%s]no database settings to be had, the old ones stay.[%s(%d)]", 5), 1U);
  EXPECT_NE(CBaseDBLayerConn::Instance().ApplyConn(), nullptr);
  EXPECT_EQ(driver_->Params().size(), opened) << "the pool goes on as it was";
  EXPECT_EQ(driver_->LastParam().user, "quirin");
}

TEST_F(ObjectServerInterface, AChangedConfigurationReachesTheDatabase) {
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(host_));
  ASSERT_TRUE(InitDBModule());
  ASSERT_NE(host_->listener, nullptr);
  const std::size_t opened = driver_->Params().size();
  host_->config = std::make_shared<CLocalConfig>();
  host_->config->host = "new.example";
  host_->config->port = 5555;
  host_->config->user = "new user";
  host_->config->password = "new secret";
  host_->config->name = "new name";

  host_->listener("Config_Other");
  host_->listener("");
  host_->listener("Config_LocalConfigManager ");
  CBaseDBLayerConn::Instance().ApplyConn();
  EXPECT_EQ(driver_->Params().size(), opened) << "not its own configuration";

  host_->listener("Config_LocalConfigManager");
  ASSERT_NE(CBaseDBLayerConn::Instance().ApplyConn(), nullptr);
  EXPECT_GT(driver_->Params().size(), opened);
  const db_layer::DBParam param = driver_->LastParam();
  EXPECT_EQ(param.host, "new.example");
  EXPECT_EQ(param.port, 5555);
  EXPECT_EQ(param.user, "new user");
  EXPECT_EQ(param.password, "new secret");
  EXPECT_EQ(param.database, "new name");
  EXPECT_EQ(param.min_connections, 4);
  EXPECT_EQ(param.max_connections, 68);
}

TEST_F(ObjectServerInterface, NothingIsThrownIntoTheHost) {
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(host_));
  ASSERT_TRUE(InitDBModule());
  host_->config->fails = true;
  log_->Clear();
  EXPECT_NO_THROW(host_->listener("Config_LocalConfigManager"));
  EXPECT_EQ(log_->Count("[%s]%s failed, exception:%s[%s(%d)]", 5), 1U);
  log_->Clear();
  EXPECT_EQ(InitObjectServer(Config(), host_), -1);
  EXPECT_EQ(log_->Count("[%s]%s failed, exception:%s[%s(%d)]", 5), 1U);
}

TEST_F(ObjectServerInterface, UninitDoesNothing) {
  EXPECT_EQ(InitObjectServer(Config(), host_), 0);
  const Texts calls = http_.Calls();
  EXPECT_EQ(UninitObjectServer(), 0);
  EXPECT_EQ(http_.Calls(), calls);
  for (const Tests::FakeListener& listener : http_.Listeners()) {
    EXPECT_TRUE(listener.open);
  }
}

TEST_F(ObjectServerInterface, EnablingReachesTheServer) {
  EXPECT_EQ(InitObjectServer(Config(), host_), 0);
  EXPECT_EQ(SetObjectServerEnable(false), 0);
  for (const Tests::FakeListener& listener : http_.Listeners()) {
    EXPECT_FALSE(listener.open);
  }
  http_.FailStart(1, 1002);
  EXPECT_EQ(SetObjectServerEnable(true), 1002);
  EXPECT_EQ(SetObjectServerEnable(true), 0);
}

TEST_F(ObjectServerInterface, LookUpsReachTheServer) {
  EXPECT_EQ(InitObjectServer(Config(), host_), 0);
  MakeBucket("bucket");
  MakeObject("bucket", "key");
  std::string url;
  EXPECT_TRUE(GetInternalURLByObjectUrl(url, "/bucket/key"));
  ExpectContains(url, "fs01ab-cd-key.d");
  EXPECT_FALSE(GetInternalURLByObjectUrl(url, "/bucket/none"));

  TansyNet::HttpServerRecv request = Signed("/bucket/key", "", "host");
  std::string internal_url;
  EXPECT_EQ(CheckObjectRequestValid(internal_url, request.url, request.method, request.query, request.headers), 0);
  ExpectContains(internal_url, "fs01ab-cd-key.d");
  request.headers.erase("Authorization");
  EXPECT_EQ(CheckObjectRequestValid(internal_url, request.url, request.method, request.query, request.headers), -1);
}

class AddressUpdates : public ObjectServerInterface {
 protected:
  AddressUpdates() {
    EXPECT_EQ(InitObjectServer(Config(), host_), 0);
    EXPECT_EQ(CPictureServer::Instance().Init(Config()), 0);
    MakeBucket("bucket");
  }
};

TEST_F(AddressUpdates, TheLocalAddressChangesInBothServers) {
  EXPECT_EQ(UpdateLocalServerIp("192.0.2.77"), 0);
  ExpectContains(AskObjectServer("somewhere.example:9700"), "192.0.2.77:9700");
  ExpectContains(AskPictureServer("somewhere.example:9700"), "\"192.0.2.77\"");
}

TEST_F(AddressUpdates, EachServerGetsItsOwnWanPort) {
  EXPECT_EQ(UpdateWanServerInfo(true, "203.0.113.9", 7001, 7002), 0);
  ExpectContains(AskObjectServer("somewhere.example:7002"), "203.0.113.9:7002");
  ExpectContains(AskObjectServer("somewhere.example:7001"), "InvalidHttpContent");
  ExpectContains(AskPictureServer("somewhere.example:7001"), "\"203.0.113.9\"");
  ExpectContains(AskPictureServer("somewhere.example:7002"), "ErrorCode");

  EXPECT_EQ(UpdateWanServerInfo(false, "203.0.113.9", 7001, 7002), 0);
  ExpectContains(AskObjectServer("somewhere.example:9700"), "192.0.2.1:9700");
  ExpectContains(AskPictureServer("somewhere.example:9700"), "\"192.0.2.1\"");
}

TEST_F(AddressUpdates, AddressAndSwitchOfTheMapReachBothServers) {
  EXPECT_EQ(UpdateWanServerInfo(false, "", 7001, 7001), 0);
  EXPECT_EQ(UpdateWanServerInfoV1({{WAN_ENABLE, "true"}, {WAN_IP, "203.0.113.10"}}), 0);
  ExpectContains(AskObjectServer("somewhere.example:7001"), "203.0.113.10:7001");
  ExpectContains(AskPictureServer("somewhere.example:7001"), "\"203.0.113.10\"");
  EXPECT_EQ(UpdateWanServerInfoV1({{WAN_ENABLE, "TRUE"}}), 0);
  ExpectContains(AskObjectServer("somewhere.example:9700"), "192.0.2.1:9700");
  ExpectContains(AskPictureServer("somewhere.example:9700"), "\"192.0.2.1\"");
}

TEST_F(AddressUpdates, PortsOfTheMapReachTheServerTheyAreFor) {
  EXPECT_EQ(UpdateWanServerInfo(true, "203.0.113.9", 7001, 7002), 0);
  EXPECT_EQ(UpdateWanServerInfoV1({{WAN_PIC_PORT, "7101"}}), 0);
  ExpectContains(AskPictureServer("somewhere.example:7101"), "\"203.0.113.9\"");
  ExpectContains(AskObjectServer("somewhere.example:7002"), "203.0.113.9:7002");
  EXPECT_EQ(UpdateWanServerInfoV1({{WAN_OBJECT_PORT, "7102"}}), 0);
  ExpectContains(AskPictureServer("somewhere.example:7101"), "\"203.0.113.9\"");
  ExpectContains(AskObjectServer("somewhere.example:7102"), "203.0.113.9:7102");
  EXPECT_EQ(UpdateWanServerInfoV1({{WAN_PIC_HTTPS_PORT, "7143"}, {WAN_OBJECT_HTTPS_PORT, "7144"}}), 0);
  ExpectContains(AskPictureServer("somewhere.example:7143"), "\"7143\"");
  ExpectContains(AskPictureServer("somewhere.example:7144"), "ErrorCode");
  ExpectContains(AskObjectServer("somewhere.example:7144"), "203.0.113.9:7144");
  ExpectContains(AskObjectServer("somewhere.example:7143"), "InvalidHttpContent");
}

TEST_F(AddressUpdates, PortsThatAreNoNumbersAndUnknownKeys) {
  EXPECT_EQ(UpdateWanServerInfo(true, "203.0.113.9", 7001, 7002), 0);
  EXPECT_EQ(UpdateWanServerInfoV1(
                {{static_cast<WanServerInfoFieldType>(6), "7777"}, {static_cast<WanServerInfoFieldType>(-1), "7777"}}),
            0);
  ExpectContains(AskPictureServer("somewhere.example:7001"), "\"203.0.113.9\"");
  ExpectContains(AskObjectServer("somewhere.example:7002"), "203.0.113.9:7002");
  EXPECT_EQ(UpdateWanServerInfoV1({{WAN_PIC_PORT, "7201x"}, {WAN_OBJECT_PORT, "none"}}), 0);
  ExpectContains(AskPictureServer("somewhere.example:7201"), "\"203.0.113.9\"");
  ExpectContains(AskObjectServer("somewhere.example:7002"), "InvalidHttpContent");
  ExpectContains(AskObjectServer("somewhere.example:0"), "InvalidHttpContent");
}

TEST_F(AddressUpdates, MayComeWhileRequestsAreAnswered) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 100; ++round) {
        UpdateLocalServerIp("192.0.2." + std::to_string(i));
        UpdateWanServerInfo(round % 2 == 0, "203.0.113.9", 7001, 7001);
        UpdateWanServerInfoV1({{WAN_IP, "203.0.113.10"}, {WAN_OBJECT_PORT, "7002"}});
      }
    });
  }
  for (int round = 0; round < 100; ++round) {
    EXPECT_FALSE(AskObjectServer("127.0.0.1:9700").empty());
    EXPECT_FALSE(AskPictureServer("127.0.0.1:9700").empty());
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
