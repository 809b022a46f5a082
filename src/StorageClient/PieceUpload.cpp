#include "StorageClient/PieceUpload.h"

#include <list>
#include <utility>

#include "ModuleLog.h"
#include "StorageClient/ServerAddress.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Runs its action on every way out of a scope, an exception included, unless it is dismissed.
template <class Undo>
class CRollback {
 public:
  explicit CRollback(Undo undo) : undo_(std::move(undo)) {}
  ~CRollback() {
    if (!dismissed_) {
      undo_();
    }
  }
  CRollback(const CRollback&) = delete;
  CRollback& operator=(const CRollback&) = delete;
  void Dismiss() { dismissed_ = true; }

 private:
  const Undo undo_;
  bool dismissed_ = false;
};

}  // namespace
}  // namespace details

bool CPieceUpload::Init(const std::shared_ptr<ObjectImpl>& conf) {
  conf_ = conf;
  return client_.Init(conf);
}

void CPieceUpload::SetNewKey() {
  SetKey(TansyBase::GuidUtil::CreateGuid() + ".pfile");
}

void CPieceUpload::SetKey(const std::string& key) {
  key_ = key;
  const SStorageServerConfig& config = conf_->config;
  task_.key = Scheme(config) + HostAndPort(config.ip, std::to_string(config.upload_port)) + ObjectPath(config, key);
}

bool CPieceUpload::SetKeyOfUrl(const std::string& url) {
  const std::size_t slash = url.rfind('/');
  if (slash == std::string::npos) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, invalid url[%s].[%s(%d)]", url.c_str());
    conf_->last_error.Set(ClientError::kBadArgument, "url[" + url + "] holds no object key.");
    return false;
  }
  SetKey(url.substr(slash + 1));
  return true;
}

bool CPieceUpload::Send(std::string& url, std::string_view piece, bool first, bool last) {
  std::string object_url = ObjectPath(conf_->config, key_);
  if (!(first ? SendFirst(piece, last) : SendLater(piece, last))) {
    return false;
  }
  if (first) {
    url = std::move(object_url);
  }
  return true;
}

bool CPieceUpload::SendWhole(std::string& url, std::string_view object) {
  std::string node;
  if (!client_.GetBestNode(node, key_)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload file failed, object key[%s] get best node failed.[%s(%d)]",
                  key_.c_str());
    return false;
  }
  if (!client_.UploadObject(url, node, key_, object.data(), static_cast<unsigned int>(object.size()))) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload file failed, object key[%s] upload failed.[%s(%d)]",
                  key_.c_str());
    return false;
  }
  return true;
}

bool CPieceUpload::SendFirst(std::string_view piece, bool last) {
  std::int32_t last_number = 0;
  PieceTask other;
  // This is checked before anything is sent, and once more when the task is added.
  if (registry_.FindTask(task_.key, last_number, other)) {
    SetNotAdded();
    return false;
  }
  if (!BeginTask() || !SendPart(first_number_, piece) || !AddTask()) {
    return false;
  }
  // When the first piece fails, the task is forgotten, so that the caller begins again with a first piece.
  details::CRollback forget([this] { registry_.RemoveTask(task_.key); });
  if (!AddPiece(first_number_, piece)) {
    return false;
  }
  TraceKey();
  if (last && !FinishTask()) {
    return false;
  }
  forget.Dismiss();
  return true;
}

bool CPieceUpload::SendLater(std::string_view piece, bool last) {
  const bool alone = registry_.BeginPiece(task_.key);
  details::CRollback end_piece([this, alone] {
    if (alone) {
      registry_.EndPiece(task_.key);
    }
  });
  if (!FindTask()) {
    return false;
  }
  if (!alone) {
    SetBadPiece("another piece of object[" + key_ + "] is on its way.");
    return false;
  }
  SPieceCut cut;
  if (!Cut(cut, piece, last)) {
    return false;
  }
  std::int32_t number = first_number_;
  for (const std::string_view part : cut.parts) {
    // A piece that fails here leaves no record. When it is sent again, its parts get the same numbers.
    if (!SendPart(number++, part)) {
      return false;
    }
  }
  auto tail = cut.tail.empty() ? nullptr : std::make_shared<const std::string>(std::move(cut.tail));
  details::CRollback forget_parts([this] { registry_.RemovePiecesFrom(task_.key, first_number_); });
  if (!RecordParts(cut)) {
    return false;
  }
  TraceKey();
  if (last) {
    if (!FinishTask()) {
      return false;
    }
    // The entry is gone. If there is an entry of this name now, it belongs to another upload.
    end_piece.Dismiss();
  } else {
    registry_.SetTail(task_.key, std::move(tail));
  }
  forget_parts.Dismiss();
  return true;
}

