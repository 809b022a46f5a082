#include "StorageServer/ObjectServer/ObjectServerSession.h"

#include <cstdlib>
#include <iterator>
#include <memory>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"
#include "db_layer/DbLayer.h"
#include "db_layer/SharedDatabase.h"
#include "sqlbuilder/SqlBuilder.h"

namespace Tansy::CloudStorage {

using TansyBase::StringUtil;

namespace details {
namespace {

// The statements write every number as a signed one of 32 bits; of a larger number the low 32 bits remain.
int ToInt(std::uint64_t value) {
  return static_cast<int>(static_cast<std::uint32_t>(value));
}

// Numbers are read back unsigned, so that sizes between 2 and 4 GiB are kept.
std::uint32_t ReadNumber(db_layer::CConnect& row, const char* column) {
  return static_cast<std::uint32_t>(row.GetInt(std::string(column)));
}

std::string Protect(const std::string& text) {
  return StringUtil::StringPreventSQLInjection(text);
}

std::string DoubleQuotes(const std::string& text) {
  return StringUtil::StringReplace(text, "'", "''");
}

std::string NowText() {
  return TansyBase::TimeUtil::TimeT2StrUTCTimeStamp(TansyBase::TimeUtil::Now());
}

bool Execute(const std::string& sql) {
  return CBaseDBLayerConn::Instance().Execute(sql);
}

std::string DeleteTaskText(const std::string& task_id) {
  return StringUtil::str_fmt("DELETE FROM platform.local_object_task WHERE task_id = '%s' ", Protect(task_id).c_str());
}

std::string InsertAttributesText(std::uint32_t object_id, const std::string& attributes) {
  return StringUtil::str_fmt(
      "INSERT INTO platform.local_object_attributes (object_id, attributes) VALUES (%d, '%s') "
      "ON CONFLICT (object_id) DO UPDATE SET attributes = excluded.attributes",
      ToInt(object_id), Protect(attributes).c_str());
}

// Gives what has to happen before an upload's parts become an object. The first statement waits for whoever changes the
// upload at this moment. Parts that are not among the object's pieces go while the upload is still there, so that the
// schema releases their bytes; once it has become an object, that object's parts stay as they are.
std::vector<std::string> BeforePieces(const std::string& owner, const std::string& url) {
  std::string list;
  for (const Piece& piece : ReadPieceList(url)) {
    list += (list.empty() ? "'" : ",'") + Protect(piece.url) + "'";
  }
  const std::string upload = "platform.local_upload WHERE object_url = '" + owner + "'";
  return {"UPDATE platform.local_upload SET update_time = update_time WHERE object_url = '" + owner + "'",
          "DELETE FROM platform.local_upload_part WHERE object_url = '" + owner + "' AND url NOT IN (" + list +
              ") AND EXISTS (SELECT 1 FROM " + upload + ")"};
}

// Gives what has to happen afterwards: the upload goes, its remaining parts stay and name the object's bytes.
std::vector<std::string> AfterPieces(const std::string& owner, const ObjectInfo& object) {
  return {"UPDATE platform.local_object SET pieces = '" + Protect(std::string(PiecesOf(object.url))) +
              "' WHERE id = " + std::to_string(ToInt(object.id)),
          "DELETE FROM platform.local_upload WHERE object_url = '" + owner + "'"};
}

// Fails unless the bytes of an object are those at this url; "" stands for no object.
std::string ExpectText(const std::string& bucket_name, const std::string& object_name, const std::string& url) {
  return StringUtil::str_fmt("SELECT platform.expect_object('%s', '%s', '%s')", Protect(bucket_name).c_str(),
                             Protect(object_name).c_str(), Protect(std::string(PieceOwnerOf(url))).c_str());
}

// Gives a change of an object and what belongs to it, to be done in one step.
std::vector<std::string> WithExtras(std::string sql, const ObjectInfo& object, const ObjectExtras& extras) {
  std::vector<std::string> statements;
  std::vector<std::string> after;
  if (IsPieceList(object.url)) {
    const std::string owner = Protect(std::string(PieceOwnerOf(object.url)));
    statements = BeforePieces(owner, object.url);
    after = AfterPieces(owner, object);
  }
  if (extras.expected_url) {
    statements.push_back(ExpectText(object.bucket_name, object.name, *extras.expected_url));
  }
  statements.push_back(std::move(sql));
  statements.insert(statements.end(), std::make_move_iterator(after.begin()), std::make_move_iterator(after.end()));
  if (!extras.attributes.empty()) {
    statements.push_back(InsertAttributesText(object.id, extras.attributes));
  }
  if (!extras.ended_task.empty()) {
    statements.push_back(DeleteTaskText(extras.ended_task));
  }
  return statements;
}

// Time and url of a new object are the server's own texts and go in as they are.
std::string InsertText(const ObjectInfo& object) {
  return StringUtil::str_fmt(
      "INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) "
      "VALUES (%d, '%s', '%s', "
      "'%s', %d, '%s', '%s') ",
      ToInt(object.id), Protect(object.guid).c_str(), Protect(object.name).c_str(), Protect(object.bucket_name).c_str(),
      ToInt(object.size), object.update_time.c_str(), std::string(PieceOwnerOf(object.url)).c_str());
}

std::string UpdateText(const ObjectInfo& object) {
  return StringUtil::str_fmt("UPDATE platform.local_object set size=%d, update_time='%s', url='%s' where id=%d ;",
                             ToInt(object.size), Protect(object.update_time).c_str(),
                             Protect(std::string(PieceOwnerOf(object.url))).c_str(), ToInt(object.id));
}

std::string DeleteObjectText(std::uint32_t id) {
  return StringUtil::str_fmt("DELETE FROM platform.local_object where id=%d", ToInt(id));
}

std::string DeleteObjectText(const std::string& bucket_name, const std::string& object_name) {
  return StringUtil::str_fmt("DELETE FROM platform.local_object where bucket_name='%s' and name='%s'",
                             Protect(bucket_name).c_str(), Protect(object_name).c_str());
}

std::string DeleteObjectsText(const std::string& bucket_name) {
  return StringUtil::str_fmt("DELETE FROM platform.local_object where bucket_name='%s';", Protect(bucket_name).c_str());
}

// Removes buckets with their objects.
bool ExecuteAndDeleteObjects(const std::string& sql, const std::vector<std::string>& bucket_names) {
  std::vector<std::string> statements{sql};
  for (const std::string& name : bucket_names) {
    statements.push_back(DeleteObjectsText(name));
  }
  return CBaseDBLayerConn::Instance().Execute(statements);
}

std::string RenameText(const char* table, const std::string& old_name, const std::string& new_name) {
  return StringUtil::str_fmt("UPDATE platform.%s SET bucket_name='%s' where bucket_name='%s';", table,
                             Protect(new_name).c_str(), Protect(old_name).c_str());
}

// Each kind of record has columns of its own, so there is one reading function for each.
BucketInfo ReadBucket(db_layer::CConnect& row) {
  BucketInfo bucket;
  bucket.id = ReadNumber(row, "id");
  bucket.guid = row.GetString("guid");
  bucket.name = row.GetString("name");
  bucket.acl = ReadNumber(row, "acl");
  bucket.location = row.GetString("location");
  bucket.cycle = ReadNumber(row, "cycle");
  bucket.size = ReadNumber(row, "size");
  return bucket;
}

// The columns of an object, in the order in which ReadObject counts them. A host whose schema has no pieces shows empty
// ones.
const std::vector<std::string>& ObjectColumns() {
  static const auto& columns =
      *new std::vector<std::string>{"id", "guid", "name", "bucket_name", "update_time", "url", "size", "pieces"};
  return columns;
}

// Fills a record that has been used before, so that its texts need no memory of their own.
void ReadObject(ObjectInfo& object, const db_layer::IRow& row) {
  object.id = static_cast<std::uint32_t>(row.GetInt(0));
  object.guid = row.GetText(1);
  object.name = row.GetText(2);
  object.bucket_name = row.GetText(3);
  object.update_time = row.GetText(4);
  object.url = row.GetText(5);
  if (IsPieceList(object.url)) {
    object.url.append("=").append(row.GetText(7));
  }
  object.size = static_cast<std::uint32_t>(row.GetInt(6));
}

ChangePosition ReadPosition(const db_layer::IRow& row, std::size_t first) {
  return {std::strtoll(std::string(row.GetText(first)).c_str(), nullptr, 10), std::string(row.GetText(first + 1))};
}

// The columns of a change: those of the object, then those of the entry.
const std::vector<std::string>& ChangeColumns() {
  static const auto& columns = *[] {
    auto* all = new std::vector<std::string>(ObjectColumns());
    all->insert(all->end(), {"seq", "mark", "kind", "changed_bucket", "changed_name", "attributes"});
    return all;
  }();
  return columns;
}

void ReadChange(CatalogueChange& change, const db_layer::IRow& row) {
  const std::size_t entry = ObjectColumns().size();
  ReadObject(change.object, row);
  change.is_there = !row.GetText(0).empty();
  change.position = ReadPosition(row, entry);
  change.is_object = row.GetInt(entry + 2) == 0;
  change.object.bucket_name = row.GetText(entry + 3);
  change.object.name = row.GetText(entry + 4);
  change.attributes = row.GetText(entry + 5);
}

ObjectTaskInfo ReadTask(db_layer::CConnect& row) {
  ObjectTaskInfo task;
  task.id = ReadNumber(row, "id");
  task.task_id = row.GetString("task_id");
  task.object_name = row.GetString("object_name");
  task.bucket_name = row.GetString("bucket_name");
  task.size = ReadNumber(row, "size");
  task.part_num = ReadNumber(row, "part_num");
  task.update_time = row.GetString("update_time");
  task.url = row.GetString("url");
  return task;
}

}  // namespace
}  // namespace details

// Runs a select on a connection and leaves the function with false when that fails. It is a macro, because the log line
// names the function that asked, twice.
#define SELECT_OR_RETURN(connection, select)                                                                         \
  const std::shared_ptr<db_layer::CConnect> connection = CBaseDBLayerConn::Instance().ApplyConn();                   \
  if (!(connection)) {                                                                                               \
    return false;                                                                                                    \
  }                                                                                                                  \
  if (!(connection)->select) {                                                                                       \
    static constexpr auto name = logging::CutQualifiedName(TANSY_FUNCTION_TEXT);                                     \
    std::string error;                                                                                               \
    const int code = (connection)->GetLastError(error);                                                              \
    CLOUD_LOG(logging::kError, "[%s]%s failed, errorcode:%d, errorinfo:%s[%s(%d)]", name.text, code, error.c_str()); \
    return false;                                                                                                    \
  }

std::uint32_t CObjectServerSession::QueryNextID(const std::string& sequence, const std::string& table) {
  const std::shared_ptr<db_layer::CConnect> connection = CBaseDBLayerConn::Instance().ApplyConn();
  if (!connection) {
    static constexpr auto name = logging::CutQualifiedName(TANSY_FUNCTION_TEXT);
    CLOUD_LOG(logging::kError, "[%s]%s apply conn failed[%s(%d)]", name.text);
    return kInvalidId;
  }
  sqlbuilder::SeqenceBuilder builder(connection);
  if (!builder.NEXT_VAL(sqlbuilder::seq(sequence), sqlbuilder::tab(table)).Execute()) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG(logging::kDatabase, "[%s]NEXT_VAL failedseq:%s  table_name:%s [%s(%d)]", sequence.c_str(), table.c_str());
    return kInvalidId;
  }
  return connection->IsEnd() ? kInvalidId : static_cast<std::uint32_t>(connection->GetInt(0));
}

