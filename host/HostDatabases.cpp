#include "HostDatabases.h"

#include "PostgresDatabase.h"
#include "Schema.h"
#include "SqliteFile.h"

namespace Tansy::Host {

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

}  // namespace Tansy::Host
