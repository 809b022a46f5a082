// Stores and reads pictures through the host's callbacks.
#include <string_view>

#include "ModuleLog.h"
#include "OSAL/Osal.h"
#include "StorageServer/HostBuffer.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/PicServer/PictureServerErrors.h"
#include "StorageServer/ServerComm.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr int kPictureFlag = 0;  // tells the callbacks that it is a picture and no object
// Fixed: docs/compatibility.md, "Values that say less than their names".
constexpr const char* kPictureContentType = "image/jpeg";
// No length has this many digits. The limit avoids copying a field of megabytes only to find out that it is no number.
constexpr std::size_t kMaxLengthDigits = 64;

// The fields of an upload's form; the views live as long as the request.
struct PictureForm {
  std::int32_t length = 0;
  std::string_view picture;
};

PictureForm ReadForm(const TansyNet::HttpServerRecv& request) {
  PictureForm form;
  for (const TansyNet::FormPart& part : request.FormParts()) {
    if (part.name == "PictureLength") {
      form.length = OSAL_StrToi32(std::string(part.data.substr(0, kMaxLengthDigits)).c_str());
    } else if (part.name == "Picture") {
      form.picture = part.data;
    }
  }
  return form;
}

bool IsWhole(const PictureForm& form) {
  return form.length > 0 && form.picture.size() == static_cast<std::size_t>(form.length);
}

// Removes a stored picture again when its address could not be sent, because nobody would ever ask for it.
class CUnlessAnswered : private TansyBase::CNoncopyable {
 public:
  CUnlessAnswered(const StorageServerConfig& config, const std::string& url) : config_(config), url_(url) {}
  ~CUnlessAnswered() {
    if (answered_ || config_.remove_object == nullptr) {
      return;
    }
    const int result = config_.remove_object(url_);
    CLOUD_LOG(logging::kError, "[%s]picture without answer removed[%s], result[%d].[%s(%d)]", url_.c_str(), result);
  }

  void SetAnswered() { answered_ = true; }

 private:
  const StorageServerConfig& config_;
  const std::string& url_;
  bool answered_ = false;
};

}  // namespace
}  // namespace details

int CPictureServer::HandleUploadPicture(std::int32_t handle, const HttpServerRecv& request) {
  const auto config = conf_.Load();
  if (const int error = CheckAuth(request, *config); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleUploadPicture, check auth failed[%s(%d)]");
    return AnswerError(handle, error);
  }
  const details::PictureForm form = details::ReadForm(request);
  if (!details::IsWhole(form)) {
    CLOUD_LOG(logging::kError,
              "[%s]HandleUploadPicture, parse picture failed, picture empty. pic_length=%d, pic.size=%d[%s(%d)]",
              form.length, static_cast<int>(form.picture.size()));
    return AnswerError(handle, kPicHttpProtocol);
  }
  if (config->save_object == nullptr) {
    CLOUD_LOG(logging::kError, "[%s]HandleUploadPicture, upload func null.[%s(%d)]");
    return AnswerError(handle, kPicServerInternal);
  }
  std::string url;
  const auto size = static_cast<std::uint32_t>(form.picture.size());
  if (const int result = config->save_object(url, form.picture.data(), size, details::kPictureFlag); result != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleUploadPicture, upload failed[%d].[%s(%d)]", result);
    return AnswerError(handle, kPicStorageResource);
  }
  details::CUnlessAnswered stored(*config, url);
  TansyProto::CRapidJsonProto json;
  json.SetString("/PictureUrl", url);
  const int sent = AnswerJson(handle, json.Serialize());
  if (sent == 0) {
    stored.SetAnswered();
  }
  return sent;
}

int CPictureServer::HandleDownloadPicture(std::int32_t handle, const HttpServerRecv& request) {
  const auto config = conf_.Load();
  if (CheckAuth(request, *config) != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleDownloadPicture, check auth failed[%s(%d)]");
    if (const int error = CheckUrlAuth(request, *config); error != 0) {
      CLOUD_LOG(logging::kError, "[%s]HandleDownloadPicture, check url auth failed[%s(%d)]");
      return AnswerError(handle, error);
    }
  }
  if (config->read_object == nullptr) {
    CLOUD_LOG(logging::kError, "[%s]HandleDownloadPicture, download func null.[%s(%d)]");
    return AnswerError(handle, kPicServerInternal);
  }
  char* data = nullptr;
  std::uint32_t size = 0;
  const int result = config->read_object(data, size, request.url + "?" + request.query, details::kPictureFlag);
  details::HostBuffer buffer;
  buffer.Take(result, data, size);
  if (result != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleDownloadPicture, download failed[%d].[%s(%d)]", result);
    return AnswerError(handle, kPicStorageResource);
  }
  HttpResponse response;
  SetRspHeaders(response, details::kPictureContentType);
  // Without a buffer there are no bytes, whatever the size says, so the body is empty.
  return SendPicMsgRsp(handle, response,
                       buffer.data ? std::string_view(buffer.data.get(), buffer.size) : std::string_view(""));
}

}  // namespace Tansy::CloudStorage
