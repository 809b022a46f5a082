#include "CatalogueFile.h"

#include "Schema.h"

namespace Tansy::Host {

CCatalogueFile::CCatalogueFile(const std::string& file) : database_(file, CSqliteFile::EAccess::kLook) {
  database_.Run("BEGIN");  // the first look fixes the instant
  ExpectSqliteSchema(database_, SqliteSchemaScripts());
}

void CCatalogueFile::VisitRows(const std::function<void(const CatalogueRow&)>& visitor) {
  const auto visit = [&visitor](bool is_task) {
    return [&visitor, is_task](const CSqliteFile::CRow& row) {
      visitor({is_task, row.Text(0), row.Text(1), row.Text(2), static_cast<std::uint32_t>(row.Number(3))});
    };
  };
  database_.Query("SELECT bucket_name, name, url, size FROM platform.local_object", visit(false));
  database_.Query("SELECT bucket_name, object_name, url, size FROM platform.local_object_task", visit(true));
}

std::set<std::string> CCatalogueFile::TaskIds() {
  std::set<std::string> ids;
  database_.Query("SELECT DISTINCT task_id FROM platform.local_object_task",
                  [&ids](const CSqliteFile::CRow& row) { ids.insert(row.Text(0)); });
  return ids;
}

void CCatalogueFile::VisitReleased(const std::function<void(const std::string& url)>& visitor) {
  database_.Query("SELECT url FROM platform.released_bytes",
                  [&visitor](const CSqliteFile::CRow& row) { visitor(row.Text(0)); });
}

}  // namespace Tansy::Host
