// Multipart uploads: opening a task, receiving and listing its parts, completing it.
#include <charconv>
#include <cstdio>
#include <limits>
#include <memory>
#include <unordered_set>
#include <utility>

#include "StorageServer/ObjectServer/FirstPartFile.h"
#include "StorageServer/ObjectServer/FirstPartRoom.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerFiles.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/GuidUtil.h"
#include "TansyBase/MessageLoop.h"
#include "TansyBase/TimeUtil.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

using TansyProto::CXmlProto;
using Query = std::map<std::string, std::string>;

constexpr std::string_view kProbe = "test";
constexpr std::uint32_t kTaskPart = 1;  // the part whose row stands for the task

std::string NowText() {
  return TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
}

// Upload ids become file names, so a text of any other shape is not accepted as an id.
bool IsUploadId(const std::string& text) {
  constexpr std::string_view kLetters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-{}";
  return !text.empty() && text.find_first_not_of(kLetters) == std::string::npos;
}

// Gives the upload id of a query; it is empty when the query has none.
std::string UploadIdOf(const Query& query) {
  const auto id = query.find("upload_id");
  return id != query.end() && IsUploadId(id->second) ? id->second : std::string();
}

// Reads the number at the beginning of a text, as a text stream reads it; it is 0 when there is none or it does not fit
// into 32 bits.
std::int32_t ParsePartNumber(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\n\v\f\r");
  if (begin == std::string::npos) {
    return 0;
  }
  const char* first = text.data() + begin;
  const char* const last = text.data() + text.size();
  if (*first == '+' && last - first > 1 && first[1] != '-') {
    ++first;
  }
  std::int32_t number = 0;
  std::from_chars(first, last, number);
  return number;
}

// An object has at most as many bytes as 32 bits can count.
constexpr std::uint64_t kMostObjectBytes = std::numeric_limits<std::uint32_t>::max();

// Computes where a part of the object begins. Returns false when the part would end beyond the largest object.
bool PartOffset(std::uint32_t& offset, std::uint32_t number, std::uint32_t part_size, std::uint32_t size) {
  const std::uint64_t position = (std::uint64_t{number} - 1) * part_size;
  offset = static_cast<std::uint32_t>(position);
  return position + size <= kMostObjectBytes;
}

// Brings one part into the object. The steps return 0 or the error code to answer; failures are logged for `caller`.
class CPartUpload {
 public:
  CPartUpload(std::string bucket, std::string key, std::string_view body, const Caller& caller)
      : caller_(caller), body_(body) {
    row_.bucket_name = std::move(bucket);
    row_.object_name = std::move(key);
    row_.size = static_cast<std::uint32_t>(body.size());
  }

  int ReadQuery(const std::string& query_text);
  int Store(const StorageServerConfig& config);

 private:
  int CheckTask();
  int CheckState();
  int KeepOrWrite(const StorageServerConfig& config);
  int WriteThrough(const StorageServerConfig& config, std::uint32_t part_size);
  int FollowInFile();
  int SaveToFile();
  int Record();
  void Undo();
  bool TaskIsThere();
  int Illegal() const {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]task info illegal.[%s(%d)]");
    return kInvalidHttpContent;
  }

  CObjectStorageManager& manager_ = CObjectStorageManager::Instance();
  const Caller caller_;
  const std::string_view body_;
  ObjectTaskInfo row_;      // row of this part, as it will be recorded
  ObjectTaskInfo task_;     // row of the task
  PartSizeInfo first_;      // what was known about the part size before this part
  bool is_stored_ = false;  // only its row is missing
};

int CPartUpload::ReadQuery(const std::string& query_text) {
  Query query;
  ParseHttpUrlQuery(query, query_text);
  row_.task_id = UploadIdOf(query);
  const std::string& number_text = query["part_number"];
  if (row_.task_id.empty() || number_text.empty()) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]query invalid[%s].[%s(%d)]", query_text.c_str());
    return kInvalidHttpContent;
  }
  const std::int32_t number = ParsePartNumber(number_text);
  if (number < 1) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]query invalid[%s], part num invalid.[%s(%d)]", query_text.c_str());
    return kInvalidHttpContent;
  }
  row_.part_num = static_cast<std::uint32_t>(number);
  if (body_.empty()) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]recv data empty.[%s(%d)]");
    return kInvalidHttpContent;
  }
  return 0;
}

