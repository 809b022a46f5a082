#include "StorageServer/PicServer/PictureMsgTask.h"

#include <exception>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/PicServer/PictureServerErrors.h"

namespace Tansy::CloudStorage {

CPictureMsgTask::CPictureMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg)
    : msg_(std::move(msg)), server_handle_(server_handle) {}

CPictureMsgTask::~CPictureMsgTask() {
  if (executed_) {
    return;
  }
  try {
    CPictureServer::Instance().AnswerError(server_handle_, kPicServerInternal);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]answer failed[%s], handle = %d[%s(%d)]", error.what(), server_handle_);
  }
}

void CPictureMsgTask::Exec() {
  executed_ = true;
  CPictureServer& server = CPictureServer::Instance();
  try {
    server.HandlePicMsg(server_handle_, msg_);
  } catch (const std::exception& error) {
    // Most likely memory ran out. The client gets an error answer instead of waiting for its time-out.
    CLOUD_LOG(logging::kError, "[%s]handle picture msg failed[%s], url[%s].[%s(%d)]", error.what(), msg_.url.c_str());
    server.AnswerError(server_handle_, kPicServerInternal);
  }
}

}  // namespace Tansy::CloudStorage
