#include "Schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

#include "CatalogueFixture.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// A second opinion on the file, without the code under test.
class CDatabase {
 public:
  explicit CDatabase(const std::string& file) {
    EXPECT_EQ(sqlite3_open(":memory:", &database_), SQLITE_OK);
    Run("ATTACH DATABASE '" + file + "' AS platform");
  }
  ~CDatabase() { sqlite3_close(database_); }

  void Run(const std::string& sql) {
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << sql << ": " << error;
    sqlite3_free(error);
  }
  // What is wrong with a statement; "" when nothing is.
  std::string FailureOf(const std::string& sql) {
    return sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK ? ""
                                                                                        : sqlite3_errmsg(database_);
  }
  // All values of all rows, joined with "|".
  std::vector<std::string> Rows(const std::string& sql) {
    std::vector<std::string> rows;
    const auto add = [](void* list, int count, char** values, char**) {
      std::string row;
      for (int i = 0; i < count; ++i) {
        row += (i == 0 ? "" : "|") + std::string(values[i] == nullptr ? "NULL" : values[i]);
      }
      static_cast<std::vector<std::string>*>(list)->push_back(row);
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(database_, sql.c_str(), add, &rows, nullptr), SQLITE_OK) << sql;
    return rows;
  }

 private:
  sqlite3* database_ = nullptr;
};

class SchemaTest : public testing::Test {
 protected:
  std::string FailureOf(const std::vector<SchemaScript>& scripts) {
    try {
      PrepareSqliteSchema(file_, scripts, {});
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      return failure.what();
    }
    return "";
  }

  Tests::CTempFolder temp_;
  std::string file_ = temp_.Path("catalogue.db");
};

TEST_F(SchemaTest, AFreshFileGetsEverythingAndASecondStartChangesNothing) {
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {{"fs01", "fs01\\"}});
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {{"fs01", "fs01\\"}});
  CDatabase database(file_);
  EXPECT_EQ(database.Rows("SELECT version FROM platform.schema_version").size(), SqliteSchemaScripts().size());
  EXPECT_THAT(database.Rows("SELECT * FROM platform.picture_url_encrypt"), ElementsAre("fs01|fs01\\"));
  EXPECT_EQ(database.Rows("SELECT * FROM platform.sequences").size(), 3U);
  database.Run(
      "INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) "
      "VALUES (1, '', 'o', 'b', -1, 't', 'u')");
  EXPECT_THAT(database.Rows("SELECT is_deleted, size FROM platform.local_object"), ElementsAre("0|-1"));
}

TEST_F(SchemaTest, ScriptsAreNumberedFromOneWithoutGaps) {
  int expected = 1;
  for (const SchemaScript& script : SqliteSchemaScripts()) {
    EXPECT_EQ(script.version, expected++) << script.name;
  }
}

TEST_F(SchemaTest, OnlyNewScriptsRun) {
  const SchemaScript first = {1, "one", "CREATE TABLE platform.a (x);"};
  const SchemaScript second = {2, "two", "CREATE TABLE platform.b (x); INSERT INTO platform.b VALUES (1);"};
  PrepareSqliteSchema(file_, {first}, {});
  CDatabase(file_).Run("INSERT INTO platform.a VALUES (7)");
  PrepareSqliteSchema(file_, {first, second}, {});
  PrepareSqliteSchema(file_, {first, second}, {});
  CDatabase database(file_);
  EXPECT_THAT(database.Rows("SELECT x FROM platform.a"), ElementsAre("7"));
  EXPECT_THAT(database.Rows("SELECT x FROM platform.b"), ElementsAre("1"));
  EXPECT_THAT(database.Rows("SELECT version, name FROM platform.schema_version"), ElementsAre("1|one", "2|two"));
}

