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

// Sends one piece of one object. The exported functions differ in how they recognise a first piece, in the key, and in
// how they store an object of one piece. What they have in common is here, and writes its log lines under their names.
//
// A piece counts as a whole or not at all: after a failure the upload is as it was before, so that the caller may send
// the piece again; this holds for the last piece too.
class CPieceUpload : private TansyBase::CNoncopyable {
 public:
  // `caller` is the exported function that log lines name.
  explicit CPieceUpload(const details::Caller& caller) : caller_(caller) {}

  // Returns false when `conf` is empty; no other member may be called then.
  bool Init(const std::shared_ptr<ObjectImpl>& conf);

  // Asks for a trace line that names the key once the piece is recorded. It is meant for keys that callers choose.
  void TraceRecordedKey() { trace_recorded_key_ = true; }

  void SetNewKey();
  void SetKey(const std::string& key);
  // Takes the text after the last "/" of the URL that came with the first piece as the key.
  bool SetKeyOfUrl(const std::string& url);
  const std::string& Key() const { return key_; }

  // Sends the piece. Sets `url` to that of the object when the piece is the first one.
  bool Send(std::string& url, std::string_view piece, bool first, bool last);
  // Sends the whole object in one request instead.
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
  std::int32_t first_number_ = 1;  // number of this piece's first part
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PIECE_UPLOAD_H
