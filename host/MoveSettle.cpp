#include <cerrno>
#include <exception>
#include <filesystem>
#include <system_error>

#include "FilePlaces.h"
#include "HostDatabases.h"
#include "HostLog.h"
#include "HostSystem/Files.h"
#include "Locks.h"
#include "Move.h"
#include "MoveDatabase.h"
#include "MoveFailure.h"
#include "MoveNames.h"
#include "MoveTables.h"
#include "PostgresDatabase.h"
#include "RadosUrl.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "StoragePlaces.h"
#include "Volumes.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

void RemoveFiles(const std::string& folder) {
  std::error_code ignored;
  for (const char* volume : {kFileObjects, kFilePictures, kSmallBodies, kPoolObjects, kPoolPictures, kMovedBodies}) {
    std::filesystem::remove_all(std::filesystem::path(folder) / volume, ignored);
  }
}

bool RemoveAll(IObjectStore& store, EContent content) {
  bool is_done = true;
  const bool is_complete = store.ForEach(content, [&](const StoredEntry& entry) {
    is_done = store.RemovePath(entry.path) == EStoreResult::kDone && is_done;
    return true;
  });
  return is_complete && is_done;
}

enum class EFreed { kDone, kNotOurs };

EFreed FreeStorage(const std::string& storage, const std::string& left_id) {
  const auto place = FindStoragePlace(storage);
  std::string id;
  const int error = place->Exists() ? place->ReadId(id) : ENOENT;
  if (error == ENOENT) {
    return EFreed::kDone;  // it is gone already
  }
  if (error != 0) {
    throw CMoveFailure(place->Describe() + " cannot be read: " + HostSystem::ErrorText(error));
  }
  if (id.substr(0, left_id.size()) != left_id) {
    return EFreed::kNotOurs;
  }
  place->Lock();
  if (!IsRadosUrl(storage)) {
    RemoveFiles(UrlPath(storage));
  } else {
    const auto store = place->Open(false, EStoreUse::kRepair);
    if (!RemoveAll(*store, EContent::kObject) || !RemoveAll(*store, EContent::kPicture)) {
      throw CMoveFailure("not all of " + place->Describe() + " could be removed, see the log");
    }
  }
  if (const int failure = place->RemoveId()) {
    throw CMoveFailure(place->Describe() + " cannot be written: " + HostSystem::ErrorText(failure));
  }
  return EFreed::kDone;
}

std::string HostValue(IHostDatabase& database, const std::string& name) {
  return database.QueryText("SELECT value FROM platform.host_values WHERE name = " + QuotedText(name));
}

void ExpectMovedAway(IHostDatabase& database) {
  if (HostValue(database, kMovedTo).empty()) {
    throw CMoveFailure("database " + database.GetName() + " does not say that it was moved, so it is left alone");
  }
}

EFreed FreeServer(const db_layer::DBParam& param, const std::string& left_id) {
  CPostgresDatabase database(param);
  if (database.QueryNumber("SELECT count(*) AS value FROM pg_class WHERE oid = to_regclass('platform.host_values')") ==
      0) {
    return EFreed::kDone;
  }
  if (HostValue(database, "store_id") != left_id) {
    return EFreed::kNotOurs;
  }
  ExpectMovedAway(database);
  database.Run("DROP SCHEMA platform CASCADE");
  return EFreed::kDone;
}

// What the write-ahead log holds is in the file before the log is removed: a log without its file would be taken for
// that of the next database of this name.
EFreed FreeFile(const db_layer::DBParam& param, const std::string& left_id) {
  const std::string& name = param.database;
  if (HostSystem::GetPathKind(name) == HostSystem::EPathKind::kMissing) {
    return EFreed::kDone;
  }
  {
    CSqliteFile looked_at(name, CSqliteFile::EAccess::kLook);
    if (HostValue(looked_at, "store_id") != left_id) {
      return EFreed::kNotOurs;
    }
  }
  HostSystem::CLockFile lock;
  LockDatabase(name, lock);
  {
    CSqliteFile database(name, CSqliteFile::EAccess::kChange);
    ExpectMovedAway(database);
    database.Run("PRAGMA platform.wal_checkpoint(TRUNCATE)");
  }
  for (const char* end : {"-wal", "-shm", ""}) {
    std::error_code ignored;
    std::filesystem::remove(name + end, ignored);
  }
  return EFreed::kDone;
}

EFreed FreeDatabase(const std::string& url, const std::string& left_id) {
  db_layer::DBParam param;
  ParseDatabaseUrl(url, param);
  return param.type == db_layer::kPostgresql ? FreeServer(param, left_id) : FreeFile(param, left_id);
}

