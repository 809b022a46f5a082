// The catalogue's schema: numbered SQL scripts that are applied once each, in order.
#ifndef TANSY_HOST_SCHEMA_H
#define TANSY_HOST_SCHEMA_H

#include <string>
#include <vector>

#include "db_layer/Connect.h"

namespace Tansy::Host {

class CPostgresDatabase;
class CSqliteFile;

struct SchemaScript {
  int version;
  const char* name;
  const char* sql;
};

// These give the scripts of host/schema/sqlite and host/schema/postgresql, in order. Their source files are made when
// the program is built.
const std::vector<SchemaScript>& SqliteSchemaScripts();
const std::vector<SchemaScript>& PostgresSchemaScripts();

// One row of platform.picture_url_encrypt.
struct VolumeRow {
  std::string key;     // first four characters of location texts
  std::string prefix;  // what stands in their place in storage paths
};

// Makes the SQLite file or brings it up to date, with all that is missing in one transaction, and writes the rows of
// the volumes. A catalogue of an older version is copied first, and the copy stays. Throws CStartFailure with
// kExitFailed when the file cannot be opened, is another program's, or was made by a newer tansyd; the file is then as
// it was.
void PrepareSqliteSchema(const std::string& file, const std::vector<SchemaScript>& scripts,
                         const std::vector<VolumeRow>& volumes);

// Where a catalogue of an older version is kept before it is brought up to date: "catalogue.db.version-3".
std::string NameOfOlderCatalogue(const std::string& file, long long version);

// Which version a catalogue has, and what a start would apply to it.
struct SchemaState {
  long long current = 0;  // 0: there is none yet
  long long newest = 0;
  std::vector<std::string> missing;  // names of scripts, in their order
};
// These change nothing. They throw CStartFailure when a start would refuse the database.
SchemaState LookAtSqliteSchema(CSqliteFile& database, const std::vector<SchemaScript>& scripts);
SchemaState LookAtPostgresSchema(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts);

// Changes nothing. Throws CStartFailure with kExitFailed unless the file is a catalogue of the newest version.
void ExpectSqliteSchema(CSqliteFile& database, const std::vector<SchemaScript>& scripts);

// The same for a PostgreSQL database, in its schema `platform`, which is made when it is missing. They throw too when
// another tansyd writes to the database, or when a right is missing.
void PreparePostgresSchema(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts,
                           const std::vector<VolumeRow>& volumes);
void ExpectPostgresSchema(CPostgresDatabase& database, const std::vector<SchemaScript>& scripts);

// Says whether a PostgreSQL database has the newest schema, these volumes, and the id of its storage, so that several
// tansyd can share it without one of them having to change that.
bool IsPreparedForNodes(const db_layer::DBParam& database, const std::vector<VolumeRow>& volumes);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SCHEMA_H
