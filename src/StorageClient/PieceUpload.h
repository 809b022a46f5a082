#ifndef TANSY_SRC_STORAGE_CLIENT_PIECE_UPLOAD_H
#define TANSY_SRC_STORAGE_CLIENT_PIECE_UPLOAD_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "ModuleLog.h"
#include "StorageClient/ObjectImpl.h"
#include "StorageClient/ObjectProtoClient.h"
#include "StorageClient/PartUploadRegistry.h"
#include "StorageClient/PieceCut.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

// One piece of one object. The exported functions differ in how a first piece is told, in the key and in what becomes
// of an object of one piece; what is the same is here, and logs under their names.
//
// A piece counts as a whole or not at all: after a failure the upload is as it was before, so that the caller may send
// the piece again, a last one included.
class CPieceUpload : private TansyBase::CNoncopyable {
 public:
  // `caller` is the exported function that log lines name.
  explicit CPieceUpload(const details::Caller& caller) : caller_(caller) {}

  // False when `conf` is empty; nothing else may then be called.
  bool Init(const std::shared_ptr<ObjectImpl>& conf);

  // For keys that callers choose: a trace line names the key once the piece is recorded.
  void TraceRecordedKey() { trace_recorded_key_ = true; }

  void SetNewKey();
  void SetKey(const std::string& key);
  // The text after the last "/" of the URL that came with the first piece.
  bool SetKeyOfUrl(const std::string& url);
  const std::string& Key() const { return key_; }

  // Sets `url` to that of the object when the piece is a first one.
  bool Send(std::string& url, std::string_view piece, bool first, bool last);
  // The object in one request instead.
  bool SendWhole(std::string& url, std::string_view object);

 private:
  bool SendFirst(std::string_view piece, bool last);
  bool SendLater(std::string_view piece, bool last);

  bool BeginTask();
  bool FindTask();
  bool Cut(SPieceCut& cut, std::string_view piece, bool last);
  bool SendPart(std::int32_t number, std::string_view part);
  bool AddTask();
  bool AddPiece(std::int32_t number, std::string_view part);
  bool RecordParts(const SPieceCut& cut);
  void TraceKey() const;
  bool FinishTask();
  void SetNotAdded();
  void SetBadPiece(const std::string& text);

  CPartUploadRegistry& registry_ = CPartUploadRegistry::Instance();
  const details::Caller caller_;
  std::shared_ptr<ObjectImpl> conf_;
  CObjectProtoClient client_;
  bool trace_recorded_key_ = false;
  std::string key_;
  PieceTask task_;
  std::int32_t first_number_ = 1;  // of the parts of this piece
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PIECE_UPLOAD_H