bool CObjectServerSession::CreateBucket(BucketInfo& bucket) {
  const std::uint32_t id = QueryNextID("platform.local_bucket_id_seq", "platform.local_bucket");
  if (id == kInvalidId) {
    CLOUD_LOG(logging::kError, "[%s]CreateBucket failed, query next id failed[%s(%d)]");
    return false;
  }
  bucket.id = id;
  bucket.acl = 0;
  return details::Execute(StringUtil::str_fmt(
      // Fixed: docs/compatibility.md, "Statements of the catalogue".
      "INSERT INTO platform.local_bucket (id, guid, name, acl, location, cycle, size, update_time) VALUES (%d, '%s', "
      "'%s', %d, '%s', %d, %d, '%s') ",
      details::ToInt(bucket.id), details::Protect(bucket.guid).c_str(), details::Protect(bucket.name).c_str(),
      details::ToInt(bucket.acl), details::Protect(bucket.location).c_str(), details::ToInt(bucket.cycle),
      details::ToInt(bucket.size), details::Protect(details::NowText()).c_str()));
}

bool CObjectServerSession::ModifyBucket(const BucketInfo& bucket, const std::string& old_name) {
  std::vector<std::string> statements{StringUtil::str_fmt(
      "UPDATE platform.local_bucket SET name='%s', location='%s', cycle=%d, size=%d, update_time='%s' where id=%d;",
      details::Protect(bucket.name).c_str(), details::Protect(bucket.location).c_str(), details::ToInt(bucket.cycle),
      details::ToInt(bucket.size), details::Protect(details::NowText()).c_str(), details::ToInt(bucket.id))};
  if (!old_name.empty() && old_name != bucket.name) {
    statements.push_back(details::RenameText("local_object", old_name, bucket.name));
    statements.push_back(details::RenameText("local_object_task", old_name, bucket.name));
  }
  return CBaseDBLayerConn::Instance().Execute(statements);
}

