#include "CheckCommand.h"

#include <memory>
#include <string>
#include <vector>

#include "CatalogueFile.h"
#include "Check.h"
#include "CheckRequest.h"
#include "HostSystem/Files.h"
#include "Locks.h"
#include "StartFailure.h"
#include "StoragePlaces.h"
#include "StoreIdentity.h"

namespace Tansy::Host {
int RunCheckCommand(const CommandLine& line, const HostOptions& options, CDataFolder& folder, std::ostream& out) {
  const db_layer::DBParam& database = options.database;
  const bool is_file = database.type == db_layer::kSqlite;
  CheckOptions check;
  check.repair = line.repair;
  check.force = line.force;
  if (line.repair && folder.IsInUse()) {
    return AskForCheck(
        check, [&folder] { return folder.IsInUse(); }, out);
  }
  if (is_file && HostSystem::GetPathKind(database.database) == HostSystem::EPathKind::kMissing) {
    throw CStartFailure(kExitFailed, "database " + database.database + " does not exist");
  }
  HostSystem::CLockFile database_lock;
  const std::unique_ptr<IStoragePlace> place = FindStoragePlace(options.storage);
  if (line.repair) {
    folder.Lock();
    if (is_file) {
      LockDatabase(database.database, database_lock);
    }
    place->ExpectFree();
  }
  CCatalogueFile(database).TaskIds();  // fails here when the file is no catalogue
  MatchStoreIdentity(database, *place, EIdentity::kLook);
  if (line.repair) {
    place->Lock();  // only now is it known to be the right storage
  }
  const std::unique_ptr<IObjectStore> store = place->Open(false, line.repair ? EStoreUse::kRepair : EStoreUse::kLook);
  if (!line.repair && (folder.IsInUse() || place->IsInUse())) {
    check.unfinished = [&store](std::vector<StoredName>& names) { return store->LookAgain(names); };
  }
  const int exit_code = RunCheck(*store, database, check, out);
  if (line.repair) {
    store->Tidy({});
  }
  return exit_code;
}

}  // namespace Tansy::Host
