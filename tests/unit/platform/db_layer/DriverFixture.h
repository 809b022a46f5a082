// A fresh database of the kind that this run is for, and what differs between the kinds.
#ifndef TANSY_TESTS_DB_LAYER_DRIVER_FIXTURE_H
#define TANSY_TESTS_DB_LAYER_DRIVER_FIXTURE_H

#include <memory>
#include <string>
#include <vector>

#include "SqliteFixture.h"
#include "fakes/PostgresServer.h"
#include "fakes/TestDatabase.h"

namespace db_layer {

inline const std::vector<std::string>& PostgresTestSchema() {
  static const std::vector<std::string> schema = {
      "CREATE TABLE platform.commit_marks (writer text PRIMARY KEY, batch bigint NOT NULL)",
      "CREATE SEQUENCE platform.item_id_seq",
      "CREATE TABLE platform.item (id bigint NOT NULL PRIMARY KEY, name text)",
  };
  return schema;
}

// The database `tansy` of the tests' server.
inline DBParam PostgresParam(const std::string& parameters = "") {
  DBParam param;
  param.type = kPostgresql;
  param.host = Tansy::Tests::CPostgresServer::Shared().GetHost();
  param.user = Tansy::Tests::CPostgresServer::kUser;
  param.database = Tansy::Tests::CPostgresServer::kDatabase + (parameters.empty() ? "" : "?" + parameters);
  return param;
}

class CDriverFixture : public CSqliteFixture {
 protected:
  explicit CDriverFixture(bool is_on_postgresql = Tansy::Tests::IsOnPostgresql())
      : is_on_postgresql_(is_on_postgresql) {}

  void SetUp() override {
    if (is_on_postgresql_) {
      Tansy::Tests::CPostgresServer::Shared().Empty();
    }
    connection_ = Open();
    ASSERT_TRUE(connection_);
    ASSERT_TRUE(connection_->ExecuteAll(is_on_postgresql_ ? PostgresTestSchema() : TestSchema()))
        << ErrorOf(*connection_);
  }

  DBParam Param() const {
    DBParam param = is_on_postgresql_ ? PostgresParam() : DBParam();
    if (!is_on_postgresql_) {
      param.database = path_;
    }
    return param;
  }
  std::unique_ptr<CConnect> Open() const {
    std::string error;
    auto connection = BuiltInDriver(Param().type)->Open(Param(), error);
    EXPECT_TRUE(connection) << error;
    return connection;
  }

  // What the database says about an id that is there already, and about a table that is not.
  std::string DuplicateText() const {
    return is_on_postgresql_ ? "duplicate key value violates unique constraint \"item_pkey\""
                             : "UNIQUE constraint failed: item.id";
  }
  std::string AbsentText(const std::string& table) const {
    return is_on_postgresql_ ? "relation \"" + table + "\" does not exist" : "no such table: " + table;
  }

  const bool is_on_postgresql_;
};

}  // namespace db_layer

#endif  // TANSY_TESTS_DB_LAYER_DRIVER_FIXTURE_H