bool CObjectServerSession::DeleteBucket(std::uint32_t id, const std::vector<std::string>& bucket_names) {
  return details::ExecuteAndDeleteObjects(
      StringUtil::str_fmt("DELETE FROM platform.local_bucket where id=%d;", details::ToInt(id)), bucket_names);
}

bool CObjectServerSession::DeleteBuckets(const std::set<std::uint32_t>& ids,
                                         const std::vector<std::string>& bucket_names) {
  if (ids.empty()) {
    return true;
  }
  std::string list;
  for (const std::uint32_t id : ids) {
    list += list.empty() ? "" : ",";
    list += std::to_string(details::ToInt(id));
  }
  return details::ExecuteAndDeleteObjects(
      StringUtil::str_fmt("DELETE FROM platform.local_bucket WHERE id IN (%s);", list.c_str()), bucket_names);
}

bool CObjectServerSession::QueryBucket(std::map<std::string, BucketInfo>& buckets) {
  SELECT_OR_RETURN(rows, Query("SELECT * FROM platform.local_bucket where is_deleted = 0;"))
  for (; !rows->IsEnd(); rows->MoveNext()) {
    BucketInfo bucket = details::ReadBucket(*rows);
    CLOUD_LOG(logging::kNotable, "[%s]get exist bucket:[%s].[%s(%d)]", bucket.name.c_str());
    std::string name = bucket.name;
    buckets.emplace(std::move(name), std::move(bucket));
  }
  return true;
}