bool CPieceUpload::BeginTask() {
  if (!client_.GetBestNode(task_.best_node, key_)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload first piece failed, get best node failed.[%s(%d)]");
    return false;
  }
  if (!client_.CreatePartTask(task_.upload_id, key_)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload first piece failed, create part task failed.[%s(%d)]");
    return false;
  }
  return true;
}

bool CPieceUpload::FindTask() {
  const std::string key = task_.key;
  std::int32_t last_number = 0;
  if (!registry_.FindTask(key, last_number, task_)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, find task failed, url[%s].[%s(%d)]",
                  key_.c_str());
    SetBadPiece("no upload of object[" + key_ + "] is known.");
    return false;
  }
  first_number_ = last_number + 1;
  return true;
}

bool CPieceUpload::Cut(SPieceCut& cut, std::string_view piece, bool last) {
  const std::uint32_t part_size = task_.pieces.empty() ? 0 : task_.pieces.begin()->second.size;
  if (CutPiece(cut, task_.tail ? *task_.tail : std::string(), piece, part_size, last)) {
    return true;
  }
  const std::string sizes = std::to_string(piece.size()) + "] bytes after a first one of [" + std::to_string(part_size);
  CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, url[%s], piece of [%s].[%s(%d)]", key_.c_str(),
                sizes.c_str());
  SetBadPiece("piece of [" + sizes + "]: pieces of other sizes need a first one of at least 65536 bytes.");
  return false;
}

bool CPieceUpload::SendPart(std::int32_t number, std::string_view part) {
  if (!client_.UploadPartObject(key_, task_.best_node, number, task_.upload_id, part.data(),
                                static_cast<unsigned int>(part.size()))) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, url[%s] partnum[%d], dst location[%s].[%s(%d)]",
                  key_.c_str(), number, task_.best_node.c_str());
    return false;
  }
  return true;
}

bool CPieceUpload::AddTask() {
  if (!registry_.AddTask(task_)) {
    SetNotAdded();
    return false;
  }
  return true;
}

void CPieceUpload::SetNotAdded() {
  CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, add task failed, url[%s].[%s(%d)]", key_.c_str());
  SetBadPiece("another upload of object[" + key_ + "] is not finished.");
}

bool CPieceUpload::AddPiece(std::int32_t number, std::string_view part) {
  if (!registry_.AddPiece(task_.key, {number, static_cast<std::uint32_t>(part.size())})) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, add piece failed, url[%s].[%s(%d)]",
                  key_.c_str());
    SetBadPiece("the upload of object[" + key_ + "] has ended meanwhile.");
    return false;
  }
  return true;
}

bool CPieceUpload::RecordParts(const SPieceCut& cut) {
  std::int32_t number = first_number_;
  for (const std::string_view part : cut.parts) {
    if (!AddPiece(number++, part)) {
      return false;
    }
  }
  return true;
}

void CPieceUpload::TraceKey() const {
  if (trace_recorded_key_) {
    CLOUD_LOG_FOR(caller_, logging::kTrace, "[%s][%s].[%s(%d)]", key_.c_str());
  }
}

bool CPieceUpload::FinishTask() {
  std::list<SPartInfo> parts;
  if (!registry_.GetAllPieces(task_.key, parts)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, get all pieces failed, url[%s].[%s(%d)]",
                  key_.c_str());
    SetBadPiece("the upload of object[" + key_ + "] has ended meanwhile.");
    return false;
  }
  if (!client_.FinishPartTask(task_.upload_id, key_, parts)) {
    CLOUD_LOG_FOR(caller_, logging::kError, "[%s]upload piece failed, url[%s], task id[%s].[%s(%d)]", key_.c_str(),
                  task_.upload_id.c_str());
    return false;
  }
  registry_.RemoveTask(task_.key);
  return true;
}

void CPieceUpload::SetBadPiece(const std::string& text) {
  conf_->last_error.Set(ClientError::kBadPiece, text);
}

}  // namespace Tansy::CloudStorage