bool CPartUpload::TaskIsThere() {
  return manager_.GetTaskInfo(row_.task_id, kTaskPart, task_);
}

int CPartUpload::Store(const StorageServerConfig& config) {
  if (const int error = CheckTask(); error != 0) {
    return error;
  }
  std::shared_ptr<std::mutex> task_mutex;
  if (!manager_.GetPartFileMutex(row_.task_id, task_mutex)) {
    return Illegal();
  }
  // From here until the part is recorded, the mutex keeps away the task's other parts, its completion and the sweep.
  std::unique_lock<std::mutex> lock(*task_mutex, std::defer_lock);
  TansyBase::LockWhileBlocking(lock);
  if (const int error = CheckState(); error != 0) {
    return error;
  }
  try {
    const int error = KeepOrWrite(config);
    if (error != 0) {
      Undo();
    }
    return error;
  } catch (...) {
    Undo();
    throw;
  }
}

int CPartUpload::KeepOrWrite(const StorageServerConfig& config) {
  row_.url = task_.url;
  std::uint32_t part_size = 0;
  const bool keep = manager_.CheckPartSize(row_.task_id, row_.part_num, row_.size, part_size);
  if (const int error = keep ? SaveToFile() : WriteThrough(config, part_size); error != 0) {
    return error;
  }
  is_stored_ = true;
  return Record();
}

// Refuses a part of an unknown task, or of another object's task, before it leaves a part size or a file behind. A task
// that never existed is answered like a task whose part cannot be recorded.
int CPartUpload::CheckTask() {
  if (TaskIsThere()) {
    const bool own = task_.bucket_name == row_.bucket_name && task_.object_name == row_.object_name;
    return own ? 0 : Illegal();
  }
  PartSizeInfo first;
  if (manager_.GetFirstPartInfo(row_.task_id, first)) {
    return Illegal();
  }
  CLOUD_LOG_FOR(caller_, logging::kError, "[%s]save record failed.[%s(%d)]");
  return kServerInternalError;
}

// The task may have ended while this part waited. The part must then not touch the object that the task has become.
int CPartUpload::CheckState() {
  if (!TaskIsThere() || manager_.IsStoredAt(row_.object_name, row_.bucket_name, task_.url)) {
    return Illegal();
  }
  manager_.GetFirstPartInfo(row_.task_id, first_);
  return first_.is_lost ? Illegal() : 0;
}

int CPartUpload::SaveToFile() {
  PartSizeInfo first;
  first.first_part_num = row_.part_num;
  first.first_part_size = row_.size;
  first.first_part_path = FirstPartPath(row_.task_id, row_.part_num);
  const CFirstPartRoom room(body_.size());
  if (room.GetResult() != 0) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]save file failed[%d].[%s(%d)]", room.GetResult());
    return WriteError(room.GetResult());
  }
  if (!ReplaceFile(first.first_part_path, body_.data(), body_.size())) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]save file failed, file_name[%s].[%s(%d)]",
                  first.first_part_path.c_str());
    return kServerInternalError;
  }
  if (!manager_.SetFirstPartInfo(row_.task_id, first)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]add first part failed.[%s(%d)]");
    return kServerInternalError;
  }
  return 0;
}

int CPartUpload::WriteThrough(const StorageServerConfig& config, std::uint32_t part_size) {
  std::uint32_t offset = 0;
  if (!PartOffset(offset, row_.part_num, part_size, row_.size)) {
    return Illegal();
  }
  std::string location = LocationText(row_.bucket_name, task_.url);
  const int result = StreamSave(config.stream_save, body_, offset, location);
  if (result != kStorageOk) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]save file failed[%d].[%s(%d)]", result);
    return WriteError(result);
  }
  row_.url = std::move(location);
  return FollowInFile();
}

// When the first part is sent again after the part size became known, its file is replaced too, because the completion
// copies the file into the object and would bring the old bytes back. Another part has no file: a file that a crash or
// a failing disk left behind would be taken for the first part's after the next start, so it is gone for good before
// the part gets its row.
int CPartUpload::FollowInFile() {
  if (first_.first_part_num == row_.part_num) {
    return SaveToFile();
  }
  const std::string path = FirstPartPath(row_.task_id, row_.part_num);
  if (const int error = TansyBase::FileUtil::EnsureRemoved(path); error != 0) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]remove file failed, file_name[%s], error[%d].[%s(%d)]", path.c_str(),
                  error);
    return kServerInternalError;
  }
  return 0;
}