bool CObjectServerSession::QueryBucketTimes(std::map<std::string, std::string>& times) {
  SELECT_OR_RETURN(rows, Query("SELECT * FROM platform.local_bucket where is_deleted = 0;"))
  for (; !rows->IsEnd(); rows->MoveNext()) {
    times[rows->GetString("name")] = rows->GetString("update_time");
  }
  return true;
}

bool CObjectServerSession::CreateObject(ObjectInfo& object, const ObjectExtras& extras) {
  return TakeObjectId(object, CLOUD_LOG_CALLER) &&
         CBaseDBLayerConn::Instance().Execute(details::WithExtras(details::InsertText(object), object, extras));
}

void CObjectServerSession::CreateObject(ObjectInfo& object, const ObjectExtras& extras, Done done) {
  if (!TakeObjectId(object, CLOUD_LOG_CALLER)) {
    done(false);
    return;
  }
  CBaseDBLayerConn::Instance().Execute(details::WithExtras(details::InsertText(object), object, extras),
                                       std::move(done));
}

bool CObjectServerSession::TakeObjectId(ObjectInfo& object, const details::Caller& caller) {
  const std::uint32_t id = QueryNextID("platform.local_object_id_seq", "platform.local_object");
  if (id == kInvalidId) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]CreateBucket failed, query next id failed[%s(%d)]");
    return false;
  }
  object.id = id;
  return true;
}

