#include "StorageServer/ObjectServer/ObjectServerTasks.h"

#include <exception>
#include <utility>

#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ServerMsgLoop.h"

namespace Tansy::CloudStorage {

namespace details {

void EndRequest(std::int32_t handle) noexcept {
  try {
    CBigFileStreamMgr::Instance().RemoveStream(static_cast<std::uint32_t>(handle));
    CObjectServer::Instance().AnswerError(handle, kServerInternalError);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]answer failed[%s], handle = %d[%s(%d)]", error.what(), handle);
  }
}

}  // namespace details

CObjectMsgTask::CObjectMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg)
    : msg_(std::move(msg)), server_handle_(server_handle) {}

CObjectMsgTask::~CObjectMsgTask() {
  if (!executed_) {
    details::EndRequest(server_handle_);
  }
}

void CObjectMsgTask::Exec() {
  executed_ = true;
  try {
    CObjectServer::Instance().HandleObjectMsg(server_handle_, msg_);
  } catch (const std::exception& error) {
    // Most likely memory ran out. The client gets an error answer instead of waiting for its time-out.
    CLOUD_LOG(logging::kError, "[%s]handle object msg failed[%s], url[%s].[%s(%d)]", error.what(), msg_.url.c_str());
    details::EndRequest(server_handle_);
  }
}

CObjectStreamTask::CObjectStreamTask(std::int32_t server_handle, const TansyNet::HttpServerRecv& msg)
    : server_handle_(server_handle), url_(msg.url), token_(msg.token) {
  if (msg.body_size > 0) {
    data_ = msg.body;
    size_ = msg.body_size;
  }
}

CObjectStreamTask::~CObjectStreamTask() {
  if (!executed_) {
    EndUpload();
  }
}

// The last piece carries the request itself; when that is dropped, the client gets its answer.
void CObjectStreamTask::EndUpload() {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto session_id = static_cast<std::uint32_t>(server_handle_);
  try {
    streams.EndStream(session_id, details::StreamEnd::kAnswered);
  } catch (const std::exception&) {
    streams.RemoveStream(session_id);  // needs no memory
  }
  if (!request_) {
    details::EndRequest(server_handle_);
  }
}

void CObjectStreamTask::Exec() {
  executed_ = true;
  CLOUD_LOG(logging::kTrace, "[%s]handle object stream task[%s], size[%d].[%s(%d)]", url_.c_str(), size_);
  try {
    Store(CLOUD_LOG_CALLER);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]CObjectStreamTask failed[%s], url[%s].[%s(%d)]", error.what(), url_.c_str());
    EndUpload();
  }
  if (request_) {
    CServerMsgLoop::Instance().PostTask(request_.release());
  }
}

void CObjectStreamTask::Store(const details::Caller& caller) {
  if (size_ == 0) {
    return;
  }
  std::string bucket;
  std::string key;
  if (!CObjectServer::ParseUrl(bucket, key, url_)) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]CObjectStreamTask invalid url[%s].[%s(%d)]", url_.c_str());
    return;
  }
  const auto session_id = static_cast<std::uint32_t>(server_handle_);
  auto& streams = details::CBigFileStreamMgr::Instance();
  if (!CObjectStorageManager::Instance().IsBucketExist(bucket)) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]CObjectStreamTask bucket name not exist[%s].[%s(%d)]", bucket.c_str());
    // A bucket of that name may come back before the last piece. The pieces after the gap must then not be stored in
    // the place of the missing piece, and no handler may wait for bytes that were dropped.
    streams.EndStream(session_id, details::StreamEnd::kFailed);
    return;
  }
  if (!streams.UploadStream(session_id, data_->data(), size_, bucket)) {
    streams.EndStream(session_id, details::StreamEnd::kFailed);
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]UploadStream failed[%d], bucket_name[%s], url[%s], size[%d].[%s(%d)]",
                  session_id, bucket.c_str(), url_.c_str(), size_);
  }
}

}  // namespace Tansy::CloudStorage
