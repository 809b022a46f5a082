#include "Catalogue.h"

#include <cstdlib>
#include <functional>
#include <memory>

#include "HostLog.h"
#include "TansyBase/StringUtil.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kModule = "platform";
constexpr int kChangesAtOnce = 2000;

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

// Whether the statement failed because another program has the database locked, or because its server is away.
bool IsLocked(db_layer::CConnect& connection) {
  constexpr int kSqliteLocked = 6;
  std::string text;
  const int code = connection.GetLastError(text) & db_layer::kErrorBits;
  return code == db_layer::kErrorBusy || code == kSqliteLocked;
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

// Writes row ids as a list. An id that is not made of digits would come from a broken database.
std::string List(const std::vector<std::string>& ids) {
  std::string list;
  for (const std::string& id : ids) {
    if (!id.empty() && id.find_first_not_of("0123456789") == std::string::npos) {
      list += (list.empty() ? "" : ",") + id;
    }
  }
  return list;
}

// Does the same for texts.
std::string TextList(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts) {
    list += (list.empty() ? "" : ",") + Quoted(text);
  }
  return list;
}

// Gives the query for those of these urls that a table names.
std::string NamesAmong(const std::string& table, const std::vector<std::string>& urls) {
  return "SELECT url FROM platform." + table + " WHERE url IN (" + TextList(urls) + ")";
}

bool Collect(const std::string& sql, std::set<std::string>& urls) {
  return Query(sql, [&urls](db_layer::CConnect& row) { urls.insert(row.GetString("url")); });
}

// Runs a statement over at most `limit` rows that fulfil a condition. It asks first whether there are any, so that an
// idle server writes nothing.
bool InSteps(const std::string& table, const std::string& key, const std::string& condition, int limit, bool& left,
             const std::function<std::string(const std::string& rows)>& statement) {
  const std::string some = "SELECT " + key + " FROM platform." + table + " WHERE " + condition + " LIMIT ";
  int count = 0;
  if (!Query(some + std::to_string(limit + 1), [&count](db_layer::CConnect&) { ++count; })) {
    return false;
  }
  left = count > limit;
  return count == 0 || Execute(statement(" WHERE " + key + " IN (" + some + std::to_string(limit) + ")"));
}

}  // namespace
}  // namespace details

bool GetTaskIds(std::set<std::string>& ids) {
  return details::Query("SELECT DISTINCT task_id FROM platform.local_object_task",
                        [&ids](db_layer::CConnect& row) { ids.insert(row.GetString("task_id")); });
}

bool StampReleased(std::int64_t now, int limit, bool& left) {
  return details::InSteps("released_bytes", "id", "released_at = -1", limit, left, [now](const std::string& rows) {
    return "UPDATE platform.released_bytes SET released_at = " + std::to_string(now) + rows;
  });
}

bool GetReleased(EReleased kind, std::int64_t time, int limit, std::vector<ReleasedBytes>& released) {
  const std::string sql =
      "SELECT id, url FROM platform.released_bytes WHERE kind = " + std::to_string(static_cast<int>(kind)) +
      " AND released_at >= 0 AND released_at <= " + std::to_string(time) + " ORDER BY released_at, id LIMIT " +
      std::to_string(limit);
  return details::Query(sql, [&released](db_layer::CConnect& row) {
    released.push_back({row.GetString("id"), row.GetString("url")});
  });
}

bool CountReleased(EReleased kind, int most, std::uint64_t& count) {
  const std::string sql = "SELECT COUNT(*) AS counted FROM (SELECT id FROM platform.released_bytes WHERE kind = " +
                          std::to_string(static_cast<int>(kind)) + " LIMIT " + std::to_string(most) + ") AS counted_rows";
  return details::Query(
      sql, [&count](db_layer::CConnect& row) { count = std::strtoull(row.GetString("counted").c_str(), nullptr, 10); });
}

bool ForgetReleased(const std::vector<std::string>& ids) {
  return ids.empty() ||
         details::Execute("DELETE FROM platform.released_bytes WHERE id IN (" + details::List(ids) + ")");
}

