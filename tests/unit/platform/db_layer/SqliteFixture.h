#ifndef TANSY_TESTS_DB_LAYER_SQLITE_FIXTURE_H
#define TANSY_TESTS_DB_LAYER_SQLITE_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "db_layer/DbLayer.h"
#include "fakes/TempFolder.h"

namespace db_layer {

inline const std::vector<std::string>& TestSchema() {
  static const std::vector<std::string> schema = {
      "CREATE TABLE platform.sequences (name TEXT NOT NULL PRIMARY KEY, "
      "next_value INTEGER NOT NULL CHECK (next_value >= 1))",
      "INSERT INTO platform.sequences (name, next_value) VALUES ('platform.item_id_seq', 1)",
      "CREATE TABLE platform.item (id INTEGER NOT NULL PRIMARY KEY, name TEXT)",
  };
  return schema;
}

inline std::string ErrorOf(CConnect& connection) {
  std::string text;
  connection.GetLastError(text);
  return text;
}

// A connection of the built-in driver, past any pool. Null when it does not open; `error` says why.
inline std::unique_ptr<CConnect> OpenSqlite(const std::string& path, std::string& error) {
  DBParam param;
  param.database = path;
  return BuiltInDriver(kSqlite)->Open(param, error);
}

inline std::unique_ptr<CConnect> OpenSqlite(const std::string& path) {
  std::string error;
  auto connection = OpenSqlite(path, error);
  EXPECT_TRUE(connection) << error;
  return connection;
}

// The first column of all rows, as text separated by commas.
inline std::string Column(CConnect& connection, const std::string& sql, const std::string& column) {
  EXPECT_TRUE(connection.Query(sql)) << sql << ": " << ErrorOf(connection);
  std::string values;
  for (; !connection.IsEnd(); connection.MoveNext()) {
    values += (values.empty() ? "" : ",") + connection.GetString(column);
  }
  return values;
}

inline int Count(CConnect& connection, const std::string& table) {
  EXPECT_TRUE(connection.Query("SELECT count(*) AS n FROM " + table)) << ErrorOf(connection);
  return connection.GetInt("n");
}

// A fresh database with the schema above. It prefers speed to durability, because few tests cut the power.
class CSqliteFixture : public testing::Test {
 protected:
  CSqliteFixture() : was_full_(SetSqliteFullDurability(false)), was_timeout_(SetSqliteBusyTimeout(5000)) {}
  ~CSqliteFixture() override {
    SetSqliteFullDurability(was_full_);
    SetSqliteBusyTimeout(was_timeout_);
  }

  void MakeSchema() {
    connection_ = OpenSqlite(path_);
    ASSERT_TRUE(connection_);
    ASSERT_TRUE(connection_->ExecuteAll(TestSchema())) << ErrorOf(*connection_);
  }
  bool Insert(int id) { return Insert(*connection_, id); }
  static bool Insert(CConnect& connection, int id) {
    return connection.Execute("INSERT INTO platform.item (id, name) VALUES (" + std::to_string(id) + ", 'n')");
  }

  Tansy::Tests::CTempFolder folder_;
  const std::string path_ = folder_.Path("platform.db");
  std::unique_ptr<CConnect> connection_;

 private:
  const bool was_full_;
  const int was_timeout_;
};

}  // namespace db_layer

#endif  // TANSY_TESTS_DB_LAYER_SQLITE_FIXTURE_H
