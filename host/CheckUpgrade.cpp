#include "CheckUpgrade.h"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "BodyLogFormat.h"
#include "HostSystem/Files.h"
#include "PostgresDatabase.h"
#include "RadosUrl.h"
#include "Schema.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

void Describe(const std::string& name, const SchemaState& state, std::ostream& out) {
  out << "catalogue: " << name << " has schema version " << state.current << " of " << state.newest << '\n';
  for (const std::string& script : state.missing) {
    out << "catalogue: a start applies " << script << '\n';
  }
}

// What a copy of the file takes, its write-ahead log included.
std::uint64_t SizeOf(const std::string& file) {
  std::uint64_t sum = 0;
  for (const std::string& each : {file, file + "-wal"}) {
    std::unique_ptr<HostSystem::IFile> opened;
    std::uint64_t size = 0;
    if (HostSystem::OpenFileForReading(each, opened) == 0 && opened->GetSize(size) == 0) {
      sum += size;
    }
  }
  return sum;
}

bool LookAtCatalogue(const HostOptions& options, std::ostream& out) {
  const db_layer::DBParam& param = options.database;
  if (param.type == db_layer::kPostgresql) {
    CPostgresDatabase database(param);
    const SchemaState state = LookAtPostgresSchema(database, PostgresSchemaScripts());
    Describe(db_layer::DescribeDatabase(param), state, out);
    if (state.current > 0 && !state.missing.empty()) {
      out << "catalogue: copy it with pg_dump before\n";
    }
    return state.missing.empty();
  }
  if (HostSystem::GetPathKind(param.database) == HostSystem::EPathKind::kMissing) {
    out << "catalogue: there is none yet; a start makes " << param.database << " with schema version "
        << SqliteSchemaScripts().back().version << '\n';
    return false;
  }
  CSqliteFile database(param.database, CSqliteFile::EAccess::kLook);
  const SchemaState state = LookAtSqliteSchema(database, SqliteSchemaScripts());
  Describe(param.database, state, out);
  if (state.current > 0 && !state.missing.empty()) {
    out << "catalogue: before that it copies the file (" << SizeOf(param.database) << " bytes) to "
        << NameOfOlderCatalogue(param.database, state.current) << '\n';
  }
  return state.missing.empty();
}

// Segments of another version are not touched; their bodies cannot be read.
void LookAtBodyLog(const std::string& folder, std::ostream& out) {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> log = HostSystem::OpenFolder(folder + "/" + kBodyLogVolume, error);
  std::vector<HostSystem::FolderEntry> entries;
  if (log == nullptr || log->List(entries) != 0) {
    out << "storage: " << folder << " has no file of small objects\n";
    return;
  }
  std::size_t known = 0;
  std::size_t unknown = 0;
  for (const HostSystem::FolderEntry& entry : entries) {
    std::uint32_t number = 0;
    std::unique_ptr<HostSystem::IFile> file;
    std::string bytes;
    BodyFormat::SegmentHead head;
    if (!entry.is_file || !ParseSegmentFileName(entry.name, number)) {
      continue;
    }
    const bool is_known = log->OpenForReading(entry.name, file) == 0 &&
                          HostSystem::ReadExactly(*file, 0, BodyFormat::kSegmentHeadBytes, bytes) == 0 &&
                          BodyFormat::DecodeSegmentHead(bytes, head);
    ++(is_known ? known : unknown);
  }
  out << "storage: " << folder << " has " << known << " files of small objects in the format of this version\n";
  if (unknown > 0) {
    out << "storage: " << unknown << " files of small objects are damaged, or of another version: tansyd --check\n";
  }
}

}  // namespace
}  // namespace details

int RunCheckUpgrade(const HostOptions& options, std::ostream& out) {
  const bool stays = details::LookAtCatalogue(options, out);
  if (IsRadosUrl(options.storage)) {
    out << "storage: pools have had one format so far\n";
  } else {
    details::LookAtBodyLog(UrlPath(options.storage), out);
  }
  out << (stays ? "upgrade: a start changes nothing\n" : "upgrade: a start brings the catalogue up to date\n");
  return stays ? kExitDone : kExitFindings;
}

}  // namespace Tansy::Host