TEST_F(SchemaTest, AnUpgradeIsDoneWhollyOrNotAtAll) {
  const SchemaScript first = {1, "one", "CREATE TABLE platform.a (x);"};
  const SchemaScript second = {2, "two", "CREATE TABLE platform.b (x);"};
  const SchemaScript broken = {3, "three", "CREATE TABLE platform.a (x);"};
  PrepareSqliteSchema(file_, {first}, {});
  EXPECT_THAT(FailureOf({first, second, broken}), HasSubstr("two, three failed"));
  CDatabase database(file_);
  EXPECT_THAT(database.Rows("SELECT version FROM platform.schema_version"), ElementsAre("1"));
  EXPECT_THAT(database.Rows("SELECT name FROM platform.sqlite_master WHERE name = 'b'"), ElementsAre());
}

// A catalogue of the first version, with one of everything in it.
TEST_F(SchemaTest, ACatalogueOfTheFirstVersionKeepsItsRows) {
  PrepareSqliteSchema(file_, {SqliteSchemaScripts().front()}, {{"fs01", "fs01\\"}});
  CDatabase database(file_);
  database.Run(
      "INSERT INTO platform.local_object (id, name, bucket_name, url) VALUES (1, 'o', 'b', 'u1');"
      "UPDATE platform.local_object SET url = 'u2';"
      "INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, part_num, url) "
      "VALUES (1, 't', 'p', 'b', 1, 'u3')");
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {{"fs01", "fs01\\"}});
  EXPECT_THAT(database.Rows("SELECT name, url FROM platform.local_object"), ElementsAre("o|u2"));
  EXPECT_THAT(database.Rows("SELECT object_name, url FROM platform.local_object_task"), ElementsAre("p|u3"));
  EXPECT_THAT(database.Rows("SELECT url, released_at, kind FROM platform.released_bytes"), ElementsAre("u1|-1|0"))
      << "its age counts from now on, whatever the clock said when it was released";
  database.Run("DELETE FROM platform.local_object; DELETE FROM platform.local_object_task");
  EXPECT_THAT(database.Rows("SELECT url, kind FROM platform.released_bytes ORDER BY id"),
              ElementsAre("u1|0", "u2|2", "u3|0"));
}

// With thousands of overwritten objects, a search through all their entries made each removal take milliseconds.
TEST_F(SchemaTest, ARemovalFindsTheEntryOfItsUrlAtOnce) {
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {});
  CDatabase database(file_);
  EXPECT_THAT(database.Rows("EXPLAIN QUERY PLAN SELECT 1 FROM platform.released_bytes WHERE url = 'u' AND kind = 0"),
              ElementsAre(HasSubstr("(url=? AND kind=?)")));
}

TEST_F(SchemaTest, AnotherProgramsDatabaseIsLeftAlone) {
  const char* const others[] = {
      "CREATE TABLE platform.songs (title)",
      "CREATE TABLE platform.schema_version (version INTEGER)",
      "CREATE TABLE platform.schema_version (version INTEGER, name TEXT, applied_at TEXT);"
      "INSERT INTO platform.schema_version VALUES (1, 'songs.sql', '')",
  };
  for (const char* sql : others) {
    std::filesystem::remove(file_);
    CDatabase(file_).Run(sql);
    const std::string before = temp_.Read("catalogue.db");
    EXPECT_THAT(FailureOf(SqliteSchemaScripts()), HasSubstr("another program's")) << sql;
    EXPECT_EQ(temp_.Read("catalogue.db"), before) << sql;
  }
}

TEST_F(SchemaTest, ANewerVersionIsRefusedAndNotTouched) {
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {});
  CDatabase(file_).Run("INSERT INTO platform.schema_version VALUES (4711, 'later', '')");
  const std::string before = temp_.Read("catalogue.db");
  EXPECT_THAT(FailureOf(SqliteSchemaScripts()), HasSubstr("4711"));
  EXPECT_EQ(temp_.Read("catalogue.db"), before);
}

TEST_F(SchemaTest, WhatIsNoCatalogueIsLeftAlone) {
  temp_.Write("catalogue.db", "this is no database, just some text that is long enough to look at");
  EXPECT_THAT(FailureOf(SqliteSchemaScripts()), HasSubstr("cannot be"));
  EXPECT_THAT(temp_.Read("catalogue.db"), testing::StartsWith("this is no database"));
}

