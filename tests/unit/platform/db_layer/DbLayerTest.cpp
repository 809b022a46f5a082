#include "db_layer/DbLayer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedDriver.h"
#include "SqliteFixture.h"

namespace db_layer {
namespace {

class DbLayerTest : public CSqliteFixture {
 protected:
  ~DbLayerTest() override {
    Module_Unregister("test");
    Module_Unregister("other");
    SetDriver(kSqlite, nullptr);
    SetDriver(kPostgresql, nullptr);
  }

  DBParam Param() const {
    DBParam param;
    param.database = path_;
    return param;
  }
  static std::shared_ptr<CConnect> Apply(const std::string& module = "test") {
    return {DBLayer_ApplyConn(module), DBLayer_FreeConn};
  }
};

TEST_F(DbLayerTest, RegisteredModuleHasConnections) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  EXPECT_EQ(LastRegisterError("test"), "");
  const auto connection = Apply();
  ASSERT_TRUE(connection);
  EXPECT_TRUE(connection->ExecuteAll(TestSchema())) << ErrorOf(*connection);
  EXPECT_TRUE(Insert(*connection, 1));
  EXPECT_EQ(Count(*Apply(), "platform.item"), 1);
}

TEST_F(DbLayerTest, UnregisteredModuleHasNone) {
  EXPECT_FALSE(Apply("test"));
  EXPECT_EQ(LastRegisterError("test"), "the module is not registered");
  EXPECT_EQ(LastRegisterError("never heard of"), "");
}

TEST_F(DbLayerTest, RegistrationThatFailsSaysWhyAndCanBeRepeated) {
  DBParam param = Param();
  param.database = folder_.Path("missing") + "/platform.db";
  EXPECT_FALSE(Module_Register(param, "test"));
  EXPECT_NE(LastRegisterError("test").find("unable to open database"), std::string::npos) << LastRegisterError("test");
  EXPECT_FALSE(Apply());
  std::filesystem::create_directory(std::filesystem::path(folder_.GetPath()) / "missing");
  EXPECT_TRUE(Module_Register(param, "test")) << LastRegisterError("test");
  EXPECT_EQ(LastRegisterError("test"), "");
  EXPECT_TRUE(Apply());
}

TEST_F(DbLayerTest, FailedRegistrationKeepsThePoolThatThereWas) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  DBParam param = Param();
  param.database = "";
  EXPECT_FALSE(Module_Register(param, "test"));
  EXPECT_TRUE(Apply());
}

TEST_F(DbLayerTest, UnknownDatabasesAreRefused) {
  DBParam param = Param();
  param.type = 77;
  EXPECT_FALSE(Module_Register(param, "test"));
  EXPECT_EQ(LastRegisterError("test"), "unknown type of database: 77");
}

TEST_F(DbLayerTest, DriversCanBeReplaced) {
  const auto driver = std::make_shared<CScriptedDriver>();
  SetDriver(kPostgresql, driver);
  DBParam param = Param();
  param.type = kPostgresql;
  param.min_connections = 2;
  ASSERT_TRUE(Module_Register(param, "test"));
  EXPECT_EQ(driver->living, 2);
  Module_Unregister("test");
  EXPECT_EQ(driver->living, 0);
  SetDriver(kPostgresql, nullptr);
  param.host = "/nowhere";
  EXPECT_FALSE(Module_Register(param, "test"));
}

TEST_F(DbLayerTest, ErrorsNeverHoldThePassword) {
  const auto driver = std::make_shared<CScriptedDriver>();
  driver->fails_after = 0;
  driver->refusal = "FATAL: postgresql://admin:s3cret@db refused";
  SetDriver(kSqlite, driver);
  DBParam param = Param();
  param.password = "s3cret";
  EXPECT_FALSE(Module_Register(param, "test"));
  EXPECT_EQ(LastRegisterError("test"), "FATAL: postgresql://admin:***@db refused");
  driver->fails_after = -1;
  ASSERT_TRUE(Module_Register(param, "test"));
  driver->fails_after = 0;
  EXPECT_FALSE(DBLayer_ResetParam(param));
  EXPECT_EQ(LastRegisterError("test"), "FATAL: postgresql://admin:***@db refused");
  EXPECT_EQ(DBLayer_ApplyConn("test"), nullptr);
  EXPECT_EQ(LastRegisterError("test"), "FATAL: postgresql://admin:***@db refused");
}

TEST_F(DbLayerTest, AHeldModuleIsSwitchedToAnotherDatabaseOrStaysWhereItIs) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  ASSERT_TRUE(Module_Hold("test", 10000));
  DBParam param = Param();
  param.database = folder_.Path("missing/folder/other.db");
  EXPECT_FALSE(Module_Switch(param, "test"));
  EXPECT_NE(LastRegisterError("test"), "");
  CConnect* connection = DBLayer_ApplyConn("test");
  ASSERT_TRUE(connection) << "where it was";
  DBLayer_FreeConn(connection);
  param.database = folder_.Path("other.db");
  EXPECT_TRUE(Module_Switch(param, "test"));
  Module_Release("test");
  connection = DBLayer_ApplyConn("test");
  ASSERT_TRUE(connection) << LastRegisterError("test");
  EXPECT_TRUE(connection->Execute("CREATE TABLE platform.here (id INTEGER)"));
  DBLayer_FreeConn(connection);
  Module_Unregister("test");
  EXPECT_FALSE(Module_Hold("test", 0));
  const auto other = OpenSqlite(folder_.Path("other.db"));
  EXPECT_EQ(Count(*other, "platform.here"), 0);
}

