// A database that fails on command and remembers every statement: SQLite in a temporary file, or PostgreSQL in a run
// that is for it (TestDatabase.h), with the module's tables.
//
//   CFailingDatabase database;                                    // is now what db_layer opens for SQLite
//   db_layer::Module_Register(database.Param(), "platform");
//   database.FailStatement(2);                                    // the next but one
//   ...
//   EXPECT_EQ(database.Statements()[0], "INSERT INTO ...");
//
// Any thread. One at a time in a process: it stands in for the driver of all databases of its kind.
#ifndef TANSY_TESTS_FAKES_FAILING_DATABASE_H
#define TANSY_TESTS_FAKES_FAILING_DATABASE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "db_layer/DbLayer.h"
#include "fakes/PostgresServer.h"
#include "fakes/TempFolder.h"
#include "fakes/TestDatabase.h"

namespace Tansy::Tests {

// What goes wrong, and what was asked. Shared with the connections, which may outlive the database.
class CDatabaseScript {
 public:
  static constexpr int kInjectedCode = 4711;
  static constexpr const char* kInjectedText = "injected failure";

  // Remembers the statement. Returns true when it has to fail.
  bool Record(const std::string& sql) {
    std::function<void(const std::string&)> hook;
    bool fails = false;
    {
      const std::lock_guard lock(mutex_);
      statements_.push_back(sql);
      hook = hook_;
      fails = std::any_of(failing_texts_.begin(), failing_texts_.end(),
                          [&sql](const std::string& text) { return sql.find(text) != std::string::npos; });
      if (statements_until_failure_ > 0 && --statements_until_failure_ == 0) {
        fails = true;
      }
    }
    if (hook) {
      hook(sql);
    }
    return fails;
  }

  void FailStatement(int number) {
    const std::lock_guard lock(mutex_);
    statements_until_failure_ = number;
  }
  void FailStatementsWith(std::string text) {
    const std::lock_guard lock(mutex_);
    failing_texts_.push_back(std::move(text));
  }
  void SetHook(std::function<void(const std::string&)> hook) {
    const std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
  }
  void Heal() {
    const std::lock_guard lock(mutex_);
    statements_until_failure_ = 0;
    failing_texts_.clear();
    connections_fail = false;
  }
  std::vector<std::string> Statements() const {
    const std::lock_guard lock(mutex_);
    return statements_;
  }
  void ForgetStatements() {
    const std::lock_guard lock(mutex_);
    statements_.clear();
  }

  std::atomic<bool> connections_fail{false};
  std::atomic<int> connections_opened{0};
  std::atomic<int> writes{0};         // each of one or more statements that are committed together
  std::atomic<int> broken_before{0};  // connections with a number up to this one are broken

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> statements_;
  std::vector<std::string> failing_texts_;
  int statements_until_failure_ = 0;
  std::function<void(const std::string&)> hook_;
};

class CFailingConnect : public db_layer::CConnect {
 public:
  CFailingConnect(std::unique_ptr<db_layer::CConnect> connection, std::shared_ptr<CDatabaseScript> script, int number)
      : connection_(std::move(connection)), script_(std::move(script)), number_(number) {}

  bool Execute(const std::string& sql) override {
    ++script_->writes;
    return !Fails(sql) && connection_->Execute(sql);
  }
  bool Query(const std::string& sql) override {
    is_failed_query_ = Fails(sql);
    return !is_failed_query_ && connection_->Query(sql);
  }
  bool ExecuteAll(const std::vector<std::string>& statements) override {
    ++script_->writes;
    const bool fails =
        std::any_of(statements.begin(), statements.end(), [this](const std::string& sql) { return Fails(sql); });
    return !fails && connection_->ExecuteAll(statements);
  }
  void ExecuteLater(std::vector<std::string> statements, db_layer::WriteDone done) override {
    ++script_->writes;
    if (std::any_of(statements.begin(), statements.end(), [this](const std::string& sql) { return Fails(sql); })) {
      done({false, CDatabaseScript::kInjectedCode, CDatabaseScript::kInjectedText});
    } else {
      connection_->ExecuteLater(std::move(statements), std::move(done));
    }
  }
  bool ShowRows(const std::string& sql, const std::vector<std::string>& columns,
                const db_layer::RowVisitor& look) override {
    is_failed_query_ = Fails(sql);
    return !is_failed_query_ && connection_->ShowRows(sql, columns, look);
  }
  int GetLastError(std::string& text) override {
    if (!is_injected_) {
      return connection_->GetLastError(text);
    }
    text = CDatabaseScript::kInjectedText;
    return CDatabaseScript::kInjectedCode;
  }
  void MoveNext() override { connection_->MoveNext(); }
  bool IsEnd() override { return is_failed_query_ || connection_->IsEnd(); }
  std::string GetString(const std::string& column) override {
    return is_failed_query_ ? std::string() : connection_->GetString(column);
  }
  std::int32_t GetInt(int index) override { return is_failed_query_ ? 0 : connection_->GetInt(index); }
  std::int32_t GetInt(const std::string& column) override { return is_failed_query_ ? 0 : connection_->GetInt(column); }
  bool IsHealthy() override { return number_ > script_->broken_before && connection_->IsHealthy(); }