bool CObjectServerSession::UpdateObject(const ObjectInfo& object, const ObjectExtras& extras) {
  return CBaseDBLayerConn::Instance().Execute(details::WithExtras(details::UpdateText(object), object, extras));
}

void CObjectServerSession::UpdateObject(const ObjectInfo& object, const ObjectExtras& extras, Done done) {
  CBaseDBLayerConn::Instance().Execute(details::WithExtras(details::UpdateText(object), object, extras),
                                       std::move(done));
}

bool CObjectServerSession::DeleteObjectByBucket(const std::string& bucket_name) {
  return details::Execute(details::DeleteObjectsText(bucket_name));
}

bool CObjectServerSession::DeleteObject(std::uint32_t id) {
  return details::Execute(details::DeleteObjectText(id));
}

bool CObjectServerSession::DeleteObjects(const std::vector<std::uint32_t>& ids) {
  std::vector<std::string> statements;
  statements.reserve(ids.size());
  for (const std::uint32_t id : ids) {
    statements.push_back(details::DeleteObjectText(id));
  }
  return CBaseDBLayerConn::Instance().Execute(statements);
}

// The schema removes the row that has this name by then, whatever its id.
bool CObjectServerSession::PutObject(const ObjectInfo& object, const ObjectExtras& extras) {
  return CBaseDBLayerConn::Instance().Execute(details::WithExtras(details::InsertText(object), object, extras));
}

void CObjectServerSession::PutObject(const ObjectInfo& object, const ObjectExtras& extras, Done done) {
  CBaseDBLayerConn::Instance().Execute(details::WithExtras(details::InsertText(object), object, extras),
                                       std::move(done));
}

// The row is touched, so that everybody hears of it.
bool CObjectServerSession::FillInAttributes(const ObjectInfo& object, const std::string& attributes) {
  const std::string condition = StringUtil::str_fmt(
      "bucket_name = '%s' AND name = '%s' AND url = '%s'", details::Protect(object.bucket_name).c_str(),
      details::Protect(object.name).c_str(), details::Protect(object.url).c_str());
  return CBaseDBLayerConn::Instance().Execute(
      {"INSERT INTO platform.local_object_attributes (object_id, attributes) SELECT id, '" +
           details::Protect(attributes) + "' FROM platform.local_object WHERE " + condition +
           " ON CONFLICT (object_id) DO NOTHING",
       "UPDATE platform.local_object SET is_deleted = 0 WHERE " + condition});
}

bool CObjectServerSession::DeleteObject(const std::string& bucket_name, const std::string& object_name) {
  return details::Execute(details::DeleteObjectText(bucket_name, object_name));
}

bool CObjectServerSession::DeleteObjects(const std::string& bucket_name, const std::vector<std::string>& object_names,
                                         const std::vector<ObjectInfo>& expected) {
  std::vector<std::string> statements;
  statements.reserve(expected.size() + object_names.size());
  for (const ObjectInfo& object : expected) {
    statements.push_back(details::ExpectText(bucket_name, object.name, object.url));
  }
  for (const std::string& name : object_names) {
    statements.push_back(details::DeleteObjectText(bucket_name, name));
  }
  return CBaseDBLayerConn::Instance().Execute(statements);
}

