#include "StorageServer/S3Server/S3ServerTasks.h"

#include <exception>

#include "ModuleLog.h"
#include "StorageServer/S3Server/S3Server.h"

namespace Tansy::CloudStorage::S3 {

CMsgTask::~CMsgTask() {
  if (!executed_) {
    CS3Server::Instance().EndRequest(handle_, EError::kSlowDown);
  }
}

void CMsgTask::Exec() {
  executed_ = true;
  try {
    CS3Server::Instance().Handle(handle_, msg_);
  } catch (const std::exception& error) {
    // Most likely memory ran out. The client gets an error answer instead of waiting for its time-out.
    CLOUD_LOG(logging::kError, "[%s]handle msg failed[%s], url[%s].[%s(%d)]", error.what(), msg_.url.c_str());
    CS3Server::Instance().EndRequest(handle_, CS3Server::ErrorOf(error));
  }
}

CPieceTask::~CPieceTask() {
  if (!executed_) {
    CS3Server::Instance().EndRequest(handle_, EError::kSlowDown);
  }
}

void CPieceTask::Exec() {
  executed_ = true;
  try {
    CS3Server::Instance().StorePiece(handle_, msg_);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]store piece failed[%s], url[%s].[%s(%d)]", error.what(), msg_.url.c_str());
    CS3Server::Instance().EndRequest(handle_, CS3Server::ErrorOf(error));
  }
}

}  // namespace Tansy::CloudStorage::S3