 private:
  bool Fails(const std::string& sql) {
    is_injected_ = script_->Record(sql);
    return is_injected_;
  }

  std::unique_ptr<db_layer::CConnect> connection_;
  std::shared_ptr<CDatabaseScript> script_;
  const int number_;
  bool is_injected_ = false;
  bool is_failed_query_ = false;
};

class CFailingDriver : public db_layer::IDriver {
 public:
  explicit CFailingDriver(std::shared_ptr<CDatabaseScript> script) : script_(std::move(script)) {}

  std::unique_ptr<db_layer::CConnect> Open(const db_layer::DBParam& param, std::string& error) override {
    if (script_->connections_fail) {
      error = CDatabaseScript::kInjectedText;
      return nullptr;
    }
    auto connection = db_layer::BuiltInDriver(param.type)->Open(param, error);
    if (!connection) {
      return nullptr;
    }
    return std::make_unique<CFailingConnect>(std::move(connection), script_, ++script_->connections_opened);
  }

 private:
  std::shared_ptr<CDatabaseScript> script_;
};

class CFailingDatabase {
 public:
  CFailingDatabase() {
    // Nothing here has to survive a power failure, so nothing waits for the disk.
    const bool full = db_layer::SetSqliteFullDurability(false);
    std::string error;
    if (is_on_postgresql_) {
      TestServer().Empty();
    }
    direct_ = db_layer::BuiltInDriver(Param().type)->Open(Param(), error);
    db_layer::SetSqliteFullDurability(full);
    EXPECT_NE(direct_, nullptr) << error;
    if (direct_) {
      const bool made = direct_->ExecuteAll(is_on_postgresql_ ? PostgresSchema() : Schema());
      direct_->GetLastError(error);
      EXPECT_TRUE(made) << error;
    }
    db_layer::SetDriver(Param().type, std::make_shared<CFailingDriver>(script_));
  }

  // Modules registered with it must have been unregistered before.
  ~CFailingDatabase() {
    db_layer::SetDriver(Param().type, nullptr);
    direct_.reset();
  }
  CFailingDatabase(const CFailingDatabase&) = delete;
  CFailingDatabase& operator=(const CFailingDatabase&) = delete;

  // Gives the parameters to register.
  db_layer::DBParam Param() const {
    db_layer::DBParam param;
    param.min_connections = 1;
    if (is_on_postgresql_) {
      param.type = db_layer::kPostgresql;
      param.host = TestServer().GetHost();
      param.user = CPostgresServer::kUser;
      param.database = CPostgresServer::kDatabase;
    } else {
      param.type = db_layer::kSqlite;
      param.database = folder_.Path("platform.db");
    }
    return param;
  }

  // The statement of this number fails, counted from 1 from now on; the ones after it work again.
  void FailStatement(int number) { script_->FailStatement(number); }
  // Every statement that contains this text fails until Heal.
  void FailStatementsWith(std::string text) { script_->FailStatementsWith(std::move(text)); }
  // No new connection opens until Heal. Those in the pool still work: see BreakConnections.
  void FailConnections() { script_->connections_fail = true; }
  // All connections that are open now are broken; the pool replaces them when it next looks.
  void BreakConnections() { script_->broken_before = script_->connections_opened.load(); }
  // Ends every failure.
  void Heal() { script_->Heal(); }