// Notes that a place is done with, so that nobody looks at it again.
void Forget(const std::string& what, EFreed freed, MovedMark& mark,
            const std::function<void(const std::string& line)>& say) {
  say("move: " +
      (freed == EFreed::kDone ? "freed " + what : what + " belongs to another store now, and stays as it is"));
  if (const int error = WriteMovedMark(mark)) {
    throw CMoveFailure("the file that notes the move cannot be written: " + HostSystem::ErrorText(error));
  }
}

// The catalogue that was left, unless the move has marked it already.
void LeaveDatabase(const db_layer::DBParam& param, const MovedMark& mark) {
  HostSystem::CLockFile lock;
  if (param.type == db_layer::kSqlite) {
    if (HostSystem::GetPathKind(param.database) == HostSystem::EPathKind::kMissing) {
      return;
    }
    LockDatabase(param.database, lock);
  }
  CMoveDatabase old(param, "move-left");
  if (old.GetValue(kMoveId) == mark.move) {
    old.Run(LeaveStatements(old, FindMoveTables(old), mark));
  }
}

// A crash behind the switch leaves the old catalogue without its mark. Somebody may have taken it away, or its server
// may be off: the next start tries again then.
void LeaveOldDatabases(CMoveDatabase& database, const MovedMark& mark) {
  if (mark.move.empty() || database.GetValue(kMoveLeaves) != mark.move) {
    return;
  }
  for (const auto& [url, id] : mark.left_databases) {
    db_layer::DBParam param;
    ParseDatabaseUrl(url, param);
    try {
      LeaveDatabase(param, mark);
    } catch (const std::exception& failure) {
      HOST_LOG(logging::kError, "[%s]database %s cannot be marked as moved: %s.[%s(%d)]",
               db_layer::DescribeDatabase(param).c_str(), failure.what());
      return;
    }
  }
  database.Run({CMoveDatabase::DropValue(kMoveLeaves)});
}

}  // namespace
}  // namespace details

void CancelMove(const HostOptions& options, const std::function<void(const std::string& line)>& say) {
  CMoveDatabase source(options.database, "move-source");
  const std::string goal = source.GetValue(kMoveGoal);
  if (goal.empty()) {
    throw CMoveFailure("no move has begun");
  }
  source.Run(ForgetMove(source, FindMoveTables(source)));
  say("move: forgotten; what was copied is still in " + goal);
}

void DeleteMoved(const std::function<void(const std::string& line)>& say) {
  MovedMark mark = ReadMovedMark();
  if (mark.left_storages.empty() && mark.left_databases.empty()) {
    throw CMoveFailure(mark.move.empty() ? "nothing was moved from here" : "no place of before is left");
  }
  while (!mark.left_storages.empty()) {
    const auto [storage, id] = *mark.left_storages.begin();
    const details::EFreed freed = details::FreeStorage(storage, id);
    mark.left_storages.erase(storage);
    details::Forget("storage " + storage, freed, mark, say);
  }
  while (!mark.left_databases.empty()) {
    const auto [url, id] = *mark.left_databases.begin();
    const details::EFreed freed = details::FreeDatabase(url, id);
    db_layer::DBParam param;
    ParseDatabaseUrl(url, param);
    mark.left_databases.erase(url);
    details::Forget("database " + db_layer::DescribeDatabase(param), freed, mark, say);
  }
}

void SettleMoves(const HostOptions& options, const MovedMark& mark) {
  CMoveDatabase database(options.database, "move-settle");
  const std::string goal = database.GetValue(kMovedTo);
  if (!goal.empty()) {
    throw CStartFailure(kExitFailed, database.Describe() + " was moved to " + goal + ", and is out of date here");
  }
  const std::string from = database.GetValue(kMoveFrom);
  const std::string move = database.GetValue(kMoveId);
  if (!from.empty() && from != mark.move) {
    throw CStartFailure(kExitFailed, database.Describe() + " is being filled by a move that has not ended: " +
                                         "start tansyd where its catalogue was before");
  }
  if (!move.empty() && move == mark.move) {
    std::vector<std::string> statements = ForgetMove(database, FindMoveTables(database));
    statements.push_back(CMoveDatabase::SetValue("store_id", mark.store_id));
    database.Run(statements);
  } else if (!from.empty()) {
    database.Run(EndStatements(mark));
  } else if (!move.empty()) {
    HOST_LOG(logging::kNotable, "[%s]a move to %s has begun and not ended; tansyd move goes on with it.[%s(%d)]",
             database.GetValue(kMoveGoal).c_str());
  }
  details::LeaveOldDatabases(database, mark);
}

}  // namespace Tansy::Host
