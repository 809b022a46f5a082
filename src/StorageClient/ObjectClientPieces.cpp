#include <list>
#include <memory>
#include <string>

#include "ModuleLog.h"
#include "StorageClient/ClientState.h"
#include "StorageClient/ObjectImpl.h"
#include "StorageClient/ObjectProtoClient.h"
#include "StorageClient/PartUploadRegistry.h"
#include "TansyBase/GuidUtil.h"
#include "TansyCloudStorage/ObjectClient.h"

// A diagnostic of CPieceUpload under the name of the exported function that it works for.
#define PIECE_LOG(level, format, ...)                                                                         \
  do {                                                                                                        \
    if (logging::IsEnabled(level)) {                                                                          \
      static logging::CallSite call_site;                                                                     \
      logging::Write(call_site, level, "platform.LocalStorage", format, function_ __VA_OPT__(, ) __VA_ARGS__, \
                     __FILE__, __LINE__);                                                                     \
    }                                                                                                         \
  } while (false)

namespace Tansy::CloudStorage {

namespace details {
namespace {

// One piece of one object. The exported functions differ in how a first piece is told, in the key and in what becomes
// of an object of one piece; what is the same is here, and logs under their names.
class CPieceUpload {
 public:
  explicit CPieceUpload(const char* function) : function_(function) {}

  bool Init(const std::shared_ptr<ObjectImpl>& conf) { return client_.Init(conf); }
  // For keys that callers choose: a trace line names the key once the piece is recorded.
  void TraceRecordedKey() { trace_recorded_key_ = true; }

  void SetNewKey() { task_.key = TansyBase::GuidUtil::CreateGuid() + ".pfile"; }
  void SetKey(const std::string& key) { task_.key = key; }
  // The text after the last "/" of the URL that came with the first piece.
  bool SetKeyOfUrl(const std::string& url);
  const std::string& Key() const { return task_.key; }

  bool Send(const char* data, unsigned int size, bool first, bool last);
  // The object in one request instead.
  bool SendWhole(const std::shared_ptr<ObjectImpl>& conf, std::string& url, const char* data, unsigned int size);

 private:
  bool BeginTask();
  bool FindTask();
  bool RecordPiece(unsigned int size, bool first);
  bool FinishTask();

  const char* const function_;
  bool trace_recorded_key_ = false;
  CObjectProtoClient client_;
  PieceTask task_;
  std::int32_t part_number_ = 0;
};

bool CPieceUpload::SetKeyOfUrl(const std::string& url) {
  const std::size_t slash = url.rfind('/');
  if (slash == std::string::npos) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, invalid url[%s].[%s(%d)]", url.c_str());
    return false;
  }
  task_.key = url.substr(slash + 1);
  return true;
}

bool CPieceUpload::Send(const char* data, unsigned int size, bool first, bool last) {
  if (!(first ? BeginTask() : FindTask())) {
    return false;
  }
  // Nothing is recorded of a piece that fails here: sent again, it gets the same number.
  if (!client_.UploadPartObject(task_.key, task_.best_node, part_number_, task_.upload_id, data, size)) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, url[%s] partnum[%d], dst location[%s].[%s(%d)]",
              task_.key.c_str(), part_number_, task_.best_node.c_str());
    return false;
  }
  return RecordPiece(size, first) && (!last || FinishTask());
}

bool CPieceUpload::SendWhole(const std::shared_ptr<ObjectImpl>& conf, std::string& url, const char* data,
                             unsigned int size) {
  if (size > kMaxBufferUploadBytes) {
    PIECE_LOG(logging::kError, "[%s]upload file failed, size[%d] exceed.[%s(%d)]", size);
    conf->last_error.Set(ClientError::kBadArgument, "file size exceed 32M.");
    return false;
  }
  if (!conf) {
    PIECE_LOG(logging::kError, "[%s]upload file failed, ptr_conf_ is null.[%s(%d)]");
    return false;
  }
  std::string node;
  if (!client_.Init(conf) || !client_.GetBestNode(node, task_.key)) {
    PIECE_LOG(logging::kError, "[%s]upload file failed, object key[%s] get best node failed.[%s(%d)]",
              task_.key.c_str());
    return false;
  }
  if (!client_.UploadObject(url, node, task_.key, data, size)) {
    PIECE_LOG(logging::kError, "[%s]upload file failed, object key[%s] upload failed.[%s(%d)]", task_.key.c_str());
    return false;
  }
  return true;
}

