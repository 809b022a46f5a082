#include <memory>
#include <string>
#include <string_view>

#include "ModuleLog.h"
#include "StorageClient/ClientState.h"
#include "StorageClient/ObjectImpl.h"
#include "StorageClient/PieceUpload.h"
#include "TansyCloudStorage/ObjectClient.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Returns false, and sets the last error, when there are no bytes to take.
bool CheckData(ObjectImpl& conf, const char* data, unsigned int size) {
  if (data != nullptr || size == 0) {
    return true;
  }
  CLOUD_LOG(logging::kError, "[%s]upload piece failed, no data.[%s(%d)]");
  conf.last_error.Set(ClientError::kBadArgument, "no data.");
  return false;
}

// Sends one piece; an empty `url` marks the first piece of an object.
bool SendByUrl(const Caller& caller, const std::shared_ptr<ObjectImpl>& conf, std::string& url, const char* data,
               unsigned int size, bool last) {
  CPieceUpload piece(caller);
  if (!piece.Init(conf) || !CheckData(*conf, data, size)) {
    return false;
  }
  const bool first = url.empty();
  if (first) {
    piece.SetNewKey();
  } else if (!piece.SetKeyOfUrl(url)) {
    return false;
  }
  return piece.Send(url, {data, size}, first, last);
}

}  // namespace
}  // namespace details

bool CObjectClient::UploadFileByPieces(std::string& url, const char* data, unsigned int size, bool last) {
  const details::Caller caller = CLOUD_LOG_CALLER;
  if (url.empty() && last) {
    return UploadFile(url, data, size);
  }
  return RunGuarded(ptr_conf_, [&] { return details::SendByUrl(caller, ptr_conf_, url, data, size, last); });
}

bool CObjectClient::UploadFileByPiecesAloneStorage(std::string& url, const char* data, unsigned int size, bool last) {
  const details::Caller caller = CLOUD_LOG_CALLER;
  return RunGuarded(ptr_conf_, [&] { return details::SendByUrl(caller, ptr_conf_, url, data, size, last); });
}

bool CObjectClient::UploadFileByPiecesAndFileName(std::string& url, const char* data, unsigned int size, bool last,
                                                  bool first) {
  const details::Caller caller = CLOUD_LOG_CALLER;
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]upload file failed, ptr_conf_ is null.[%s(%d)]");
      return false;
    }
    if (url.empty()) {
      CLOUD_LOG(logging::kError, "[%s]out_url is empty![%s(%d)]");
      ptr_conf_->last_error.Set(ClientError::kBadArgument, "out_url is empty.");
      return false;
    }
    if (!details::CheckData(*ptr_conf_, data, size)) {
      return false;
    }
    CPieceUpload piece(caller);
    piece.Init(ptr_conf_);
    piece.TraceRecordedKey();
    if (first) {
      piece.SetKey(url);
    } else if (!piece.SetKeyOfUrl(url)) {
      return false;
    }
    CLOUD_LOG(logging::kTrace, "[%s][%s].[%s(%d)]", piece.Key().c_str());
    if (!first || !last) {
      return piece.Send(url, {data, size}, first, last);
    }
    if (size > kMaxBufferUploadBytes) {
      CLOUD_LOG(logging::kError, "[%s]upload file failed, size[%d] exceed.[%s(%d)]", size);
      ptr_conf_->last_error.Set(ClientError::kBadArgument, "file size exceed 32M.");
      return false;
    }
    return piece.SendWhole(url, {data, size});
  });
}

}  // namespace Tansy::CloudStorage
