#include "StorageServer/ObjectServer/PartUploads.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <memory>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"
#include "db_layer/DbLayer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int64_t kExpirySeconds = 259200;  // three days
constexpr std::size_t kIdLength = 32;

std::string Quoted(std::string_view text) {
  return "'" + TansyBase::StringUtil::StringPreventSQLInjection(text) + "'";
}

std::string Owner(const std::string& id) {
  return Quoted(PieceOwner(id));
}

// Ids come from clients, and one that the server cannot have made needs no look-up.
bool IsId(const std::string& id) {
  return id.size() == kIdLength &&
         std::all_of(id.begin(), id.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

bool Query(const std::string& sql, const std::vector<std::string>& columns, const db_layer::RowVisitor& look) {
  const std::shared_ptr<db_layer::CConnect> connection = CBaseDBLayerConn::Instance().ApplyConn();
  if (!connection) {
    return false;
  }
  if (!connection->ShowRows(sql, columns, look)) {
    std::string error;
    const int code = connection->GetLastError(error);
    CLOUD_LOG(logging::kError, "[%s]query failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]", code, error.c_str(),
              sql.c_str());
    return false;
  }
  return true;
}

// The columns of an upload, in the order in which ReadUpload counts them.
constexpr const char* kUploadColumns = "object_url, object_name, sort_key, attributes, begun";
const std::vector<std::string>& UploadColumns() {
  static const auto& columns =
      *new std::vector<std::string>{"object_url", "object_name", "sort_key", "attributes", "begun"};
  return columns;
}

PartUpload ReadUpload(const db_layer::IRow& row, const std::string& bucket_name) {
  PartUpload upload;
  upload.id = row.GetText(0).substr(PieceOwner({}).size());
  upload.bucket_name = bucket_name;
  upload.object_name = row.GetText(1);
  upload.sort_key = row.GetText(2);
  upload.attributes = row.GetText(3);
  upload.begun = row.GetText(4);
  return upload;
}

std::string QuotedRowName(const std::string& bucket_name) {
  return Quoted(CObjectStorageManager::Instance().RowName(bucket_name));
}

}  // namespace
}  // namespace details

bool CPartUploads::Begin(const PartUpload& upload) {
  using details::Quoted;
  return CBaseDBLayerConn::Instance().Execute(
      "INSERT INTO platform.local_upload (object_url, object_name, bucket_name, sort_key, attributes, begun, "
      "update_time) VALUES (" +
      details::Owner(upload.id) + ", " + Quoted(upload.object_name) + ", " +
      details::QuotedRowName(upload.bucket_name) + ", " + Quoted(upload.sort_key) + ", " + Quoted(upload.attributes) +
      ", " + Quoted(upload.begun) + ", " + Quoted(upload.begun) + ")");
}

CPartUploads::EFound CPartUploads::Find(PartUpload& upload, const std::string& id, const std::string& bucket_name,
                                        const std::string& object_name) {
  if (!details::IsId(id)) {
    return EFound::kMissing;
  }
  EFound found = EFound::kMissing;
  const auto take = [&](const db_layer::IRow& row) {
    upload = details::ReadUpload(row, bucket_name);
    found = EFound::kFound;
  };
  const std::string sql = std::string("SELECT ") + details::kUploadColumns +
                          " FROM platform.local_upload WHERE object_url = " + details::Owner(id) +
                          " AND bucket_name = " + details::QuotedRowName(bucket_name) +
                          " AND object_name = " + details::Quoted(object_name);
  return details::Query(sql, details::UploadColumns(), take) ? found : EFound::kFailed;
}

bool CPartUploads::List(std::vector<PartUpload>& uploads, const std::string& bucket_name, const std::string& after_key,
                        const std::string& after_id, std::size_t limit) {
  const auto take = [&](const db_layer::IRow& row) { uploads.push_back(details::ReadUpload(row, bucket_name)); };
  const std::string sql = std::string("SELECT ") + details::kUploadColumns +
                          " FROM platform.local_upload WHERE bucket_name = " + details::QuotedRowName(bucket_name) +
                          " AND (sort_key, object_url) > (" + details::Quoted(after_key) + ", " +
                          details::Owner(after_id) + ") ORDER BY sort_key, object_url LIMIT " + std::to_string(limit);
  return details::Query(sql, details::UploadColumns(), take);
}