int CPartUpload::Record() {
  row_.update_time = NowText();
  if (!manager_.InsertObjectTask(row_)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]save record failed.[%s(%d)]");
    return kServerInternalError;
  }
  return 0;
}

// A refused part changes nothing of what is known of the part size, which its length must not decide: after a refused
// first part, the next part that arrives is the first one. The file of a part whose row was refused stays until the
// part is sent again or the task ends, because a commit that failed on a broken disk may be there after a crash, and
// the row needs the file then.
void CPartUpload::Undo() {
  const bool was_first = first_.first_part_num == 0;
  manager_.RestorePartSize(row_.task_id, std::move(first_));
  if (was_first && !is_stored_) {
    TansyBase::FileUtil::RemoveFile(FirstPartPath(row_.task_id, row_.part_num));
  }
}

// Turns a task into an object. The steps return 0 or the error code to answer; failures are logged for `caller`.
class CCompletion {
 public:
  CCompletion(std::string bucket, std::string key, const Caller& caller) : caller_(caller) {
    object_.bucket_name = std::move(bucket);
    object_.name = std::move(key);
  }

  int ReadQuery(const std::string& query_text);
  // Makes the object out of the parts that the request's body names.
  int Complete(std::string_view body, const StorageServerConfig& config);

 private:
  int CheckParts(std::string_view body);
  int CheckState();
  bool PartIsThere(std::int64_t number, std::int64_t size);
  std::unique_ptr<char[]> ReadFirstPart();
  int WriteFirstPart(const StorageServerConfig& config);

  CObjectStorageManager& manager_ = CObjectStorageManager::Instance();
  const Caller caller_;
  std::string upload_id_;
  ObjectTaskInfo task_;  // row of the task
  PartSizeInfo first_;
  ObjectInfo object_;
  std::unordered_set<std::int64_t> seen_;  // part numbers of the request
};

int CCompletion::ReadQuery(const std::string& query_text) {
  Query query;
  ParseHttpUrlQuery(query, query_text);
  upload_id_ = UploadIdOf(query);
  if (upload_id_.empty()) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]query invalid[%s].[%s(%d)]", query_text.c_str());
    return kInvalidHttpContent;
  }
  return 0;
}

// Every part that the client counts must be recorded with the size that the client names. The first wrong part ends the
// check, so a request that merely claims a huge number of parts costs nothing.
int CCompletion::CheckParts(std::string_view body) {
  if (body.empty()) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]recv data is null.[%s(%d)]");
    return kInvalidXmlContent;
  }
  CXmlProto xml;
  if (!xml.Parse(body)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]invalid xml[%s].[%s(%d)]", std::string(body).c_str());
    return kInvalidXmlContent;
  }
  const std::int64_t total = xml.GetInt("/CompleteMultipartUpload/TotalPartNum");
  if (total < 1) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]invalid total num[%s].[%s(%d)]",
                  xml.GetString("/CompleteMultipartUpload/TotalPartNum").c_str());
    return kInvalidXmlContent;
  }
  for (std::int64_t i = 1; i <= total; ++i) {
    const std::string part = "/CompleteMultipartUpload/Part[" + std::to_string(i) + "]";
    const std::int64_t number = xml.GetInt(part + "/PartNumber");
    const std::int64_t size = xml.GetInt(part + "/PartSize");
    const bool is_there = PartIsThere(number, size);
    object_.size += is_there ? static_cast<std::uint64_t>(size) : 0;
    if (!is_there || object_.size > kMostObjectBytes) {
      CLOUD_LOG_FOR(caller_, logging::kError, "[%s]invalid part: task_id[%s], num[%d], size[%d].[%s(%d)]",
                    upload_id_.c_str(), static_cast<int>(number), static_cast<int>(size));
      return kInvalidXmlContent;
    }
  }
  return 0;
}

bool CCompletion::PartIsThere(std::int64_t number, std::int64_t size) {
  ObjectTaskInfo row;
  row.bucket_name = object_.bucket_name;
  row.object_name = object_.name;
  row.task_id = upload_id_;
  row.part_num = static_cast<std::uint32_t>(number);
  row.size = static_cast<std::uint32_t>(size);
  const bool recorded = manager_.CheckTaskInfoExist(row) == 0;
  // A number that only equals a part's number when it is cut to 32 bits does not name that part, and a part counts
  // once.
  return recorded && number == row.part_num && size == row.size && seen_.insert(number).second;
}