bool CObjectServerSession::QueryObject(const ObjectVisitor& take, const std::string& bucket_name) {
  ObjectInfo object;
  const auto take_row = [&](const db_layer::IRow& row) {
    details::ReadObject(object, row);
    take(object);
  };
  const std::string sql =
      StringUtil::str_fmt("SELECT * FROM platform.local_object where is_deleted = 0 and bucket_name='%s';",
                          details::DoubleQuotes(bucket_name).c_str());
  SELECT_OR_RETURN(rows, ShowRows(sql, details::ObjectColumns(), take_row))
  return true;
}

bool CObjectServerSession::QueryObject(const AttributesVisitor& take, const std::string& bucket_name) {
  ObjectInfo object;
  std::vector<std::string> columns = details::ObjectColumns();
  columns.emplace_back("attributes");
  const auto take_row = [&](const db_layer::IRow& row) {
    details::ReadObject(object, row);
    take(object, row.GetText(columns.size() - 1));
  };
  const std::string sql = StringUtil::str_fmt(
      "SELECT o.*, a.attributes AS attributes FROM platform.local_object o LEFT JOIN platform.local_object_attributes "
      "a "
      "ON a.object_id = o.id WHERE o.is_deleted = 0 AND o.bucket_name = '%s'",
      details::DoubleQuotes(bucket_name).c_str());
  SELECT_OR_RETURN(rows, ShowRows(sql, columns, take_row))
  return true;
}

bool CObjectServerSession::SetAttributes(std::uint32_t object_id, const std::string& attributes) {
  return details::Execute(details::InsertAttributesText(object_id, attributes));
}

bool CObjectServerSession::QueryAttributes(const AttributesVisitor& take) {
  ObjectInfo object;
  const auto take_row = [&](const db_layer::IRow& row) {
    object.name = row.GetText(0);
    object.bucket_name = row.GetText(1);
    object.url = row.GetText(2);
    take(object, row.GetText(3));
  };
  const std::string sql =
      "SELECT o.name AS name, o.bucket_name AS bucket_name, o.url AS url, a.attributes AS attributes "
      "FROM platform.local_object_attributes a JOIN platform.local_object o ON o.id = a.object_id "
      "WHERE o.is_deleted = 0";
  SELECT_OR_RETURN(rows, ShowRows(sql, {"name", "bucket_name", "url", "attributes"}, take_row))
  return true;
}

bool CObjectServerSession::GetAllObjectTask(std::vector<ObjectTaskInfo>& tasks, const std::string& node) {
  const std::string own = node.empty() ? "" : " and node = '" + details::DoubleQuotes(node) + "'";
  SELECT_OR_RETURN(rows, Query("SELECT * FROM platform.local_object_task where is_deleted = 0" + own))
  for (; !rows->IsEnd(); rows->MoveNext()) {
    tasks.push_back(details::ReadTask(*rows));
  }
  return true;
}

bool CObjectServerSession::GetTaskNode(std::string& node, const std::string& task_id) {
  SELECT_OR_RETURN(rows,
                   Query(StringUtil::str_fmt("SELECT node FROM platform.local_object_task where task_id = '%s' limit 1",
                                             details::DoubleQuotes(task_id).c_str())))
  node = rows->GetString("node");
  return true;
}

bool CObjectServerSession::InsertObjectTask(ObjectTaskInfo& task) {
  const std::uint32_t id = QueryNextID("platform.local_object_task_id_seq", "platform.local_object_task");
  CLOUD_LOG(logging::kNotable, "[%s]InsertObjectTask, query next id[%d][%s(%d)]", details::ToInt(id));
  if (id == kInvalidId) {
    CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, query next id failed[%s(%d)]");
    return false;
  }
  task.id = id;
  return details::Execute(StringUtil::str_fmt(
      "INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, part_num, update_time, "
      "url) "
      "values (%d, '%s', '%s', '%s', %d, %d, '%s', '%s')",
      details::ToInt(task.id), details::Protect(task.task_id).c_str(), details::Protect(task.object_name).c_str(),
      details::Protect(task.bucket_name).c_str(), details::ToInt(task.size), details::ToInt(task.part_num),
      details::Protect(task.update_time).c_str(), details::Protect(task.url).c_str()));
}

