// Uploads that arrive in pieces: this stores the pieces and knows how far each upload has come.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_BIG_FILE_STREAM_MGR_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_BIG_FILE_STREAM_MGR_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// Says how a stream ended before all of its bytes were there.
enum class StreamEnd {
  kNone,      // it did not end early, as far as is known
  kFailed,    // a piece could not be stored; the request is still to be answered
  kAnswered,  // the request has its answer; further pieces are ignored
};

// One record for each streamed upload, from its first piece until its handler has written its row. In a record `size`
// is the number of bytes stored so far and `url` what the storage callback left last.
//
// Session ids are the HTTP library's request handles. Threads: any. The pieces of one stream are stored one after
// another, those of different streams side by side; no other member waits for the storage.
class CBigFileStreamMgr : private TansyBase::CNoncopyable {
 public:
  static CBigFileStreamMgr& Instance();

  // Always returns true.
  bool SetSaveCallback(StreamSaveCallback callback);
  // Returns false when the id has a record already.
  bool RegisterStream(std::uint32_t session_id);
  bool IsStreamAbsent(std::uint32_t session_id) const;
  // Copies the record; returns false when there is none.
  bool GetStreamInfo(ObjectInfo& info, std::uint32_t session_id) const;
  bool RemoveStream(std::uint32_t session_id);
  // Appends a piece. Returns false when there is no record or the storage refuses; `storage_result`, which may be null,
  // is then set to what the storage said.
  bool UploadStream(std::uint32_t session_id, const char* data, std::uint32_t size, const std::string& bucket_name,
                    int* storage_result = nullptr);

  // Waits until the stream holds another number of bytes than `seen_size` or has no record. Returns false after
  // `timeout`; but while the storage works on one of its pieces, or a piece waits for its turn there, the wait goes on,
  // because those bytes have arrived, however long the storage takes.
  bool WaitForChange(std::uint32_t session_id, std::uint64_t seen_size, std::chrono::milliseconds timeout) const;

  // Ends the stream and remembers why, so that a piece that comes later is not taken for the first piece of a new
  // upload. This needs no memory when there is a record.
  void EndStream(std::uint32_t session_id, StreamEnd end);
  StreamEnd EndOf(std::uint32_t session_id) const;
  // Says that from now on the record belongs to the handler, and only the handler removes it.
  void NoteLastPiece(std::uint32_t session_id);

  // Gives what the storage callback left for each upload that may still become an object: its request is open, or its
  // last piece has come, or one of its pieces is with the storage. When none of these is true, the client is gone and
  // the upload is ended.
  std::vector<std::string> LocationsUnderWay(const std::function<bool(std::uint32_t session_id)>& is_open);

 private:
  friend class CSingleton<CBigFileStreamMgr>;
  CBigFileStreamMgr() = default;
  ~CBigFileStreamMgr() = default;

  class CPieceUnderWay;
  struct Stream {
    ObjectInfo info;
    int pieces_under_way = 0;  // calls of UploadStream
    bool last_piece_came = false;
    std::int64_t last_change = 0;      // by TimeUtil::Uptime
    StreamEnd end = StreamEnd::kNone;  // when it is not kNone, no other field counts
    // Held while a piece of this stream is being stored; taken before mutex_.
    std::shared_ptr<std::mutex> store_mutex;
  };
  using Streams = std::map<std::uint32_t, Stream>;
  // This is more than the possible number of connections, so that the end of every stream that may still send is
  // remembered.
  static constexpr std::size_t kRememberedEnds = 16384;

  // These are called with mutex_ held. Find gives a stream that has not ended; null when there is none.
  Stream* Find(std::uint32_t session_id);
  const Stream* Find(std::uint32_t session_id) const;
  void End(std::uint32_t session_id, Stream& stream, StreamEnd end);
  void RemoveAbandoned(std::int64_t now);

  mutable std::mutex mutex_;  // guards everything below
  mutable std::condition_variable changed_;
  StreamSaveCallback save_callback_ = nullptr;
  Streams streams_;
  std::size_t live_ = 0;  // streams that have not ended
  std::int64_t last_sweep_ = 0;
  // A ring of the streams that ended last: the next stream to end takes the place of the oldest, which is then
  // forgotten.
  std::array<std::uint32_t, kRememberedEnds> ended_{};
  std::size_t next_ended_ = 0;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_BIG_FILE_STREAM_MGR_H
