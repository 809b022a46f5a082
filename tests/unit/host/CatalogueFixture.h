// A data folder with a catalogue and a store, entered as tansyd enters its own.
#ifndef TANSY_TESTS_UNIT_HOST_CATALOGUE_FIXTURE_H
#define TANSY_TESTS_UNIT_HOST_CATALOGUE_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Catalogue.h"
#include "FileStore.h"
#include "Schema.h"
#include "SqliteFile.h"
#include "db_layer/DbLayer.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {

class CatalogueFixture : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(temp_.GetPath());
    PrepareSqliteSchema("catalogue.db", SqliteSchemaScripts(), FileStoreVolumes());
    db_layer::DBParam param;
    param.database = "catalogue.db";
    ASSERT_TRUE(db_layer::Module_Register(param, "platform"));
    store_ = OpenFileStore("objects", false);
  }
  void TearDown() override {
    db_layer::Module_Unregister("platform");
    std::filesystem::current_path(started_in_);
  }

  static bool TryToRun(const std::string& sql) {
    db_layer::CConnect* connection = db_layer::DBLayer_ApplyConn("platform");
    const bool done = connection != nullptr && connection->Execute(sql);
    db_layer::DBLayer_FreeConn(connection);
    return done;
  }
  static void Run(const std::string& sql) { EXPECT_TRUE(TryToRun(sql)) << sql; }
  static std::string Answer(const std::string& sql) {
    return CSqliteFile("catalogue.db", CSqliteFile::EAccess::kLook).QueryText(sql);
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
  std::unique_ptr<IObjectStore> store_;
};

}  // namespace Tansy::Host

#endif  // TANSY_TESTS_UNIT_HOST_CATALOGUE_FIXTURE_H