bool CPieceUpload::BeginTask() {
  if (!client_.GetBestNode(task_.best_node, task_.key)) {
    PIECE_LOG(logging::kError, "[%s]upload first piece failed, get best node failed.[%s(%d)]");
    return false;
  }
  if (!client_.CreatePartTask(task_.upload_id, task_.key)) {
    PIECE_LOG(logging::kError, "[%s]upload first piece failed, create part task failed.[%s(%d)]");
    return false;
  }
  part_number_ = 1;
  return true;
}

bool CPieceUpload::FindTask() {
  const std::string key = task_.key;
  std::int32_t last_part_number = 0;
  if (!CPartUploadRegistry::Instance().FindTask(key, last_part_number, task_)) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, find task failed, url[%s].[%s(%d)]", key.c_str());
    return false;
  }
  part_number_ = last_part_number + 1;
  return true;
}

bool CPieceUpload::RecordPiece(unsigned int size, bool first) {
  CPartUploadRegistry& registry = CPartUploadRegistry::Instance();
  if (first && !registry.AddTask(task_)) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, add task failed, url[%s].[%s(%d)]", task_.key.c_str());
    return false;
  }
  if (!registry.AddPiece(task_.key, {part_number_, size})) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, add piece failed, url[%s].[%s(%d)]", task_.key.c_str());
    return false;
  }
  if (trace_recorded_key_) {
    PIECE_LOG(logging::kTrace, "[%s][%s].[%s(%d)]", task_.key.c_str());
  }
  return true;
}

bool CPieceUpload::FinishTask() {
  CPartUploadRegistry& registry = CPartUploadRegistry::Instance();
  std::list<SPartInfo> parts;
  if (!registry.GetAllPieces(task_.key, parts)) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, get all pieces failed, url[%s].[%s(%d)]", task_.key.c_str());
    return false;
  }
  if (!client_.FinishPartTask(task_.upload_id, task_.key, parts)) {
    PIECE_LOG(logging::kError, "[%s]upload piece failed, url[%s], task id[%s].[%s(%d)]", task_.key.c_str(),
              task_.upload_id.c_str());
    return false;
  }
  registry.RemoveTask(task_.key);
  return true;
}

// One piece whose first one is told by an empty `url`.
bool SendByUrl(const char* function, const std::shared_ptr<ObjectImpl>& conf, std::string& url, const char* data,
               unsigned int size, bool last) {
  CPieceUpload piece(function);
  if (!piece.Init(conf)) {
    return false;
  }
  const bool first = url.empty();
  if (first) {
    piece.SetNewKey();
  } else if (!piece.SetKeyOfUrl(url)) {
    return false;
  }
  if (!piece.Send(data, size, first, last)) {
    return false;
  }
  if (first) {
    url = ObjectPath(conf->config, piece.Key());
  }
  return true;
}

}  // namespace
}  // namespace details

bool CObjectClient::UploadFileByPieces(std::string& url, const char* data, unsigned int size, bool last) {
  static constexpr auto function = logging::CutQualifiedName(TANSY_FUNCTION_TEXT);
  if (url.empty() && last) {
    return UploadFile(url, data, size);
  }
  return RunGuarded([&] { return details::SendByUrl(function.text, ptr_conf_, url, data, size, last); });
}

bool CObjectClient::UploadFileByPiecesAloneStorage(std::string& url, const char* data, unsigned int size, bool last) {
  static constexpr auto function = logging::CutQualifiedName(TANSY_FUNCTION_TEXT);
  return RunGuarded([&] { return details::SendByUrl(function.text, ptr_conf_, url, data, size, last); });
}

bool CObjectClient::UploadFileByPiecesAndFileName(std::string& url, const char* data, unsigned int size, bool last,
                                                  bool first) {
  static constexpr auto function = logging::CutQualifiedName(TANSY_FUNCTION_TEXT);
  return RunGuarded([&] {
    if (url.empty()) {
      CLOUD_LOG(logging::kError, "[%s]out_url is empty![%s(%d)]");
      return false;
    }
    details::CPieceUpload piece(function.text);
    piece.TraceRecordedKey();
    if (first) {
      piece.SetKey(url);
    } else if (!piece.SetKeyOfUrl(url)) {
      return false;
    }
    CLOUD_LOG(logging::kTrace, "[%s][%s].[%s(%d)]", piece.Key().c_str());
    if (first && last) {
      return piece.SendWhole(ptr_conf_, url, data, size);
    }
    if (!piece.Init(ptr_conf_) || !piece.Send(data, size, first, last)) {
      return false;
    }
    if (first) {
      url = ObjectPath(ptr_conf_->config, piece.Key());
    }
    return true;
  });
}

}  // namespace Tansy::CloudStorage
