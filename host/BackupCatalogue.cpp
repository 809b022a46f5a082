#include "BackupCatalogue.h"

#include <memory>

#include "HostDatabase.h"
#include "HostDatabases.h"
#include "MoveNames.h"
#include "SqliteFile.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

// The rows of parts that no upload and no object has any more belong to released bytes. Removals note released bytes,
// so these notes go last.
constexpr const char* kForgetReleased =
    "DELETE FROM platform.local_upload_part WHERE object_url NOT IN (SELECT object_url FROM platform.local_upload "
    "UNION SELECT url FROM platform.local_object);"
    "DELETE FROM platform.released_bytes;";

}  // namespace
}  // namespace details

std::string ReadStoreId(const db_layer::DBParam& database) {
  const auto catalogue = OpenHostDatabase(database, EDatabaseUse::kLook);
  const std::string values = "SELECT value FROM platform.host_values WHERE name = ";
  if (!catalogue->QueryText(values + QuotedText(kMoveId)).empty()) {
    throw CStartFailure(kExitFailed, "a move has begun: end it first, or forget it with tansyd move --cancel");
  }
  return catalogue->QueryText(values + "'store_id'");
}

// An object that is replaced keeps its row. One that is removed and stored again has a new row, whose id is new.
std::set<std::string> FindReplaced(const std::string& file, const db_layer::DBParam& live,
                                   const std::set<std::string>& urls) {
  std::set<std::string> replaced;
  CSqliteFile copy(file, CSqliteFile::EAccess::kLook);
  const auto catalogue = OpenHostDatabase(live, EDatabaseUse::kLook);
  for (const std::string& url : urls) {
    const std::string quoted = QuotedText(url);
    const std::string id =
        copy.QueryText("SELECT id AS value FROM platform.local_object WHERE url = " + quoted +
                       " OR url IN (SELECT object_url FROM platform.local_upload_part WHERE url = " + quoted + ")");
    if (!id.empty() &&
        catalogue->QueryNumber("SELECT COUNT(*) AS value FROM platform.local_object WHERE id = " + id) > 0) {
      replaced.insert(url);
    }
  }
  return replaced;
}

void KeepWhatLasts(const std::string& file) {
  CSqliteFile database(file, CSqliteFile::EAccess::kChange);
  database.RunScript(
      std::string("BEGIN; DELETE FROM platform.local_object_task;") + details::kForgetReleased + "COMMIT;",
      "the removal of open uploads");
}

void ForgetObjects(const std::string& file, const std::set<std::string>& urls) {
  CSqliteFile database(file, CSqliteFile::EAccess::kChange);
  std::string sql = "BEGIN;";
  for (const std::string& url : urls) {
    const std::string quoted = QuotedText(url);
    const std::string owners = "(SELECT object_url FROM platform.local_upload_part WHERE url = " + quoted + ");";
    sql += "DELETE FROM platform.local_object WHERE url = " + quoted + ";";
    sql += "DELETE FROM platform.local_object WHERE url IN " + owners;
    sql += "DELETE FROM platform.local_upload WHERE object_url IN " + owners;
  }
  database.RunScript(sql + details::kForgetReleased + "COMMIT;", "the removal of objects");
}

void SetStoreId(const std::string& file, const std::string& id) {
  CSqliteFile database(file, CSqliteFile::EAccess::kChange);
  database.Run("UPDATE platform.host_values SET value = ?1 WHERE name = 'store_id'", {id});
}

}  // namespace Tansy::Host
