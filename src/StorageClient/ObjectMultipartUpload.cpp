#include "StorageClient/ObjectMultipartUpload.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "ModuleLog.h"
#include "StorageClient/HostProgress.h"
#include "StorageClient/LocalFileErrors.h"
#include "StorageClient/ObjectProtoClient.h"
#include "StorageClient/PartUploadTask.h"
#include "TansyBase/StringUtil.h"

using TansyBase::StringUtil;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::uint32_t kPartBytes = 2097152;
constexpr int kThreads = 4;
constexpr int kIdleSeconds = 5;
constexpr std::size_t kMaxPendingTasks = 6;
constexpr std::chrono::milliseconds kThrottleRound{50};
constexpr std::chrono::milliseconds kFinishRound{500};
constexpr std::int32_t kMaxPercentOnTheWay = 99;  // 100 is for the end of the whole upload

// Leaves nothing of an upload in the registry, however it ends: a process may go on for a long time after it.
class CPartsForgetter {
 public:
  explicit CPartsForgetter(const std::string& upload_id) : upload_id_(upload_id) {}
  ~CPartsForgetter() { CPartUploadRegistry::Instance().ForgetParts(upload_id_); }
  CPartsForgetter(const CPartsForgetter&) = delete;
  CPartsForgetter& operator=(const CPartsForgetter&) = delete;

 private:
  const std::string& upload_id_;
};

}  // namespace
}  // namespace details

CObjectMultipartUpload::CObjectMultipartUpload(const std::shared_ptr<ObjectImpl>& conf,
                                               const std::shared_ptr<CObjectProtoClient>& client,
                                               const std::string& path, const std::string& local_path,
                                               const std::string& key, const std::string& node)
    : conf_(conf), client_(client), path_(path), local_path_(local_path), key_(key), node_(node) {}

bool CObjectMultipartUpload::Run(TansyBase::CLocalFile& file, std::uint32_t size) {
  if (!client_->CreatePartTask(upload_id_, key_)) {
    CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, create part task failed.[%s(%d)]", local_path_.c_str());
    return false;
  }
  if (!pool_.Start(details::kThreads, details::kThreads, details::kIdleSeconds)) {
    CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, object key[%s] failed.[%s(%d)]", local_path_.c_str(),
              key_.c_str());
    conf_->last_error.Set(ClientError::kOutOfResources, "no threads to send parts with.");
    return false;
  }
  const details::CPartsForgetter forgetter(upload_id_);
  const bool sent = SendParts(file, size);
  const bool finished = sent && client_->FinishPartTask(upload_id_, key_, parts_);
  if (sent && !finished) {
    CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, object key[%s], upload part[%d] failed.[%s(%d)]",
              local_path_.c_str(), key_.c_str(), static_cast<int>(parts_.size()) + 1);
  }
  pool_.Stop(false);
  return finished;
}

bool CObjectMultipartUpload::SendParts(TansyBase::CLocalFile& file, std::uint32_t size) {
  PartRecord record;
  record.upload_id = upload_id_;
  record.total_parts = static_cast<std::int32_t>(size / details::kPartBytes + (size % details::kPartBytes != 0));
  for (std::uint32_t offset = 0; offset < size; offset += record.size) {
    record.size = std::min(details::kPartBytes, size - offset);
    ++record.part_number;
    // The file is read straight into the buffer that the part is sent from.
    auto buffer = std::make_unique_for_overwrite<char[]>(record.size + 1);
    buffer[record.size] = '\0';
    if (!ReadPart(file, buffer.get(), record.size)) {
      return false;
    }
    record.data = buffer.get();
    CPartUploadRegistry::Instance().AddPart(upload_id_, record);
    auto task = std::make_unique<CPartUploadTask>(record, std::move(buffer), client_, key_, node_);
    const bool none_failed = WaitForRoom();
    pool_.PostTask(task.release());
    if (!none_failed) {
      CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, object key[%s] failed.[%s(%d)]", local_path_.c_str(),
                key_.c_str());
      return false;
    }
    parts_.push_back({record.part_number, record.size, {}});
  }
  if (!WaitForAllParts()) {
    CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, object key[%s] failed.[%s(%d)]", local_path_.c_str(),
              key_.c_str());
    return false;
  }
  return true;
}

bool CObjectMultipartUpload::ReadPart(TansyBase::CLocalFile& file, char* buffer, std::uint32_t size) {
  const std::uint32_t error = ReadExactly(file, buffer, size);
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]read_elements != 1, error[%d][%s(%d)]", error);
    conf_->last_error.Set(FailureOfFile("fread", path_, error));
    return false;
  }
  return true;
}

bool CObjectMultipartUpload::WaitForRoom() {
  CPartUploadRegistry& registry = CPartUploadRegistry::Instance();
  std::int32_t failed_status = kPartUploaded;
  while (pool_.GetWorkTaskCount() >= details::kMaxPendingTasks) {
    seen_finished_ = registry.WaitForFinishedPart(upload_id_, seen_finished_, details::kThrottleRound);
    std::int32_t percent = 0;
    // The part that waits for room here is not done, so the upload can only be over because another part has failed.
    if (registry.QueryParts(upload_id_, failed_status, percent)) {
      break;
    }
    ReportPercent(percent);
  }
  return failed_status == kPartUploaded;
}

bool CObjectMultipartUpload::WaitForAllParts() {
  CPartUploadRegistry& registry = CPartUploadRegistry::Instance();
  std::int32_t failed_status = kPartUploaded;
  std::int32_t percent = 0;
  for (;;) {
    // This is read before the parts are looked at: when it is true, all of them are done.
    const bool all_sent = pool_.GetWorkTaskCount() == 0;
    if (registry.QueryParts(upload_id_, failed_status, percent)) {
      return failed_status == kPartUploaded;
    }
    // A server that gives one upload id to two uploads at once mixes up their parts. Without this check, nothing would
    // ever end the wait.
    if (all_sent) {
      conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                            StringUtil::str_fmt("upload id[%s] is in use twice.", upload_id_.c_str()));
      return false;
    }
    ReportPercent(percent);
    seen_finished_ = registry.WaitForFinishedPart(upload_id_, seen_finished_, details::kFinishRound);
  }
}

void CObjectMultipartUpload::ReportPercent(std::int32_t percent) {
  percent = std::min(percent, details::kMaxPercentOnTheWay);
  if (percent > reported_percent_) {
    reported_percent_ = percent;
    ReportProgress(conf_->config, percent);
  }
}

}  // namespace Tansy::CloudStorage