int CCompletion::Complete(std::string_view body, const StorageServerConfig& config) {
  // Parts that are sent meanwhile wait, and then find that the task is gone; so does a second completion. The parts are
  // looked at under the mutex, because the parts that this completion waited for may have changed them, and the sweep
  // may have taken the task away.
  std::shared_ptr<std::mutex> task_mutex;
  std::unique_lock<std::mutex> lock;
  if (manager_.GetPartFileMutex(upload_id_, task_mutex)) {
    lock = std::unique_lock<std::mutex>(*task_mutex, std::defer_lock);
    TansyBase::LockWhileBlocking(lock);
  }
  if (const int error = CheckParts(body); error != 0) {
    return error;
  }
  if (const int error = CheckState(); error != 0) {
    return error;
  }
  if (const int error = WriteFirstPart(config); error != 0) {
    return error;
  }
  object_.update_time = NowText();
  if (!manager_.AddObject(object_, upload_id_)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]add object failed[%d].[%s(%d)]", kServerInternalError);
    return kServerInternalError;
  }
  // The file is removed only now: until the object is there, the first part may be needed for another try, or after a
  // restart.
  TansyBase::FileUtil::RemoveFile(first_.first_part_path);
  manager_.RemovePartSizeInfo(upload_id_);
  return 0;
}

int CCompletion::CheckState() {
  if (!manager_.GetTaskInfo(upload_id_, kTaskPart, task_) ||
      manager_.IsStoredAt(object_.name, object_.bucket_name, task_.url)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]task info illegal.[%s(%d)]");
    return kInvalidXmlContent;
  }
  if (!manager_.GetFirstPartInfo(upload_id_, first_) || first_.is_lost) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]GetFirstPartInfo failed, task id:%s.[%s(%d)]", upload_id_.c_str());
    return kServerInternalError;
  }
  return 0;
}

// Gives the bytes of the first part; null when the file does not match the part's row.
std::unique_ptr<char[]> CCompletion::ReadFirstPart() {
  ObjectTaskInfo row;
  std::uint64_t size = 0;
  const bool is_whole = manager_.GetTaskInfo(upload_id_, first_.first_part_num, row) &&
                        FirstPartSize(first_.first_part_path, size) && size == row.size &&
                        size == first_.first_part_size;
  return is_whole ? ReadFile(first_.first_part_path, first_.first_part_size) : nullptr;
}

int CCompletion::WriteFirstPart(const StorageServerConfig& config) {
  const std::unique_ptr<char[]> data = ReadFirstPart();
  if (!data) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]read first file failed[%s].[%s(%d)]", first_.first_part_path.c_str());
    return kServerInternalError;
  }
  std::uint32_t offset = 0;
  if (!PartOffset(offset, first_.first_part_num, first_.part_size, first_.first_part_size)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]invalid part: task_id[%s], num[%d], size[%d].[%s(%d)]",
                  upload_id_.c_str(), first_.first_part_num, first_.first_part_size);
    return kInvalidHttpContent;
  }
  object_.url = LocationText(object_.bucket_name, task_.url);
  const int result = StreamSave(config.stream_save, {data.get(), first_.first_part_size}, offset, object_.url);
  if (result != kStorageOk) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]save file failed[%d].[%s(%d)]", result);
    return WriteError(result);
  }
  return 0;
}

// Says whether another node holds the upload of a request: the parts that have arrived are known there only.
bool IsElsewhere(const ObjectRequest& request) {
  auto& manager = CObjectStorageManager::Instance();
  if (!manager.IsShared()) {
    return false;
  }
  Query query;
  ParseHttpUrlQuery(query, request.query);
  const std::string upload_id = UploadIdOf(query);
  const std::string node = manager.HasTask(upload_id) ? std::string() : manager.FindOtherNodeOf(upload_id);
  if (!node.empty()) {
    CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]task[%s] is held by node[%s].[%s(%d)]", upload_id.c_str(),
                  node.c_str());
  }
  return !node.empty();
}