bool CObjectServerSession::UpdateObjectTask(const ObjectTaskInfo& task) {
  return details::Execute(
      StringUtil::str_fmt("UPDATE platform.local_object_task set size=%d, update_time='%s', url='%s' where id=%d",
                          details::ToInt(task.size), details::Protect(task.update_time).c_str(),
                          details::Protect(task.url).c_str(), details::ToInt(task.id)));
}

bool CObjectServerSession::DeleteObjectTask(const std::string& task_id) {
  return details::Execute(details::DeleteTaskText(task_id));
}

bool CObjectServerSession::GetUrlByEncryptUrl(std::string& url, const std::string& encrypt_url) {
  SELECT_OR_RETURN(rows, Query(StringUtil::str_fmt("SELECT * FROM platform.picture_url_encrypt where encrypt_url='%s'",
                                                   details::DoubleQuotes(encrypt_url).c_str())))
  for (; !rows->IsEnd(); rows->MoveNext()) {
    url = rows->GetString("url");
  }
  return true;
}

bool CObjectServerSession::GetDatabaseTime(std::time_t& time) {
  SELECT_OR_RETURN(
      rows, Query("SELECT to_char(clock_timestamp() AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS') AS time_of_rows"))
  time = TansyBase::TimeUtil::StrUTCDatetime2TimeT(rows->GetString("time_of_rows"));
  return time >= 0;
}

bool CObjectServerSession::GetFirstNode(std::string& node) {
  SELECT_OR_RETURN(rows, Query("SELECT name FROM platform.nodes WHERE owner <> '' AND "
                               "seen_at > clock_timestamp() - interval '10 seconds' ORDER BY name LIMIT 1"))
  node = rows->GetString("name");
  return true;
}

bool CObjectServerSession::GetLastChange(db_layer::IDatabaseEar& ear, ChangePosition& position) {
  const auto take = [&position](const db_layer::IRow& row) { position = details::ReadPosition(row, 0); };
  std::string error;
  if (!ear.Ask("SELECT seq, mark FROM platform.catalogue_changes ORDER BY seq DESC LIMIT 1", {"seq", "mark"}, take,
               error)) {
    CLOUD_LOG(logging::kError, "[%s]GetLastChange failed, errorinfo:%s[%s(%d)]", error.c_str());
    return false;
  }
  return true;
}

// One statement shows the log and the rows, so that nothing changes in between. The limit of the inner query keeps it
// one look into an index per entry, whatever the planner knows about the tables.
bool CObjectServerSession::QueryChanges(db_layer::IDatabaseEar& ear, const ChangePosition& from, int limit,
                                        const ChangeVisitor& take) {
  const std::string sql =
      "SELECT o.*, c.seq AS seq, c.mark AS mark, c.kind AS kind, c.bucket_name AS changed_bucket, "
      "c.name AS changed_name FROM platform.catalogue_changes c LEFT JOIN LATERAL "
      "(SELECT l.*, a.attributes FROM platform.local_object l "
      "LEFT JOIN platform.local_object_attributes a ON a.object_id = l.id "
      "WHERE l.bucket_name = c.bucket_name AND l.name = c.name AND l.is_deleted = 0 LIMIT 1) o ON c.kind = 0 "
      "WHERE c.seq >= " +
      std::to_string(from.seq) + " ORDER BY c.seq LIMIT " + std::to_string(limit + 1);
  CatalogueChange change;
  const auto take_row = [&](const db_layer::IRow& row) {
    details::ReadChange(change, row);
    take(change);
  };
  std::string error;
  if (!ear.Ask(sql, details::ChangeColumns(), take_row, error)) {
    CLOUD_LOG(logging::kError, "[%s]QueryChanges failed, errorinfo:%s[%s(%d)]", error.c_str());
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
