#include "CatalogueFile.h"

#include <vector>

#include "HostDatabases.h"

namespace Tansy::Host {
namespace details {
namespace {

const std::vector<std::string>& RowColumns() {
  static const auto& columns = *new std::vector<std::string>{"is_task", "bucket", "object", "url", "size"};
  return columns;
}

}  // namespace
}  // namespace details

CCatalogueFile::CCatalogueFile(const db_layer::DBParam& database)
    : database_(OpenHostDatabase(database, EDatabaseUse::kLook)) {}

// One query shows all tables, because rows go from one to the other when an upload becomes an object. An object that is
// made of parts is shown as these, and by itself only when they are not all of it.
void CCatalogueFile::VisitRows(const std::function<void(const CatalogueRow&)>& visitor) {
  database_->Query(
      "SELECT 0 AS is_task, bucket_name AS bucket, name AS object, url, size FROM platform.local_object "
      "WHERE substr(url, 1, 6) <> 'parts:' OR "
      "((SELECT COALESCE(SUM(p.size), 0) FROM platform.local_upload_part p WHERE p.object_url = local_object.url) "
      "- size) % 4294967296 <> 0 UNION ALL "
      "SELECT 1, bucket_name, object_name, url, size FROM platform.local_object_task UNION ALL "
      "SELECT 0, u.bucket_name, u.object_name, p.url, p.size FROM platform.local_upload_part p "
      "JOIN platform.local_upload u ON u.object_url = p.object_url UNION ALL "
      "SELECT 0, o.bucket_name, o.name, p.url, p.size FROM platform.local_upload_part p "
      "JOIN platform.local_object o ON o.url = p.object_url",
      details::RowColumns(), [&visitor](const db_layer::IRow& row) {
        visitor({row.GetInt(0) != 0, std::string(row.GetText(1)), std::string(row.GetText(2)),
                 std::string(row.GetText(3)), static_cast<std::uint32_t>(row.GetInt(4))});
      });
}

std::uint64_t CCatalogueFile::CountObjects() {
  return static_cast<std::uint64_t>(database_->QueryNumber("SELECT COUNT(*) AS value FROM platform.local_object"));
}

std::set<std::string> CCatalogueFile::TaskIds() {
  std::set<std::string> ids;
  database_->Query("SELECT DISTINCT task_id FROM platform.local_object_task", {"task_id"},
                   [&ids](const db_layer::IRow& row) { ids.emplace(row.GetText(0)); });
  return ids;
}

void CCatalogueFile::VisitReleased(const std::function<void(const std::string& url)>& visitor) {
  database_->Query(
      "SELECT url FROM platform.released_bytes UNION ALL SELECT p.url FROM platform.local_upload_part p "
      "JOIN platform.released_bytes r ON r.url = p.object_url",
      {"url"}, [&visitor](const db_layer::IRow& row) { visitor(std::string(row.GetText(0))); });
}

}  // namespace Tansy::Host