bool BuildPartsRsp(std::string& text, const std::string& upload_id, const TaskPartSet& parts) {
  CXmlProto xml;
  xml.SetString("/ListPartsResult/Bucket", parts.begin()->bucket_name);
  xml.SetString("/ListPartsResult/Key", parts.begin()->object_name);
  xml.SetString("/ListPartsResult/UploadId", upload_id);
  xml.SetInt("/ListPartsResult/TotalNum", static_cast<std::int64_t>(parts.size()));
  int i = 0;
  for (const ObjectTaskInfo& row : parts) {
    const std::string part = "/ListPartsResult/Part[" + std::to_string(++i) + "]";
    xml.SetInt(part + "/PartNumber", row.part_num);
    xml.SetInt(part + "/PartSize", row.size);
    // Fixed: docs/compatibility.md, "Values that say less than their names".
    xml.SetString(part + "/ETag", TansyBase::GuidUtil::CreateGuid());
  }
  return xml.Serialize(text);
}

}  // namespace
}  // namespace details

int CObjectServer::HandleMultiUploadTaskCreate(std::int32_t session_id, const ObjectRequest& request) {
  // The probe makes the storage choose the object's location; the part at offset 0 later writes over it.
  std::string location = details::LocationText(request.bucket);
  const int result = details::StreamSave(request.config.stream_save, details::kProbe, 0, location);
  if (result != details::kStorageOk) {
    CLOUD_LOG(logging::kError, "[%s]save file failed[%d].[%s(%d)]", result);
    return AnswerError(session_id, details::WriteError(result));
  }
  ObjectTaskInfo task;
  task.task_id = TansyBase::GuidUtil::CreateGuid();
  task.bucket_name = request.bucket;
  task.object_name = request.key;
  task.part_num = details::kTaskPart;
  task.update_time = details::NowText();
  task.url = location;
  if (!CObjectStorageManager::Instance().AddObjectTask(task)) {
    CLOUD_LOG(logging::kError, "[%s]create task failed.[%s(%d)]");
    return AnswerError(session_id, kServerInternalError);
  }
  details::CXmlProto xml;
  xml.SetString("/InitiateMultipartUploadResult/Bucket", request.bucket);
  xml.SetString("/InitiateMultipartUploadResult/Key", request.key);
  xml.SetString("/InitiateMultipartUploadResult/UploadId", task.task_id);
  std::string body;
  return xml.Serialize(body) ? AnswerXml(session_id, body) : AnswerError(session_id, kServerInternalError);
}

int CObjectServer::HandleUploadPartObject(std::int32_t session_id, const ObjectRequest& request) {
  details::CPartUpload part(request.bucket, request.key, request.Body(), request.caller);
  if (const int error = part.ReadQuery(request.query); error != 0) {
    return AnswerError(session_id, error);
  }
  if (details::IsElsewhere(request)) {
    return AnswerError(session_id, kUploadElsewhere);
  }
  const int error = part.Store(request.config);
  return error == 0 ? AnswerXml(session_id, {}) : AnswerError(session_id, error);
}

int CObjectServer::HandleGetAllObjectTask(std::int32_t session_id, const ObjectRequest& request) {
  details::Query query;
  ParseHttpUrlQuery(query, request.query);
  const std::string upload_id = details::UploadIdOf(query);
  if (upload_id.empty()) {
    CLOUD_LOG(logging::kError, "[%s]query invalid[%s].[%s(%d)]", request.msg.query.c_str());
    return AnswerError(session_id, kInvalidHttpContent);
  }
  if (details::IsElsewhere(request)) {
    return AnswerError(session_id, kUploadElsewhere);
  }
  TaskPartSet parts;
  if (!CObjectStorageManager::Instance().GetAllTask(upload_id, parts)) {
    CLOUD_LOG(logging::kError, "[%s]invalid task id[%s].[%s(%d)]", upload_id.c_str());
    return AnswerError(session_id, kInvalidHttpContent);
  }
  std::string body;
  if (!details::BuildPartsRsp(body, upload_id, parts)) {
    return AnswerError(session_id, kServerInternalError);
  }
  return AnswerXml(session_id, body);
}

int CObjectServer::HandleFinishMutiUploadTask(std::int32_t session_id, const ObjectRequest& request) {
  details::CCompletion completion(request.bucket, request.key, request.caller);
  if (const int error = completion.ReadQuery(request.query); error != 0) {
    return AnswerError(session_id, error);
  }
  if (details::IsElsewhere(request)) {
    return AnswerError(session_id, kUploadElsewhere);
  }
  if (const int error = completion.Complete(request.Body(), request.config); error != 0) {
    return AnswerError(session_id, error);
  }
  return AnswerXml(session_id, {});
}

}  // namespace Tansy::CloudStorage
