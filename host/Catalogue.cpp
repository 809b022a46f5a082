#include "Catalogue.h"

#include <memory>

#include "HostLog.h"
#include "TansyBase/StringUtil.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kModule = "platform";

std::shared_ptr<db_layer::CConnect> ApplyConnection() {
  db_layer::CConnect* connection = db_layer::DBLayer_ApplyConn(kModule);
  if (connection == nullptr) {
    HOST_LOG(logging::kDatabase, "[%s]no database connection: %s.[%s(%d)]",
             db_layer::LastRegisterError(kModule).c_str());
    return nullptr;
  }
  return {connection, &db_layer::DBLayer_FreeConn};
}

bool Refused(db_layer::CConnect& connection, const std::string& sql) {
  std::string text;
  const int code = connection.GetLastError(text);
  HOST_LOG(logging::kDatabase, "[%s]statement failed, errorcode:%d, errorinfo:%s, sql:%s.[%s(%d)]", code, text.c_str(),
           sql.c_str());
  return false;
}

bool Query(const std::string& sql, const std::function<void(db_layer::CConnect&)>& visitor) {
  const std::shared_ptr<db_layer::CConnect> connection = ApplyConnection();
  if (connection == nullptr) {
    return false;
  }
  if (!connection->Query(sql)) {
    return Refused(*connection, sql);
  }
  for (; !connection->IsEnd(); connection->MoveNext()) {
    visitor(*connection);
  }
  return true;
}

bool Execute(const std::string& sql) {
  const std::shared_ptr<db_layer::CConnect> connection = ApplyConnection();
  return connection != nullptr && (connection->Execute(sql) || Refused(*connection, sql));
}

std::string Quoted(const std::string& text) {
  return "'" + TansyBase::StringUtil::StringPreventSQLInjection(text) + "'";
}

// Row ids as a list; anything but digits would have come from a broken database.
std::string List(const std::vector<std::string>& ids) {
  std::string list;
  for (const std::string& id : ids) {
    if (!id.empty() && id.find_first_not_of("0123456789") == std::string::npos) {
      list += (list.empty() ? "" : ",") + id;
    }
  }
  return list;
}

bool HasRow(const std::string& sql, bool& has_row) {
  has_row = false;
  return Query(sql, [&has_row](db_layer::CConnect&) { has_row = true; });
}

}  // namespace
}  // namespace details

bool VisitCatalogue(const std::function<void(const CatalogueRow&)>& visitor) {
  const auto visit = [&visitor](db_layer::CConnect& row, bool is_task, const char* object_column) {
    CatalogueRow entry;
    entry.is_task = is_task;
    entry.bucket = row.GetString("bucket_name");
    entry.object = row.GetString(object_column);
    entry.url = row.GetString("url");
    entry.size = static_cast<std::uint32_t>(row.GetInt("size"));
    visitor(entry);
  };
  return details::Query("SELECT bucket_name, name, url, size FROM platform.local_object",
                        [&](db_layer::CConnect& row) { visit(row, false, "name"); }) &&
         details::Query("SELECT bucket_name, object_name, url, size FROM platform.local_object_task",
                        [&](db_layer::CConnect& row) { visit(row, true, "object_name"); });
}

bool GetTaskIds(std::set<std::string>& ids) {
  return details::Query("SELECT DISTINCT task_id FROM platform.local_object_task",
                        [&ids](db_layer::CConnect& row) { ids.insert(row.GetString("task_id")); });
}

bool GetReleased(std::time_t time, int limit, std::vector<ReleasedBytes>& released) {
  const std::string sql =
      "SELECT id, url, bucket_name, object_name FROM platform.released_bytes WHERE released_at <= " +
      std::to_string(time) + " ORDER BY released_at, id LIMIT " + std::to_string(limit);
  return details::Query(sql, [&released](db_layer::CConnect& row) {
    released.push_back(
        {row.GetString("id"), row.GetString("url"), row.GetString("bucket_name"), row.GetString("object_name")});
  });
}

bool GetReference(const ReleasedBytes& bytes, EReference& reference) {
  const std::string key =
      " WHERE bucket_name = " + details::Quoted(bytes.bucket) + " AND url = " + details::Quoted(bytes.url) + " AND ";
  const std::string object = details::Quoted(bytes.object);
  bool is_object = false;
  bool is_task = false;
  if (!details::HasRow("SELECT id FROM platform.local_object" + key + "name = " + object, is_object) ||
      !details::HasRow("SELECT id FROM platform.local_object_task" + key + "object_name = " + object, is_task)) {
    return false;
  }
  reference = is_task ? EReference::kTask : is_object ? EReference::kObject : EReference::kNone;
  return true;
}

bool ForgetReleased(const std::vector<std::string>& ids) {
  return ids.empty() ||
         details::Execute("DELETE FROM platform.released_bytes WHERE id IN (" + details::List(ids) + ")");
}

bool PostponeReleased(const std::vector<std::string>& ids, std::time_t time) {
  return ids.empty() || details::Execute("UPDATE platform.released_bytes SET released_at = " + std::to_string(time) +
                                         " WHERE id IN (" + details::List(ids) + ")");
}

bool ForgetAllReleased() {
  return details::Execute("DELETE FROM platform.released_bytes");
}

bool HasObjects(bool& has_objects) {
  return details::HasRow("SELECT id FROM platform.local_object LIMIT 1", has_objects);
}

}  // namespace Tansy::Host