TEST_F(DbLayerTest, ForeignAndReturnedConnectionsAreIgnored) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  DBLayer_FreeConn(nullptr);
  const auto foreign = OpenSqlite(path_);
  DBLayer_FreeConn(foreign.get());
  EXPECT_TRUE(foreign->Query("SELECT 1"));
  CConnect* connection = DBLayer_ApplyConn("test");
  DBLayer_FreeConn(connection);
  DBLayer_FreeConn(connection);
  EXPECT_TRUE(Apply());
}

TEST_F(DbLayerTest, RegisteringAgainReplacesThePool) {
  const auto driver = std::make_shared<CScriptedDriver>();
  SetDriver(kSqlite, driver);
  ASSERT_TRUE(Module_Register(Param(), "test"));
  auto old = Apply();
  DBParam param = Param();
  param.min_connections = 1;
  ASSERT_TRUE(Module_Register(param, "test"));
  EXPECT_EQ(driver->living, 2);  // the new one, and the old one that is out
  EXPECT_TRUE(old->IsHealthy());
  old.reset();
  EXPECT_EQ(driver->living, 1);
}

TEST_F(DbLayerTest, ResetMovesEveryModuleToTheNewDatabase) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  ASSERT_TRUE(Module_Register(Param(), "other"));
  auto before = Apply();
  ASSERT_TRUE(before->ExecuteAll(TestSchema()));
  DBParam param = Param();
  param.database = folder_.Path("second.db");
  ASSERT_TRUE(DBLayer_ResetParam(param));
  for (const char* module : {"test", "other"}) {
    EXPECT_FALSE(Apply(module)->Query("SELECT * FROM platform.item"));
  }
  EXPECT_TRUE(before->Query("SELECT * FROM platform.item"));
  before.reset();
  EXPECT_FALSE(Apply()->Query("SELECT * FROM platform.item"));
}

TEST_F(DbLayerTest, ResetToADatabaseThatIsNotThereYetCountsAllTheSame) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  DBParam param = Param();
  param.database = folder_.Path("later") + "/platform.db";
  EXPECT_FALSE(DBLayer_ResetParam(param));
  EXPECT_NE(LastRegisterError("test"), "");
  EXPECT_FALSE(Apply());
  std::filesystem::create_directory(std::filesystem::path(folder_.GetPath()) / "later");
  const auto connection = Apply();
  ASSERT_TRUE(connection) << LastRegisterError("test");
  EXPECT_EQ(LastRegisterError("test"), "");
}

TEST_F(DbLayerTest, ResetWithoutModulesSucceeds) {
  EXPECT_TRUE(DBLayer_ResetParam(Param()));
}

TEST_F(DbLayerTest, UnregisteringLeavesEverythingInTheFile) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  {
    const auto connection = Apply();
    ASSERT_TRUE(connection->ExecuteAll(TestSchema()));
    ASSERT_TRUE(Insert(*connection, 1));
  }
  EXPECT_TRUE(std::filesystem::exists(path_ + "-wal"));
  Module_Unregister("test");
  EXPECT_FALSE(std::filesystem::exists(path_ + "-wal"));
  EXPECT_FALSE(Apply());
  Module_Unregister("test");
  Module_Unregister("never heard of");
}

TEST_F(DbLayerTest, UnregisteringWaitsForConnections) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  auto connection = Apply();
  ASSERT_TRUE(connection->ExecuteAll(TestSchema()));
  std::atomic<bool> unregistered{false};
  std::thread closer([&] {
    Module_Unregister("test");
    unregistered = true;
    EXPECT_FALSE(std::filesystem::exists(path_ + "-wal"));
  });
  while (Apply()) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(unregistered);
  EXPECT_TRUE(Insert(*connection, 1));
  connection.reset();
  closer.join();
}

TEST_F(DbLayerTest, DefaultsAreFullDurabilityAndPools) {
  const DBParam param;
  EXPECT_EQ(param.type, kSqlite);
  EXPECT_EQ(param.min_connections, 4);
  EXPECT_EQ(param.max_connections, 16);
  EXPECT_FALSE(SetSqliteFullDurability(true));  // the fixture's setting
  EXPECT_TRUE(SetSqliteFullDurability(false));
  EXPECT_EQ(SetSqliteBusyTimeout(10), 5000);
  EXPECT_EQ(SetSqliteBusyTimeout(5000), 10);
}

}  // namespace
}  // namespace db_layer
