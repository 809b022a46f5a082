// A data folder with a catalogue and a store, entered as tansyd enters its own.
#ifndef TANSY_TESTS_UNIT_HOST_CATALOGUE_FIXTURE_H
#define TANSY_TESTS_UNIT_HOST_CATALOGUE_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Catalogue.h"
#include "DatabaseUrl.h"
#include "FileStore.h"
#include "HostDatabase.h"
#include "PostgresDatabase.h"
#include "RadosPool.h"
#include "RadosStore.h"
#include "Schema.h"
#include "SqliteFile.h"
#include "db_layer/DbLayer.h"
#include "fakes/CephCluster.h"
#include "fakes/PostgresServer.h"
#include "fakes/TempFolder.h"
#include "fakes/TestDatabase.h"

namespace Tansy::Host {

class CatalogueFixture : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(temp_.GetPath());
    if (Tests::IsOnPostgresql()) {
      Tests::CPostgresServer::Shared().Empty();
      db_layer::SetPostgresTimeout(3000);
      CPostgresDatabase database(Database());
      PreparePostgresSchema(database, PostgresSchemaScripts(), FileStoreVolumes());
    } else {
      PrepareSqliteSchema("catalogue.db", SqliteSchemaScripts(), FileStoreVolumes());
    }
    ASSERT_TRUE(db_layer::Module_Register(Database(), "platform"));
    store_ = OpenStore(EStoreUse::kServe);
  }
  void TearDown() override {
    db_layer::Module_Unregister("platform");
    std::filesystem::current_path(started_in_);
  }

  // The database of this run: a file in the folder, or the one of the tests' server.
  static db_layer::DBParam Database() {
    db_layer::DBParam param;
    const bool is_on_server = Tests::IsOnPostgresql();
    const std::string url = is_on_server ? Tests::CPostgresServer::Shared().Url() : "sqlite:catalogue.db";
    EXPECT_EQ(ParseDatabaseUrl(url, param), "");
    return param;
  }

  // The store of this run: a folder, or a pool of the tests' cluster when TANSY_TEST_STORAGE says "rados".
  std::unique_ptr<IObjectStore> OpenStore(EStoreUse use) {
    const char* storage = std::getenv("TANSY_TEST_STORAGE");
    if (storage == nullptr || std::string(storage) != "rados") {
      return OpenFileStore("objects", false, use);
    }
    if (pool_ == nullptr) {
      Tests::CCephCluster& cluster = Tests::CCephCluster::Shared();
      RadosUrl url;
      EXPECT_TRUE(ParseRadosUrl(cluster.Url(cluster.NewNamespace()), url));
      pool_ = std::make_shared<CRadosPool>(url);
    }
    return OpenRadosStore(pool_, use);
  }

  static bool TryToRun(const std::string& sql) {
    db_layer::CConnect* connection = db_layer::DBLayer_ApplyConn("platform");
    const bool done = connection != nullptr && connection->Execute(sql);
    db_layer::DBLayer_FreeConn(connection);
    return done;
  }
  static void Run(const std::string& sql) { EXPECT_TRUE(TryToRun(sql)) << sql; }
  static std::string Answer(const std::string& sql) {
    if (Tests::IsOnPostgresql()) {
      const auto rows = Tests::CPostgresServer::Shared().Rows(sql);
      return rows.empty() ? "" : rows.front();
    }
    return CSqliteFile("catalogue.db", CSqliteFile::EAccess::kLook).QueryText(sql);
  }
  // From here on the table takes no new rows of which this is true (NEW is the row), and says "full".
  static void RefuseRows(const std::string& table, const std::string& condition = "1 = 1") {
    if (Tests::IsOnPostgresql()) {
      Tests::CPostgresServer::Shared().Run(
          "CREATE FUNCTION platform.no_room() RETURNS trigger LANGUAGE plpgsql AS "
          "$$ BEGIN RAISE EXCEPTION 'full'; END $$; CREATE TRIGGER no_room BEFORE INSERT ON platform." +
          table + " FOR EACH ROW WHEN (" + condition + ") EXECUTE FUNCTION platform.no_room()");
    } else {
      Run("CREATE TRIGGER platform.no_room BEFORE INSERT ON " + table + " WHEN " + condition +
          " BEGIN SELECT RAISE(ABORT, 'full'); END");
    }
  }
  static void TakeRowsAgain() {
    if (Tests::IsOnPostgresql()) {
      Tests::CPostgresServer::Shared().Run("DROP FUNCTION platform.no_room() CASCADE");
    } else {
      Run("DROP TRIGGER platform.no_room");
    }
  }

  std::string Store(const std::string& bytes) {
    StoredName name;
    EXPECT_EQ(store_->SaveWhole(EContent::kObject, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name),
              EStoreResult::kDone);
    return LocationText(name);
  }
  StoredName StorePicture(const std::string& bytes) {
    StoredName name;
    EXPECT_EQ(store_->SaveWhole(EContent::kPicture, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name),
              EStoreResult::kDone);
    return name;
  }
  static void AddObject(int id, const std::string& name, const std::string& url, long size = 1) {
    Run("INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) VALUES (" +
        std::to_string(id) + ", '', '" + name + "', 'b''ucket', " + std::to_string(size) + ", 't', '" + url + "')");
  }
  static void AddPart(int id, const std::string& task, const std::string& object, const std::string& url) {
    Run("INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, part_num, update_time, "
        "url) values (" +
        std::to_string(id) + ", '" + task + "', '" + object + "', 'b''ucket', 1, 1, 't', '" + url + "')");
  }
  static StoredName NameOf(const std::string& url) {
    StoredName name;
    EXPECT_TRUE(ParseLocationText(url, name)) << url;
    return name;
  }
  bool IsStored(const StoredName& name) {
    std::uint64_t size = 0;
    return store_->GetSize(name, size) == EStoreResult::kDone;
  }
  bool IsStored(const std::string& url) { return IsStored(NameOf(url)); }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
  std::shared_ptr<CRadosPool> pool_;  // null while bytes are in a folder
  std::unique_ptr<IObjectStore> store_;
};

}  // namespace Tansy::Host

#endif  // TANSY_TESTS_UNIT_HOST_CATALOGUE_FIXTURE_H
