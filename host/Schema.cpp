#include "Schema.h"

#include <algorithm>
#include <string>

#include "PostgresDatabase.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kVersionTable =
    "CREATE TABLE IF NOT EXISTS platform.schema_version "
    "(version INTEGER PRIMARY KEY, name TEXT NOT NULL, applied_at TEXT NOT NULL)";

[[noreturn]] void Refuse(const std::string& file, const std::string& what) {
  throw CStartFailure(kExitFailed, "database " + file + " " + what);
}

[[noreturn]] void RefuseForeign(const std::string& file) {
  Refuse(file, "is another program's: it holds tables, but no catalogue of tansyd");
}

[[noreturn]] void RefuseNewer(const std::string& file, long long current, long long newest) {
  Refuse(file, "has schema version " + std::to_string(current) + ", made by a newer tansyd; this one knows " +
                   std::to_string(newest));
}

[[noreturn]] void RefuseOther(const std::string& file, long long current, long long newest) {
  Refuse(file, "has schema version " + std::to_string(current) + "; start tansyd once, which makes it " +
                   std::to_string(newest));
}

long long NewestOf(const std::vector<SchemaScript>& scripts) {
  return scripts.empty() ? 0 : scripts.back().version;
}

// Says whether the table of versions is this program's, because other programs may have a table of the same name.
bool HasOwnVersions(CSqliteFile& database, const std::vector<SchemaScript>& scripts) {
  if (database.QueryNumber("SELECT COUNT(*) FROM pragma_table_info('schema_version', 'platform') "
                           "WHERE name IN ('version', 'name', 'applied_at')") != 3) {
    return false;
  }
  const std::string first = database.QueryText("SELECT name FROM platform.schema_version WHERE version = 1");
  return !scripts.empty() && first == scripts.front().name;
}

// Returns 0 for a file that holds nothing yet.
long long CurrentVersion(CSqliteFile& database, const std::vector<SchemaScript>& scripts) {
  if (database.QueryNumber("SELECT COUNT(*) FROM platform.sqlite_master") == 0) {
    return 0;
  }
  if (!HasOwnVersions(database, scripts)) {
    RefuseForeign(database.GetName());
  }
  return database.QueryNumber("SELECT COALESCE(MAX(version), 0) FROM platform.schema_version");
}

// Applies all scripts that are missing in one transaction, so that an upgrade is either done or not begun.
void ApplyToFile(CSqliteFile& database, const std::vector<SchemaScript>& scripts, long long current) {
  std::string sql = std::string("BEGIN IMMEDIATE; ") + kVersionTable + ";\n";
  std::string names;
  for (const SchemaScript& script : scripts) {
    if (script.version > current) {
      sql += std::string(script.sql) + "\nINSERT INTO platform.schema_version VALUES (" +
             std::to_string(script.version) + ", '" + script.name + "', datetime('now'));\n";
      names += (names.empty() ? "" : ", ") + std::string(script.name);
    }
  }
  database.RunScript(sql + "COMMIT;", names);
}

// Returns 0 for a schema that holds nothing yet, or is not there.
long long CurrentVersion(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts) {
  const std::string tables = "SELECT count(*) AS value FROM pg_class WHERE relnamespace = to_regnamespace('platform')";
  if (database.QueryNumber(tables) == 0) {
    return 0;
  }
  const std::string columns =
      "SELECT count(*) AS value FROM pg_attribute WHERE attrelid = to_regclass('platform.schema_version') "
      "AND attname IN ('version', 'name', 'applied_at')";
  if (database.QueryNumber(columns) != 3 || scripts.empty() ||
      database.QueryText("SELECT name AS value FROM platform.schema_version WHERE version = 1") !=
          scripts.front().name) {
    RefuseForeign(database.GetName());
  }
  return database.QueryNumber("SELECT COALESCE(MAX(version), 0) AS value FROM platform.schema_version");
}

// A script becomes one statement, which a transaction can hold beside others.
std::string AsStatement(const std::string& script) {
  return "DO $tansy_script$ BEGIN\n" + script + "\nEND $tansy_script$";
}

void ApplyToServer(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts, long long current) {
  std::vector<std::string> statements;
  if (database.QueryNumber("SELECT count(*) AS value FROM pg_namespace WHERE nspname = 'platform'") == 0) {
    statements.emplace_back("CREATE SCHEMA platform");
  }
  statements.emplace_back(kVersionTable);
  std::string names;
  for (const SchemaScript& script : scripts) {
    if (script.version > current) {
      statements.push_back(AsStatement(script.sql));
      statements.push_back("INSERT INTO platform.schema_version VALUES (" + std::to_string(script.version) + ", '" +
                           script.name + "', to_char(now() AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS'))");
      names += (names.empty() ? "" : ", ") + std::string(script.name);
    }
  }
  database.RunAll(statements, names);
}