  // Called before each statement, on the thread that runs it: to hold one up, or to change something in between.
  void SetHook(std::function<void(const std::string&)> hook) { script_->SetHook(std::move(hook)); }

  // Every statement that was asked for, those made to fail included, in order.
  std::vector<std::string> Statements() const { return script_->Statements(); }
  std::size_t CountStatements(const std::string& text) const {
    const auto statements = Statements();
    return static_cast<std::size_t>(
        std::count_if(statements.begin(), statements.end(),
                      [&text](const std::string& statement) { return statement.find(text) != std::string::npos; }));
  }
  void ForgetStatements() { script_->ForgetStatements(); }
  int CountConnections() const { return script_->connections_opened; }
  // What was handed over together counts as one; it is one commit, or less when other threads write too.
  int CountWrites() const { return script_->writes; }

  // These bypass the script: they change the database, or read one column of all rows of a query.
  bool Run(const std::string& sql) {
    const std::lock_guard lock(direct_mutex_);
    return direct_->Execute(sql);
  }
  std::vector<std::string> Column(const std::string& sql, const std::string& column) {
    const std::lock_guard lock(direct_mutex_);
    std::vector<std::string> values;
    if (!direct_->Query(sql)) {
      std::string error;
      direct_->GetLastError(error);
      ADD_FAILURE() << sql << ": " << error;
    }
    for (; !direct_->IsEnd(); direct_->MoveNext()) {
      values.push_back(direct_->GetString(column));
    }
    return values;
  }

  // The next value that a sequence which gave none yet will give.
  bool SetNextValue(const std::string& sequence, std::int64_t value) {
    const std::string number = std::to_string(value);
    return Run(is_on_postgresql_
                   ? "ALTER SEQUENCE " + sequence + " RESTART WITH " + number
                   : "UPDATE platform.sequences SET next_value=" + number + " WHERE name='" + sequence + "'");
  }