// The first statement waits for a completion that is under way, and says that the upload is not forgotten.
bool CPartUploads::PutPart(const std::string& id, const UploadedPart& part) {
  using details::Quoted;
  const std::string owner = details::Owner(id);
  return CBaseDBLayerConn::Instance().Execute(
      {"UPDATE platform.local_upload SET update_time = " + Quoted(part.update_time) + " WHERE object_url = " + owner,
       "INSERT INTO platform.local_upload_part (object_url, part_num, size, url, attributes, update_time) VALUES (" +
           owner + ", " + std::to_string(part.number) + ", " + std::to_string(part.size) + ", " + Quoted(part.url) +
           ", " + Quoted(part.attributes) + ", " + Quoted(part.update_time) +
           ") ON CONFLICT (object_url, part_num) DO UPDATE SET size = excluded.size, url = excluded.url, "
           "attributes = excluded.attributes, update_time = excluded.update_time"});
}

bool CPartUploads::GetParts(std::vector<UploadedPart>& parts, const std::string& id, std::uint32_t after,
                            std::size_t limit) {
  const auto take = [&parts](const db_layer::IRow& row) {
    UploadedPart part;
    part.number = static_cast<std::uint32_t>(row.GetInt(0));
    part.size = static_cast<std::uint32_t>(row.GetInt(1));
    part.url = row.GetText(2);
    part.attributes = row.GetText(3);
    part.update_time = row.GetText(4);
    parts.push_back(std::move(part));
  };
  const std::string sql =
      "SELECT part_num, size, url, attributes, update_time FROM platform.local_upload_part WHERE object_url = " +
      details::Owner(id) + " AND part_num > " + std::to_string(after) + " ORDER BY part_num LIMIT " +
      std::to_string(limit);
  return details::Query(sql, {"part_num", "size", "url", "attributes", "update_time"}, take);
}

bool CPartUploads::End(const std::string& id) {
  return CBaseDBLayerConn::Instance().Execute("DELETE FROM platform.local_upload WHERE object_url = " +
                                              details::Owner(id));
}

CPartUploadSweep& CPartUploadSweep::Instance() {
  return CSingleton<CPartUploadSweep>::Instance();
}

void CPartUploadSweep::SetWhenStarted(std::function<void()> when_started) {
  const std::lock_guard<std::mutex> lock(mutex_);
  when_started_ = std::move(when_started);
}

void CPartUploadSweep::Start() {
  std::function<void()> when_started;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (is_started_) {
      return;
    }
    is_started_ = Look(true);
    when_started = when_started_;
  }
  if (when_started) {
    when_started();
  }
}

bool CPartUploadSweep::Run() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!is_started_ || !Look(false)) {
    return false;
  }
  if (!CObjectStorageManager::Instance().IsFirst()) {
    return true;
  }
  const std::int64_t uptime = TansyBase::TimeUtil::Uptime();
  for (const auto& [url, upload] : seen_) {
    if (uptime - upload.birth > details::kExpirySeconds) {
      // A part that comes at this moment keeps the upload.
      const bool is_removed = CBaseDBLayerConn::Instance().Execute(
          "DELETE FROM platform.local_upload WHERE object_url = " + details::Quoted(url) +
          " AND update_time = " + details::Quoted(upload.update_time));
      swept_uploads_ += is_removed ? 1 : 0;
    }
  }
  return true;
}

bool CPartUploadSweep::Look(bool at_start) {
  const std::int64_t uptime = TansyBase::TimeUtil::Uptime();
  std::time_t now = 0;
  if (!CObjectStorageManager::Instance().GetTimeOfRows(now)) {
    return false;
  }
  SeenUploads seen;
  const auto take = [&](const db_layer::IRow& row) {
    const std::string url(row.GetText(0));
    const std::string update_time(row.GetText(1));
    const auto before = seen_.find(url);
    if (before != seen_.end() && before->second.update_time == update_time) {
      seen.insert(*before);
      return;
    }
    // An unreadable time says nothing about the age, and no upload may be lost because of it.
    const std::time_t time = at_start ? TansyBase::TimeUtil::StrUTCDatetime2TimeT(update_time) : now;
    const std::int64_t age = time < 0 ? 0 : std::max<std::int64_t>(now - time, 0);
    seen.emplace(url, Seen{update_time, uptime - age});
  };
  if (!details::Query("SELECT object_url, update_time FROM platform.local_upload", {"object_url", "update_time"},
                      take)) {
    return false;
  }
  seen_ = std::move(seen);
  return true;
}

}  // namespace Tansy::CloudStorage