bool PostponeReleased(const std::vector<std::string>& ids, std::int64_t now) {
  return ids.empty() || details::Execute("UPDATE platform.released_bytes SET released_at = " + std::to_string(now) +
                                         " WHERE id IN (" + details::List(ids) + ")");
}

bool KeepReleased(const std::vector<std::string>& ids) {
  return ids.empty() || details::Execute("UPDATE platform.released_bytes SET kind = " +
                                         std::to_string(static_cast<int>(EReleased::kKept)) + " WHERE id IN (" +
                                         details::List(ids) + ")");
}

bool IsUrlOfParts(const std::string& url) {
  return url.starts_with("parts:");
}

bool GetParts(const std::string& url, std::vector<std::string>& urls) {
  return details::Query("SELECT url FROM platform.local_upload_part WHERE object_url = " + details::Quoted(url),
                        [&urls](db_layer::CConnect& row) { urls.push_back(row.GetString("url")); });
}

bool ForgetParts(const std::string& url) {
  return details::Execute("DELETE FROM platform.local_upload_part WHERE object_url = " + details::Quoted(url));
}

// Housekeeping may have found these bytes meanwhile, and have decided to keep them.
bool ReleaseSoon(const std::string& url) {
  return details::Execute("UPDATE platform.released_bytes SET kind = " +
                          std::to_string(static_cast<int>(EReleased::kLeft)) + " WHERE url = " + details::Quoted(url) +
                          " AND kind IN (" + std::to_string(static_cast<int>(EReleased::kRemovedNow)) + ", " +
                          std::to_string(static_cast<int>(EReleased::kKept)) + ")");
}

bool NoteReleased(const std::string& url) {
  return details::Execute("INSERT INTO platform.released_bytes (url, bucket_name, object_name, released_at) VALUES (" +
                          details::Quoted(url) + ", '', '', -1)");
}

// Who has been away for longer loads the catalogue anew. The newest entry stays, because it is where everybody begins.
// The end of a step is found by a reader, for whom nobody waits, and in the index.
bool TrimChanges(bool& left) {
  const std::string oldest = "(SELECT seq, mark FROM platform.catalogue_changes ORDER BY seq LIMIT " +
                             std::to_string(details::kChangesAtOnce) + ") AS oldest";
  std::string last;
  if (!details::Query("SELECT max(seq) AS last FROM " + oldest +
                          " WHERE mark < extract(epoch FROM clock_timestamp() - interval '1 hour') * 1000000 "
                          "AND seq < (SELECT max(seq) FROM platform.catalogue_changes)",
                      [&last](db_layer::CConnect& row) { last = row.GetString("last"); })) {
    left = false;
    return false;
  }
  left = !last.empty();
  return !left || details::Execute("DELETE FROM platform.catalogue_changes WHERE seq <= " + last);
}

bool GetOtherNodes(const std::string& own_name, std::vector<std::string>& names) {
  return details::Query(
      "SELECT name FROM platform.nodes WHERE owner <> '' AND seen_at > clock_timestamp() - interval '10 seconds' "
      "AND name <> " +
          details::Quoted(own_name) + " ORDER BY name",
      [&names](db_layer::CConnect& row) { names.push_back(row.GetString("name")); });
}

bool ForgetUploadsOfGoneNodes() {
  return details::Execute(
      "DELETE FROM platform.local_object_task WHERE node <> '' AND NOT EXISTS (SELECT 1 FROM platform.nodes n "
      "WHERE n.name = node AND n.seen_at > clock_timestamp() - interval '3 days')");
}

// A process that writes after all makes its row anew. No commit is in doubt for so many transactions.
bool ForgetGoneWriters() {
  return details::Execute("DELETE FROM platform.commit_marks WHERE age(xmin) > 100000");
}

