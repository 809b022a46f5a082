// Catalogues and stored bytes as each released version has left them, opened by this one. The fixtures are what those
// versions wrote, not what their scripts would write today.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Check.h"
#include "CheckUpgrade.h"
#include "DatabaseUrl.h"
#include "FileStore.h"
#include "HostSystem/Files.h"
#include "Schema.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kCat = "fs01ab-cd-0123456789abcdef0123456789abcdef.d";

std::string Content(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string FixturePath(int version) {
  const std::string digits = std::to_string(version);
  return std::string(TANSY_FIXTURES) + "/upgrade/catalogue-" + std::string(4 - digits.size(), '0') + digits + ".sql";
}

// Versions that there are fixtures of.
std::vector<int> Versions() {
  std::vector<int> versions;
  for (int version = 1; std::filesystem::exists(FixturePath(version)); ++version) {
    versions.push_back(version);
  }
  return versions;
}

class UpgradeTest : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    std::filesystem::current_path(temp_.GetPath());
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open("catalogue.db", &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, Content(FixturePath(GetParam())).c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
    temp_.Write("objects/fs01/ab/cd/0123456789abcdef0123456789abcdef.d", "cat picture");
    if (GetParam() >= 3) {
      temp_.Write("objects/lg01/00000001.log", Content(std::string(TANSY_FIXTURES) + "/upgrade/lg01/00000001.log"));
    }
    if (GetParam() >= 5) {
      temp_.Write("objects/fs01/ab/cd/00000000000000000000000000000001.d", "open part");
    }
  }
  void TearDown() override { std::filesystem::current_path(started_in_); }

  static void Upgrade() { PrepareSqliteSchema("catalogue.db", SqliteSchemaScripts(), FileStoreVolumes()); }
  static bool IsNewest() { return GetParam() == SqliteSchemaScripts().back().version; }
  static std::string Kept() { return NameOfOlderCatalogue("catalogue.db", GetParam()); }
  static std::string Value(const std::string& sql, const std::string& file = "catalogue.db") {
    return CSqliteFile(file, CSqliteFile::EAccess::kLook).QueryText(sql);
  }
  // What SQLite remembers of the statements that made everything, without comments and line ends.
  static std::vector<std::string> Shape(const std::string& file) {
    std::vector<std::string> shape;
    CSqliteFile(file, CSqliteFile::EAccess::kLook)
        .Query("SELECT name || ' ' || COALESCE(sql, '') FROM platform.sqlite_master ORDER BY name", {"value"},
               [&shape](const db_layer::IRow& row) { shape.emplace_back(row.GetText(0)); });
    return shape;
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
};

TEST_P(UpgradeTest, ObjectsAreThereWithTheirBytes) {
  Upgrade();
  const auto store = OpenFileStore("objects", false, EStoreUse::kLook);
  std::ostringstream out;
  EXPECT_EQ(RunCheck(*store, SqliteParam("catalogue.db"), {}, out), kExitDone) << out.str();
  EXPECT_EQ(Value("SELECT url FROM platform.local_object WHERE name = 'cat.jpg'"), kCat);
  EXPECT_EQ(Value("SELECT name FROM platform.local_bucket"), "photos");
  const std::string small = Value("SELECT url FROM platform.local_object WHERE name = 'small'");
  EXPECT_EQ(small.empty(), GetParam() < 3);
  for (const auto& [url, bytes] : {std::pair<std::string, std::string>(kCat, "cat picture"), {small, "small body"}}) {
    StoredName name;
    ReadBuffer buffer;
    if (url.empty()) {
      continue;
    }
    ASSERT_TRUE(ParseLocationText(url, name)) << url;
    ASSERT_EQ(store->ReadWhole(name, buffer), EStoreResult::kDone) << url;
    EXPECT_EQ(std::string(buffer.data.get(), buffer.size), bytes);
  }
  EXPECT_EQ(Value("SELECT COUNT(*) FROM platform.released_bytes"), "1") << "what was overwritten is freed later";
}

TEST_P(UpgradeTest, TheTablesAreThoseOfANewCatalogue) {
  Upgrade();
  PrepareSqliteSchema("new.db", SqliteSchemaScripts(), FileStoreVolumes());
  EXPECT_EQ(Shape("catalogue.db"), Shape("new.db"));
}

TEST_P(UpgradeTest, TheCatalogueOfBeforeIsKept) {
  Upgrade();
  EXPECT_EQ(std::filesystem::exists(Kept()), !IsNewest());
  if (!IsNewest()) {
    EXPECT_EQ(Value("SELECT MAX(version) FROM platform.schema_version", Kept()), std::to_string(GetParam()));
    EXPECT_EQ(Value("SELECT url FROM platform.local_object WHERE name = 'cat.jpg'", Kept()), kCat);
  }
}

// As on a disk without room for the copy.
TEST_P(UpgradeTest, WithoutACopyNothingIsChanged) {
  const std::string before = Content("catalogue.db");
  std::filesystem::create_directories(Kept() + ".tmp/in-the-way");
  if (IsNewest()) {
    Upgrade();
    return;
  }
  EXPECT_THROW(Upgrade(), CStartFailure);
  EXPECT_EQ(Content("catalogue.db"), before);
}

TEST_P(UpgradeTest, WhatAStartWouldChangeIsSaidAndNotDone) {
  HostOptions options;
  const std::string before = Content("catalogue.db");
  std::ostringstream out;
  EXPECT_EQ(RunCheckUpgrade(options, out), IsNewest() ? kExitDone : kExitFindings);
  EXPECT_THAT(out.str(), HasSubstr("schema version " + std::to_string(GetParam()) + " of "));
  for (const SchemaScript& script : SqliteSchemaScripts()) {
    EXPECT_EQ(out.str().find(script.name) != std::string::npos, script.version > GetParam()) << script.name;
  }
  if (GetParam() >= 3) {
    EXPECT_THAT(out.str(), HasSubstr("1 files of small objects in the format of this version"));
  }
  EXPECT_EQ(Content("catalogue.db"), before);
  EXPECT_FALSE(std::filesystem::exists(Kept()));
  Upgrade();
  std::ostringstream after;
  EXPECT_EQ(RunCheckUpgrade(options, after), kExitDone);
  EXPECT_THAT(after.str(), HasSubstr("a start changes nothing"));
}

INSTANTIATE_TEST_SUITE_P(From, UpgradeTest, testing::ValuesIn(Versions()));

// Whoever adds a script adds what the version before it has left.
TEST(UpgradeFixturesTest, EachVersionBeforeThisOneHasItsFixture) {
  EXPECT_GE(static_cast<int>(Versions().size()), SqliteSchemaScripts().back().version - 1);
}

TEST(CheckUpgradeTest, ANewerCatalogueAndAMissingOneAreSaid) {
  const std::filesystem::path started_in = std::filesystem::current_path();
  const Tests::CTempFolder temp;
  std::filesystem::current_path(temp.GetPath());
  HostOptions options;
  std::ostringstream out;
  EXPECT_EQ(RunCheckUpgrade(options, out), kExitFindings);
  EXPECT_THAT(out.str(), AllOf(HasSubstr("there is none yet"), Not(HasSubstr("applies"))));
  EXPECT_FALSE(std::filesystem::exists("catalogue.db"));
  PrepareSqliteSchema("catalogue.db", SqliteSchemaScripts(), {});
  CSqliteFile("catalogue.db", CSqliteFile::EAccess::kChange)
      .Run("INSERT INTO platform.schema_version VALUES (999, 'later', '')");
  EXPECT_THROW(RunCheckUpgrade(options, out), CStartFailure);
  std::filesystem::current_path(started_in);
}

}  // namespace
}  // namespace Tansy::Host