template <typename Database>
SchemaState StateOf(Database& database, const std::vector<SchemaScript>& scripts) {
  SchemaState state{CurrentVersion(database, scripts), NewestOf(scripts), {}};
  if (state.current > state.newest) {
    RefuseNewer(database.GetName(), state.current, state.newest);
  }
  for (const SchemaScript& script : scripts) {
    if (script.version > state.current) {
      state.missing.emplace_back(script.name);
    }
  }
  return state;
}

// A copy that a crash has cut short has another name.
void KeepOlder(CSqliteFile& database, const std::string& file, long long version) {
  const std::string kept = NameOfOlderCatalogue(file, version);
  const std::string unfinished = kept + ".tmp";
  try {
    TansyBase::FileUtil::EnsureRemoved(unfinished);
    database.CopyTo(unfinished);
  } catch (const CStartFailure& failure) {
    throw CStartFailure(kExitFailed,
                        std::string("the catalogue stays as it is, because it must be copied before it is brought up "
                                    "to date: ") +
                            failure.what());
  }
  if (TansyBase::FileUtil::MoveOver(unfinished, kept) != 0) {
    Refuse(file, "stays as it is: its copy " + kept + " cannot be made");
  }
}

}  // namespace
}  // namespace details

std::string NameOfOlderCatalogue(const std::string& file, long long version) {
  return file + ".version-" + std::to_string(version);
}

SchemaState LookAtSqliteSchema(CSqliteFile& database, const std::vector<SchemaScript>& scripts) {
  return details::StateOf(database, scripts);
}

SchemaState LookAtPostgresSchema(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts) {
  return details::StateOf(database, scripts);
}

void PrepareSqliteSchema(const std::string& file, const std::vector<SchemaScript>& scripts,
                         const std::vector<VolumeRow>& volumes) {
  CSqliteFile database(file, CSqliteFile::EAccess::kChange);
  const long long newest = details::NewestOf(scripts);
  const long long current = details::CurrentVersion(database, scripts);
  if (current > newest) {
    details::RefuseNewer(file, current, newest);
  }
  if (current > 0 && current < newest) {
    details::KeepOlder(database, file, current);
  }
  if (current < newest) {
    details::ApplyToFile(database, scripts, current);
  }
  for (const VolumeRow& row : volumes) {
    database.Run(
        "INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES (?1, ?2) "
        "ON CONFLICT (encrypt_url) DO UPDATE SET url = excluded.url WHERE url <> excluded.url",
        {row.key, row.prefix});
  }
}

void ExpectSqliteSchema(CSqliteFile& database, const std::vector<SchemaScript>& scripts) {
  const long long current = details::CurrentVersion(database, scripts);
  const long long newest = scripts.back().version;
  if (current != newest) {
    details::RefuseOther(database.GetName(), current, newest);
  }
}

void PreparePostgresSchema(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts,
                           const std::vector<VolumeRow>& volumes) {
  const long long newest = details::NewestOf(scripts);
  const long long current = details::CurrentVersion(database, scripts);
  if (current > newest) {
    details::RefuseNewer(database.GetName(), current, newest);
  }
  if (current < newest) {
    details::ApplyToServer(database, scripts, current);
  }
  for (const VolumeRow& row : volumes) {
    database.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES (" + QuotedText(row.key) + ", " +
                 QuotedText(row.prefix) +
                 ") ON CONFLICT (encrypt_url) DO UPDATE SET url = excluded.url "
                 "WHERE picture_url_encrypt.url <> excluded.url");
  }
}

void ExpectPostgresSchema(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts) {
  const long long current = details::CurrentVersion(database, scripts);
  if (current != details::NewestOf(scripts)) {
    details::RefuseOther(database.GetName(), current, details::NewestOf(scripts));
  }
}

bool IsPreparedForNodes(const db_layer::DBParam& database, const std::vector<VolumeRow>& volumes) {
  CPostgresDatabase look(database);
  const std::vector<SchemaScript>& scripts = PostgresSchemaScripts();
  if (details::CurrentVersion(look, scripts) != details::NewestOf(scripts) ||
      look.QueryText("SELECT value FROM platform.host_values WHERE name = 'store_id'").empty()) {
    return false;
  }
  return std::all_of(volumes.begin(), volumes.end(), [&look](const VolumeRow& row) {
    return look.QueryText("SELECT url AS value FROM platform.picture_url_encrypt WHERE encrypt_url = " +
                          QuotedText(row.key)) == row.prefix;
  });
}

}  // namespace Tansy::Host