TEST_F(SchemaTest, SomebodyElsesTablesAreLeftAlone) {
  CDatabase(file_).Run("CREATE TABLE platform.local_object (mine); INSERT INTO platform.local_object VALUES (1)");
  EXPECT_THAT(FailureOf(SqliteSchemaScripts()), HasSubstr("another program's"));
  CDatabase database(file_);
  EXPECT_THAT(database.Rows("SELECT * FROM platform.local_object"), ElementsAre("1"));
  EXPECT_THAT(database.Rows("SELECT name FROM platform.sqlite_master WHERE name = 'local_bucket'"), ElementsAre());
}

TEST_F(SchemaTest, AMissingFolderIsAFailure) {
  file_ = temp_.Path("none/catalogue.db");
  EXPECT_THAT(FailureOf(SqliteSchemaScripts()), HasSubstr("cannot be"));
}

TEST_F(SchemaTest, AVolumeThatMovedGetsItsNewPrefix) {
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {{"fs01", "old"}});
  PrepareSqliteSchema(file_, SqliteSchemaScripts(), {{"fs01", "new"}, {"fs02", "x"}});
  EXPECT_THAT(CDatabase(file_).Rows("SELECT * FROM platform.picture_url_encrypt ORDER BY 1"),
              ElementsAre("fs01|new", "fs02|x"));
}

class PostgresSchemaTest : public testing::Test {
 protected:
  PostgresSchemaTest() {
    server_.Run("DROP SCHEMA IF EXISTS platform CASCADE; GRANT CREATE ON DATABASE tansy TO tansy");
  }

  std::string FailureOf(const std::vector<SchemaScript>& scripts, const std::vector<VolumeRow>& volumes = {}) {
    db_layer::DBParam param;
    EXPECT_EQ(ParseDatabaseUrl(server_.Url(), param), "");
    try {
      CPostgresDatabase database(param);
      PreparePostgresSchema(database, scripts, volumes);
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      EXPECT_THAT(failure.what(), testing::StartsWith("database " + db_layer::DescribeDatabase(param)));
      return failure.what();
    }
    return "";
  }

  Tests::CPostgresServer& server_ = Tests::CPostgresServer::Shared();
};

TEST_F(PostgresSchemaTest, AFreshDatabaseGetsEverythingAndASecondStartChangesNothing) {
  for (int start = 0; start < 2; ++start) {
    EXPECT_EQ(FailureOf(PostgresSchemaScripts(), {{"fs01", "fs01\\"}}), "");
    EXPECT_EQ(server_.Rows("SELECT version FROM platform.schema_version").size(), PostgresSchemaScripts().size());
    EXPECT_THAT(server_.Rows("SELECT * FROM platform.picture_url_encrypt"), ElementsAre("fs01|fs01\\"));
  }
  EXPECT_EQ(FailureOf(PostgresSchemaScripts(), {{"fs01", "new"}, {"fs02", "x"}}), "");
  EXPECT_THAT(server_.Rows("SELECT * FROM platform.picture_url_encrypt ORDER BY 1"), ElementsAre("fs01|new", "fs02|x"));
}

TEST_F(PostgresSchemaTest, ScriptsAreNumberedFromOneWithoutGaps) {
  int expected = 1;
  for (const SchemaScript& script : PostgresSchemaScripts()) {
    EXPECT_EQ(script.version, expected++) << script.name;
  }
}