  static std::vector<std::string> Schema() {
    return {
        "CREATE TABLE platform.sequences (name TEXT NOT NULL PRIMARY KEY, "
        "next_value INTEGER NOT NULL CHECK (next_value >= 1))",
        "INSERT INTO platform.sequences (name, next_value) VALUES ('platform.local_bucket_id_seq', 1), "
        "('platform.local_object_id_seq', 1), ('platform.local_object_task_id_seq', 1)",
        "CREATE TABLE platform.local_bucket (id INTEGER NOT NULL PRIMARY KEY, guid TEXT NOT NULL, name TEXT NOT NULL, "
        "acl INTEGER NOT NULL, location TEXT NOT NULL, cycle INTEGER NOT NULL, size INTEGER NOT NULL, "
        "update_time TEXT NOT NULL, is_deleted INTEGER NOT NULL DEFAULT 0)",
        "CREATE TABLE platform.local_object (id INTEGER NOT NULL PRIMARY KEY, guid TEXT NOT NULL, name TEXT NOT NULL, "
        "bucket_name TEXT NOT NULL, size INTEGER NOT NULL, update_time TEXT NOT NULL, url TEXT NOT NULL, "
        "is_deleted INTEGER NOT NULL DEFAULT 0, pieces TEXT NOT NULL DEFAULT '')",
        "CREATE INDEX platform.local_object_bucket ON local_object (bucket_name)",
        "CREATE TABLE platform.local_object_task (id INTEGER NOT NULL PRIMARY KEY, task_id TEXT NOT NULL, "
        "object_name TEXT NOT NULL, bucket_name TEXT NOT NULL, size INTEGER NOT NULL, part_num INTEGER NOT NULL, "
        "update_time TEXT NOT NULL, url TEXT NOT NULL, is_deleted INTEGER NOT NULL DEFAULT 0)",
        "CREATE INDEX platform.local_object_task_task ON local_object_task (task_id)",
        "CREATE TABLE platform.local_object_attributes (object_id INTEGER NOT NULL PRIMARY KEY, attributes TEXT NOT "
        "NULL)",
        "CREATE TRIGGER platform.attributes_replaced AFTER UPDATE OF url ON local_object WHEN OLD.url <> NEW.url BEGIN "
        "DELETE FROM local_object_attributes WHERE object_id = OLD.id; END",
        "CREATE TRIGGER platform.attributes_removed AFTER DELETE ON local_object BEGIN "
        "DELETE FROM local_object_attributes WHERE object_id = OLD.id; END",
        "CREATE TABLE platform.local_upload (object_url TEXT NOT NULL PRIMARY KEY, object_name TEXT NOT NULL, "
        "bucket_name TEXT NOT NULL, sort_key TEXT NOT NULL, attributes TEXT NOT NULL, begun TEXT NOT NULL, "
        "update_time TEXT NOT NULL)",
        "CREATE TABLE platform.local_upload_part (object_url TEXT NOT NULL, part_num INTEGER NOT NULL, "
        "size INTEGER NOT NULL, url TEXT NOT NULL, attributes TEXT NOT NULL, update_time TEXT NOT NULL, "
        "PRIMARY KEY (object_url, part_num))",
        "CREATE TRIGGER platform.part_late BEFORE INSERT ON local_upload_part "
        "WHEN NOT EXISTS (SELECT 1 FROM local_upload WHERE object_url = NEW.object_url) "
        "BEGIN SELECT RAISE(ABORT, 'the upload of this part has ended'); END",
        "CREATE TRIGGER platform.parts_missing BEFORE INSERT ON local_object WHEN substr(NEW.url, 1, 6) = 'parts:' "
        "AND (NOT EXISTS (SELECT 1 FROM local_upload WHERE object_url = NEW.url) OR (SELECT COALESCE(SUM(size), 0) "
        "FROM local_upload_part WHERE object_url = NEW.url) <> NEW.size) "
        "BEGIN SELECT RAISE(ABORT, 'the parts of this object are not there'); END",
        "CREATE TRIGGER platform.parts_changed BEFORE UPDATE OF url ON local_object WHEN substr(NEW.url, 1, 6) = "
        "'parts:' AND (NEW.url <> OLD.url AND NOT EXISTS (SELECT 1 FROM local_upload WHERE object_url = NEW.url) OR "
        "(SELECT COALESCE(SUM(size), 0) FROM local_upload_part WHERE object_url = NEW.url) <> NEW.size) "
        "BEGIN SELECT RAISE(ABORT, 'the parts of this object are not there'); END",
        "CREATE TRIGGER platform.parts_others BEFORE UPDATE OF pieces ON local_object WHEN EXISTS (SELECT 1 FROM "
        "local_upload_part WHERE object_url = NEW.url AND instr(NEW.pieces, url) = 0) "
        "BEGIN SELECT RAISE(ABORT, 'the parts of this object are others'); END",
        "CREATE TABLE platform.picture_url_encrypt (encrypt_url TEXT NOT NULL PRIMARY KEY, url TEXT NOT NULL)",
    };
  }

