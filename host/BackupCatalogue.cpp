#include "BackupCatalogue.h"

#include "HostDatabase.h"
#include "SqliteFile.h"

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