TEST_F(PostgresSchemaTest, OnlyNewScriptsRunAndAllOfThemOrNone) {
  const SchemaScript first = {1, "one", "CREATE TABLE platform.a (x integer);"};
  const SchemaScript second = {2, "two", "CREATE TABLE platform.b (x integer); INSERT INTO platform.b VALUES (1);"};
  const SchemaScript broken = {3, "three", "CREATE TABLE platform.a (x integer);"};
  EXPECT_EQ(FailureOf({first}), "");
  EXPECT_THAT(FailureOf({first, second, broken}), HasSubstr("two, three failed: relation \"a\" already exists"));
  EXPECT_THAT(server_.Rows("SELECT version, name FROM platform.schema_version"), ElementsAre("1|one"));
  EXPECT_THAT(server_.Rows("SELECT to_regclass('platform.b')"), ElementsAre("NULL"));
  EXPECT_EQ(FailureOf({first, second}), "");
  EXPECT_EQ(FailureOf({first, second}), "");
  EXPECT_THAT(server_.Rows("SELECT x FROM platform.b"), ElementsAre("1"));
}

TEST_F(PostgresSchemaTest, ANewerVersionIsRefused) {
  ASSERT_EQ(FailureOf(PostgresSchemaScripts()), "");
  server_.Run("INSERT INTO platform.schema_version VALUES (4711, 'later', '')");
  EXPECT_THAT(FailureOf(PostgresSchemaScripts()), HasSubstr("has schema version 4711, made by a newer tansyd"));
}

TEST_F(PostgresSchemaTest, SomebodyElsesTablesAreLeftAlone) {
  server_.Run("CREATE SCHEMA platform AUTHORIZATION tansy; CREATE TABLE platform.songs (title text)");
  EXPECT_THAT(FailureOf(PostgresSchemaScripts()), HasSubstr("is another program's"));
  server_.Run(
      "CREATE TABLE platform.schema_version (version integer, name text, applied_at text);"
      "INSERT INTO platform.schema_version VALUES (1, 'songs.sql', ''); GRANT ALL ON platform.schema_version TO tansy");
  EXPECT_THAT(FailureOf(PostgresSchemaScripts()), HasSubstr("is another program's"));
  EXPECT_THAT(server_.Rows("SELECT to_regclass('platform.local_object')"), ElementsAre("NULL"));
}

TEST_F(PostgresSchemaTest, MissingRightsAreSaid) {
  server_.Run("ALTER DATABASE tansy OWNER TO postgres; REVOKE CREATE ON DATABASE tansy FROM tansy");
  EXPECT_THAT(FailureOf(PostgresSchemaScripts()), HasSubstr("permission denied for database tansy"));
  server_.Run("CREATE SCHEMA platform");
  EXPECT_THAT(FailureOf(PostgresSchemaScripts()), HasSubstr("permission denied for schema platform"));
  server_.Run("GRANT ALL ON SCHEMA platform TO tansy");
  EXPECT_EQ(FailureOf(PostgresSchemaScripts()), "") << "a schema that was made for it will do";
  server_.Run("ALTER DATABASE tansy OWNER TO tansy");
}

TEST_F(PostgresSchemaTest, ADatabaseThatAnotherProgramWritesToIsRefused) {
  ASSERT_EQ(FailureOf(PostgresSchemaScripts()), "");
  db_layer::DBParam param;
  EXPECT_EQ(ParseDatabaseUrl(server_.Url("application_name=other"), param), "");
  CPostgresDatabase other(param);
  other.Run("UPDATE platform.host_values SET value = value");
  EXPECT_THAT(FailureOf(PostgresSchemaScripts(), {{"fs01", "x"}}), HasSubstr("in use by another program"));
}

// The same triggers in each kind of database.
class ReleaseTriggerTest : public CatalogueFixture {
 protected:
  static std::vector<std::string> Rows(const std::string& sql) {
    return Tests::IsOnPostgresql() ? Tests::CPostgresServer::Shared().Rows(sql) : CDatabase("catalogue.db").Rows(sql);
  }
  static std::string FailureOf(const std::string& sql) {
    return Tests::IsOnPostgresql() ? Tests::CPostgresServer::Shared().FailureOf(sql)
                                   : CDatabase("catalogue.db").FailureOf(sql);
  }
  static std::vector<std::string> Released() {
    return Rows("SELECT url, bucket_name, object_name FROM platform.released_bytes ORDER BY id");
  }
  static void InsertObject(int id, const std::string& name, const std::string& url) {
    Run("INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) VALUES (" +
        std::to_string(id) + ", '', '" + name + "', 'b', 1, 't', '" + url + "')");
  }
  static void InsertPart(int id, int part, const std::string& url) {
    Run("INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, part_num, update_time, "
        "url) values (" +
        std::to_string(id) + ", 'task', 'o', 'b', 1, " + std::to_string(part) + ", 't', '" + url + "')");
  }
};