  static std::vector<std::string> PostgresSchema() {
    return {
        "CREATE TABLE platform.commit_marks (writer text PRIMARY KEY, batch bigint NOT NULL)",
        "CREATE SEQUENCE platform.local_bucket_id_seq",
        "CREATE SEQUENCE platform.local_object_id_seq",
        "CREATE SEQUENCE platform.local_object_task_id_seq",
        "CREATE TABLE platform.local_bucket (id bigint PRIMARY KEY, guid text NOT NULL, name text NOT NULL, "
        "acl bigint NOT NULL, location text NOT NULL, cycle bigint NOT NULL, size bigint NOT NULL, "
        "update_time text NOT NULL, is_deleted bigint NOT NULL DEFAULT 0)",
        "CREATE TABLE platform.local_object (id bigint PRIMARY KEY, guid text NOT NULL, name text NOT NULL, "
        "bucket_name text NOT NULL, size bigint NOT NULL, update_time text NOT NULL, url text NOT NULL, "
        "is_deleted bigint NOT NULL DEFAULT 0, pieces text NOT NULL DEFAULT '')",
        "CREATE INDEX local_object_bucket ON platform.local_object (bucket_name)",
        "CREATE TABLE platform.local_object_task (id bigint PRIMARY KEY, task_id text NOT NULL, "
        "object_name text NOT NULL, bucket_name text NOT NULL, size bigint NOT NULL, part_num bigint NOT NULL, "
        "update_time text NOT NULL, url text NOT NULL, is_deleted bigint NOT NULL DEFAULT 0)",
        "CREATE INDEX local_object_task_task ON platform.local_object_task (task_id)",
        "CREATE TABLE platform.local_object_attributes (object_id bigint PRIMARY KEY, attributes text NOT NULL)",
        "CREATE FUNCTION platform.drop_attributes() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
        "DELETE FROM platform.local_object_attributes WHERE object_id = OLD.id; RETURN NULL; END $$",
        "CREATE TRIGGER attributes_replaced AFTER UPDATE OF url ON platform.local_object FOR EACH ROW "
        "WHEN (OLD.url <> NEW.url) EXECUTE FUNCTION platform.drop_attributes()",
        "CREATE TRIGGER attributes_removed AFTER DELETE ON platform.local_object FOR EACH ROW "
        "EXECUTE FUNCTION platform.drop_attributes()",
        "CREATE TABLE platform.local_upload (object_url text PRIMARY KEY, object_name text NOT NULL, "
        "bucket_name text NOT NULL, sort_key text NOT NULL, attributes text NOT NULL, begun text NOT NULL, "
        "update_time text NOT NULL)",
        "CREATE TABLE platform.local_upload_part (object_url text NOT NULL, part_num bigint NOT NULL, "
        "size bigint NOT NULL, url text NOT NULL, attributes text NOT NULL, update_time text NOT NULL, "
        "PRIMARY KEY (object_url, part_num))",
        "CREATE FUNCTION platform.part_late() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
        "IF NOT EXISTS (SELECT 1 FROM platform.local_upload WHERE object_url = NEW.object_url) THEN "
        "RAISE EXCEPTION 'the upload of this part has ended'; END IF; RETURN NEW; END $$",
        "CREATE TRIGGER part_late BEFORE INSERT ON platform.local_upload_part FOR EACH ROW "
        "EXECUTE FUNCTION platform.part_late()",
        "CREATE FUNCTION platform.parts_missing() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
        "IF NOT EXISTS (SELECT 1 FROM platform.local_upload WHERE object_url = NEW.url) OR (SELECT "
        "COALESCE(SUM(size), 0) FROM platform.local_upload_part WHERE object_url = NEW.url) <> NEW.size THEN "
        "RAISE EXCEPTION 'the parts of this object are not there'; END IF; RETURN NEW; END $$",
        "CREATE TRIGGER parts_missing BEFORE INSERT ON platform.local_object FOR EACH ROW "
        "WHEN (substr(NEW.url, 1, 6) = 'parts:') EXECUTE FUNCTION platform.parts_missing()",
        "CREATE FUNCTION platform.parts_changed() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
        "IF NEW.url <> OLD.url AND NOT EXISTS (SELECT 1 FROM platform.local_upload WHERE object_url = NEW.url) OR "
        "(SELECT COALESCE(SUM(size), 0) FROM platform.local_upload_part WHERE object_url = NEW.url) <> NEW.size THEN "
        "RAISE EXCEPTION 'the parts of this object are not there'; END IF; RETURN NEW; END $$",
        "CREATE TRIGGER parts_changed BEFORE UPDATE OF url ON platform.local_object FOR EACH ROW "
        "WHEN (substr(NEW.url, 1, 6) = 'parts:') EXECUTE FUNCTION platform.parts_changed()",
        "CREATE FUNCTION platform.parts_others() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
        "IF EXISTS (SELECT 1 FROM platform.local_upload_part WHERE object_url = NEW.url AND strpos(NEW.pieces, url) = "
        "0) "
        "THEN RAISE EXCEPTION 'the parts of this object are others'; END IF; RETURN NEW; END $$",
        "CREATE TRIGGER parts_others BEFORE UPDATE OF pieces ON platform.local_object FOR EACH ROW "
        "EXECUTE FUNCTION platform.parts_others()",
        "CREATE TABLE platform.picture_url_encrypt (encrypt_url text PRIMARY KEY, url text NOT NULL)",
    };
  }

 private:
  static CPostgresServer& TestServer() { return CPostgresServer::Shared(); }

  const bool is_on_postgresql_ = IsOnPostgresql();
  const CTempFolder folder_;
  const std::shared_ptr<CDatabaseScript> script_ = std::make_shared<CDatabaseScript>();
  std::mutex direct_mutex_;
  std::unique_ptr<db_layer::CConnect> direct_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_FAILING_DATABASE_H
