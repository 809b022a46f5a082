#include "HostDatabase.h"

#include <cstdlib>

#include "PostgresDatabase.h"
#include "Schema.h"
#include "SqliteFile.h"

namespace Tansy::Host {

long long IHostDatabase::QueryNumber(const std::string& sql) {
  return std::strtoll(QueryText(sql).c_str(), nullptr, 10);
}

std::string IHostDatabase::QueryText(const std::string& sql) {
  std::string text;
  bool is_first = true;
  Query(sql, {"value"}, [&](const db_layer::IRow& row) {
    if (is_first) {
      text = row.GetText(0);
      is_first = false;
    }
  });
  return text;
}

std::unique_ptr<IHostDatabase> OpenHostDatabase(const db_layer::DBParam& database, EDatabaseUse use) {
  if (database.type == db_layer::kPostgresql) {
    auto server = std::make_unique<CPostgresDatabase>(database);
    ExpectPostgresSchema(*server, PostgresSchemaScripts());
    return server;
  }
  using EAccess = CSqliteFile::EAccess;
  auto file =
      std::make_unique<CSqliteFile>(database.database, use == EDatabaseUse::kLook ? EAccess::kLook : EAccess::kChange);
  if (use == EDatabaseUse::kLook) {
    file->RunScript("BEGIN", "a look");  // the first look fixes the instant
  }
  ExpectSqliteSchema(*file, SqliteSchemaScripts());
  return file;
}

std::string QuotedText(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted.append(c == '\'' ? 2 : 1, c);
  }
  return quoted + "'";
}

}  // namespace Tansy::Host
