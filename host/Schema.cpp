#include "Schema.h"

#include <string>

#include "SqliteFile.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kVersionTable =
    "CREATE TABLE IF NOT EXISTS platform.schema_version "
    "(version INTEGER PRIMARY KEY, name TEXT NOT NULL, applied_at TEXT NOT NULL)";

[[noreturn]] void Refuse(const std::string& file, const std::string& what) {
  throw CStartFailure(kExitFailed, "database " + file + " " + what);
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
    Refuse(database.GetPath(), "is another program's: it holds tables, but no catalogue of tansyd");
  }
  return database.QueryNumber("SELECT COALESCE(MAX(version), 0) FROM platform.schema_version");
}

// Applies all scripts that are missing in one transaction, so that an upgrade is either done or not begun.
void Apply(CSqliteFile& database, const std::vector<SchemaScript>& scripts, long long current) {
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

}  // namespace
}  // namespace details

void PrepareSqliteSchema(const std::string& file, const std::vector<SchemaScript>& scripts,
                         const std::vector<VolumeRow>& volumes) {
  CSqliteFile database(file, CSqliteFile::EAccess::kChange);
  const long long newest = scripts.empty() ? 0 : scripts.back().version;
  const long long current = details::CurrentVersion(database, scripts);
  if (current > newest) {
    details::Refuse(file, "has schema version " + std::to_string(current) +
                              ", made by a newer tansyd; this one knows " + std::to_string(newest));
  }
  if (current < newest) {
    details::Apply(database, scripts, current);
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
    details::Refuse(database.GetPath(), "has schema version " + std::to_string(current) +
                                            "; start tansyd once, which makes it " + std::to_string(newest));
  }
}

}  // namespace Tansy::Host
