#include "Schema.h"

#include <sqlite3.h>

#include <memory>
#include <string>

#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr int kBusyTimeoutMs = 5000;

// A connection that meets the catalogue as every other does: attached as `platform`.
class CSchemaConnection {
 public:
  explicit CSchemaConnection(const std::string& file) : file_(file) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open(":memory:", &opened);
    database_.reset(opened);  // there is one to close even where it could not be opened
    if (result != SQLITE_OK) {
      Fail("cannot be opened");
    }
    sqlite3_busy_timeout(database_.get(), kBusyTimeoutMs);
    Run("ATTACH DATABASE ?1 AS platform", {file});
    // Reads the header: a file that is no database is found here.
    QueryNumber("SELECT COUNT(*) FROM platform.sqlite_master");
  }

  void RunScript(const std::string& sql, const std::string& name) {
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      const std::string reason = sqlite3_errmsg(database_.get());
      sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
      throw CStartFailure(kExitFailed, "database " + file_ + ": " + name + " failed: " + reason);
    }
  }

  void Run(const std::string& sql, const std::vector<std::string>& values) {
    sqlite3_stmt* statement = Prepare(sql, values);
    const int result = sqlite3_step(statement);
    sqlite3_finalize(statement);
    if (result != SQLITE_DONE && result != SQLITE_ROW) {
      Fail("cannot be used");
    }
  }

  long long QueryNumber(const std::string& sql) {
    sqlite3_stmt* statement = Prepare(sql, {});
    const int result = sqlite3_step(statement);
    const long long number = result == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 0;
    sqlite3_finalize(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
      Fail("cannot be read");
    }
    return number;
  }

 private:
  sqlite3_stmt* Prepare(const std::string& sql, const std::vector<std::string>& values) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      Fail("cannot be used");
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
      sqlite3_bind_text(statement, static_cast<int>(i) + 1, values[i].c_str(), -1, SQLITE_TRANSIENT);
    }
    return statement;
  }

  [[noreturn]] void Fail(const std::string& what) {
    throw CStartFailure(kExitFailed, "database " + file_ + " " + what + ": " + sqlite3_errmsg(database_.get()));
  }

  struct CloseDatabase {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };

  std::string file_;
  std::unique_ptr<sqlite3, CloseDatabase> database_;
};

constexpr const char* kVersionTable =
    "CREATE TABLE IF NOT EXISTS platform.schema_version "
    "(version INTEGER PRIMARY KEY, name TEXT NOT NULL, applied_at TEXT NOT NULL)";

// 0 for a file that no tansyd has touched yet.
long long CurrentVersion(CSchemaConnection& connection) {
  if (connection.QueryNumber("SELECT COUNT(*) FROM platform.sqlite_master WHERE name = 'schema_version'") == 0) {
    return 0;
  }
  return connection.QueryNumber("SELECT COALESCE(MAX(version), 0) FROM platform.schema_version");
}

void Apply(CSchemaConnection& connection, const SchemaScript& script) {
  connection.RunScript(std::string("BEGIN IMMEDIATE; ") + kVersionTable + ";\n" + script.sql +
                           "\nINSERT INTO platform.schema_version VALUES (" + std::to_string(script.version) + ", '" +
                           script.name + "', datetime('now')); COMMIT;",
                       script.name);
}

}  // namespace
}  // namespace details

void PrepareSqliteSchema(const std::string& file, const std::vector<SchemaScript>& scripts,
                         const std::vector<VolumeRow>& volumes) {
  details::CSchemaConnection connection(file);
  const long long current = details::CurrentVersion(connection);
  const long long newest = scripts.empty() ? 0 : scripts.back().version;
  if (current > newest) {
    throw CStartFailure(kExitFailed, "database " + file + " has schema version " + std::to_string(current) +
                                         ", made by a newer tansyd; this one knows " + std::to_string(newest));
  }
  for (const SchemaScript& script : scripts) {
    if (script.version > current) {
      details::Apply(connection, script);
    }
  }
  for (const VolumeRow& row : volumes) {
    connection.Run(
        "INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES (?1, ?2) "
        "ON CONFLICT (encrypt_url) DO UPDATE SET url = excluded.url WHERE url <> excluded.url",
        {row.key, row.prefix});
  }
}

}  // namespace Tansy::Host