TEST_F(ReleaseTriggerTest, OverwritingReleasesTheOldBytes) {
  InsertObject(1, "o", "u1");
  Run("UPDATE platform.local_object set size=2, update_time='t2', url='u2' where id=1 ;");
  EXPECT_THAT(Released(), ElementsAre("u1|b|o"));
  Run("UPDATE platform.local_object set size=3, update_time='t3', url='u2' where id=1 ;");
  EXPECT_EQ(Released().size(), 1U) << "the same bytes under a new size are still in use";
}

TEST_F(ReleaseTriggerTest, RemovingAnObjectReleasesItsBytesAsRemoved) {
  InsertObject(1, "o", "u1");
  Run("DELETE FROM platform.local_object where id=1");
  EXPECT_THAT(Rows("SELECT url, kind FROM platform.released_bytes"), ElementsAre("u1|2"));
}

TEST_F(ReleaseTriggerTest, NoRowNamesBytesThatWereGivenUp) {
  InsertObject(1, "o", "u1");
  Run("INSERT INTO platform.freed_bytes VALUES ('gone', 0)");
  for (const char* sql :
       {"INSERT INTO platform.local_object (id, name, bucket_name, url) VALUES (2, 'p', 'b', 'gone')",
        "UPDATE platform.local_object SET url = 'gone' WHERE id = 1",
        "INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, part_num, url) "
        "VALUES (1, 't', 'p', 'b', 1, 'gone')"}) {
    EXPECT_THAT(FailureOf(sql), HasSubstr("were freed")) << sql;
  }
  EXPECT_THAT(Rows("SELECT name, url FROM platform.local_object"), ElementsAre("o|u1"));
  EXPECT_THAT(Released(), ElementsAre());
}

TEST_F(ReleaseTriggerTest, AStaleRowOfTheSameNameGivesWay) {
  InsertObject(1, "o", "u1");
  InsertObject(2, "o", "u2");
  EXPECT_THAT(Rows("SELECT id, url FROM platform.local_object"), ElementsAre("2|u2"));
  EXPECT_THAT(Released(), ElementsAre("u1|b|o"));
  InsertObject(3, "other", "u3");
  EXPECT_EQ(Rows("SELECT id FROM platform.local_object").size(), 2U);
}

TEST_F(ReleaseTriggerTest, ARowHiddenByHandStays) {
  InsertObject(1, "o", "u1");
  Run("UPDATE platform.local_object SET is_deleted = 1");
  InsertObject(2, "o", "u2");
  EXPECT_EQ(Rows("SELECT id FROM platform.local_object").size(), 2U);
  EXPECT_THAT(Released(), ElementsAre());
}

TEST_F(ReleaseTriggerTest, ATaskThatBecameAnObjectReleasesNothing) {
  InsertPart(1, 1, "u");
  InsertPart(2, 2, "u");
  InsertObject(1, "o", "u");
  Run("DELETE FROM platform.local_object_task WHERE task_id = 'task' ");
  EXPECT_THAT(Released(), ElementsAre());
}

TEST_F(ReleaseTriggerTest, ATaskThatExpiredReleasesItsBytesOnce) {
  InsertObject(1, "o", "other bytes under the same name");
  InsertPart(1, 1, "u");
  InsertPart(2, 2, "u");
  Run("DELETE FROM platform.local_object_task WHERE task_id = 'task' ");
  EXPECT_THAT(Released(), ElementsAre("u|b|o"));
}

}  // namespace
}  // namespace Tansy::Host
