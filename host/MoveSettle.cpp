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

void DeleteOldStorage(const std::string& storage, const MovedMark& mark) {
  const auto place = FindStoragePlace(storage);
  std::string id;
  if (!place->Exists() || place->ReadId(id) != 0) {
    return;  // it is gone already
  }
  if (id.substr(0, mark.store_id.size()) == mark.store_id) {
    throw CMoveFailure(place->Describe() + " is the one in use");
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
  if (const int error = place->RemoveId()) {
    throw CMoveFailure(place->Describe() + " cannot be written: " + HostSystem::ErrorText(error));
  }
}

void ExpectMovedAway(IHostDatabase& database) {
  const std::string sql = std::string("SELECT value FROM platform.host_values WHERE name = '") + kMovedTo + "'";
  if (database.QueryText(sql).empty()) {
    throw CMoveFailure("database " + database.GetName() + " does not say that it was moved, so it is left alone");
  }
}

void DeleteOldDatabase(const db_layer::DBParam& param) {
  if (param.type == db_layer::kPostgresql) {
    CPostgresDatabase database(param);
    if (database.QueryNumber("SELECT count(*) AS value FROM pg_namespace WHERE nspname = 'platform'") > 0) {
      ExpectMovedAway(database);
      database.Run("DROP SCHEMA platform CASCADE");
    }
    return;
  }
  const std::string& name = param.database;
  if (HostSystem::GetPathKind(name) == HostSystem::EPathKind::kMissing) {
    return;
  }
  HostSystem::CLockFile lock;
  LockDatabase(name, lock);
  ExpectMovedAway(*OpenHostDatabase(param, EDatabaseUse::kChange));
  for (const char* end : {"", "-wal", "-shm"}) {
    std::error_code ignored;
    std::filesystem::remove(name + end, ignored);
  }
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

void DeleteMoved(const HostOptions& /*options*/, const std::function<void(const std::string& line)>& say) {
  const MovedMark mark = ReadMovedMark();
  for (const std::string& storage : mark.old_storages) {
    details::DeleteOldStorage(storage, mark);
    say("move: freed storage " + storage);
  }
  for (const std::string& database : mark.old_databases) {
    db_layer::DBParam param;
    ParseDatabaseUrl(database, param);
    details::DeleteOldDatabase(param);
    say("move: freed database " + db_layer::DescribeDatabase(param));
  }
  if (mark.old_storages.empty() && mark.old_databases.empty()) {
    throw CMoveFailure("nothing was moved from here");
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
    for (std::string& statement : EndStatements(mark)) {
      statements.push_back(std::move(statement));
    }
    database.Run(statements);
  } else if (!from.empty()) {
    database.Run(EndStatements(mark));
  } else if (!move.empty()) {
    HOST_LOG(logging::kNotable, "[%s]a move to %s has begun and not ended; tansyd move goes on with it.[%s(%d)]",
             database.GetValue(kMoveGoal).c_str());
  }
}

}  // namespace Tansy::Host