bool FindNamed(const std::vector<std::string>& urls, EReleasedToo released_too, std::set<std::string>& named) {
  if (urls.empty()) {
    return true;
  }
  if (!details::Collect(details::NamesAmong("local_object", urls), named)) {
    return false;
  }
  // Most are objects' by then. The others are looked for everywhere by one statement, because a url goes from one table
  // to another.
  std::vector<std::string> left = urls;
  std::erase_if(left, [&named](const std::string& url) { return named.count(url) > 0; });
  if (left.empty()) {
    return true;
  }
  std::string sql = details::NamesAmong("local_object", left);
  for (const char* table : {"local_object_task", "local_upload_part"}) {
    sql += " UNION " + details::NamesAmong(table, left);
  }
  if (released_too == EReleasedToo::kYes) {
    sql += " UNION " + details::NamesAmong("released_bytes", left);
  }
  return details::Collect(sql, named);
}

EGiveUp GiveUpUnnamed(const std::vector<std::string>& urls, std::int64_t now, std::set<std::string>& given_up) {
  if (urls.empty()) {
    return EGiveUp::kDone;
  }
  std::string rows;
  for (const std::string& url : urls) {
    rows += (rows.empty() ? "(" : ",(") + details::Quoted(url) + ")";
  }
  // A single statement looks and writes, so that no row can come in between.
  const std::string sql = "INSERT INTO platform.freed_bytes (url, freed_at) SELECT column1, " + std::to_string(now) +
                          " FROM (VALUES " + rows +
                          ") AS given WHERE column1 NOT IN (SELECT url FROM platform.freed_bytes)"
                          " AND NOT EXISTS (SELECT 1 FROM platform.local_object WHERE url = column1)"
                          " AND NOT EXISTS (SELECT 1 FROM platform.local_object_task WHERE url = column1)"
                          " AND NOT EXISTS (SELECT 1 FROM platform.local_upload_part WHERE url = column1)";
  const std::shared_ptr<db_layer::CConnect> connection = details::ApplyConnection();
  if (connection == nullptr) {
    return EGiveUp::kBusy;
  }
  if (!connection->Execute(sql)) {
    details::Refused(*connection, sql);
    return details::IsLocked(*connection) ? EGiveUp::kBusy : EGiveUp::kRefused;
  }
  return details::Collect(details::NamesAmong("freed_bytes", urls), given_up) ? EGiveUp::kDone : EGiveUp::kBusy;
}

bool ForgetGivenUp(std::int64_t time, int limit, bool& left) {
  const std::string due = "freed_at <= " + std::to_string(time);
  return details::InSteps("freed_bytes", "url", due, limit, left,
                          [](const std::string& rows) { return "DELETE FROM platform.freed_bytes" + rows; });
}

bool GetAccessKeys(std::vector<AccessKeyRow>& keys) {
  return details::Query("SELECT name, access_key, sealed FROM platform.access_keys ORDER BY name",
                        [&keys](db_layer::CConnect& row) {
                          keys.push_back({row.GetString("name"), row.GetString("access_key"), row.GetString("sealed")});
                        });
}

bool AddAccessKey(const AccessKeyRow& key) {
  return details::Execute("INSERT INTO platform.access_keys (name, access_key, sealed) VALUES (" +
                          details::Quoted(key.name) + ", " + details::Quoted(key.access_key) + ", " +
                          details::Quoted(key.sealed) + ")");
}

bool RemoveAccessKey(const std::string& name) {
  return details::Execute("DELETE FROM platform.access_keys WHERE name = " + details::Quoted(name));
}

bool GetRunningSeconds(std::int64_t& seconds) {
  // The value is written from time to time only. After a crash the newest entry tells better: time that went back would
  // make the entries wait once more.
  return details::Query(
      "SELECT MAX(seconds) AS value FROM (SELECT CAST(value AS BIGINT) AS seconds FROM platform.host_values "
      "WHERE name = 'running_seconds' UNION ALL SELECT MAX(released_at) FROM platform.released_bytes "
      "UNION ALL SELECT MAX(freed_at) FROM platform.freed_bytes) AS times",
      [&seconds](db_layer::CConnect& row) { seconds = std::strtoll(row.GetString("value").c_str(), nullptr, 10); });
}

bool SetRunningSeconds(std::int64_t seconds) {
  return details::Execute("UPDATE platform.host_values SET value = '" + std::to_string(seconds) +
                          "' WHERE name = 'running_seconds'");
}

}  // namespace Tansy::Host
