#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PART_UPLOADS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PART_UPLOADS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

// An upload whose parts may have any sizes, each of which is stored once and becomes a piece of the object. The upload
// tasks of the object protocol are others: neither protocol sees those of the other one.
struct PartUpload {
  std::string id;  // 32 hexadecimal digits
  std::string bucket_name;
  std::string object_name;
  std::string sort_key;    // uploads are listed in the order of these texts, byte by byte
  std::string attributes;  // a text that the object will have
  std::string begun;       // "2026-11-03 08:05:09", UTC
};

struct UploadedPart {
  std::uint32_t number = 0;
  std::uint32_t size = 0;
  std::string url;         // the location of its bytes
  std::string attributes;  // a text that belongs to the part
  std::string update_time;
};

// The uploads in parts. They are in the database only, which decides: what two requests do at the same time to one
// upload, also in two processes, happens there one after the other. An upload that has become an object or was ended
// takes no more parts, and the bytes of parts that are replaced, left out or abandoned are released by the schema.
//
// An upload becomes an object when CObjectStorageManager adds one whose url is the list of its parts (PieceList.h).
// That fails when the upload has ended or one of the parts was replaced meanwhile.
//
// Threads: any. Errors: a function returns false or kFailed, and the log says why.
class CPartUploads {
 public:
  // Begins the upload; its id and time are given.
  static bool Begin(const PartUpload& upload);

  enum class EFound { kFound, kMissing, kFailed };
  // Finds an upload to this object.
  static EFound Find(PartUpload& upload, const std::string& id, const std::string& bucket_name,
                     const std::string& object_name);
  // Gives at most `limit` uploads to a bucket, the first behind a sort key and an id, in their order.
  static bool List(std::vector<PartUpload>& uploads, const std::string& bucket_name, const std::string& after_key,
                   const std::string& after_id, std::size_t limit);

  // Adds a part, or replaces the one of its number.
  static bool PutPart(const std::string& id, const UploadedPart& part);
  // Gives at most `limit` parts whose numbers are greater than `after`, in their order.
  static bool GetParts(std::vector<UploadedPart>& parts, const std::string& id, std::uint32_t after, std::size_t limit);
  // Ends an upload that has not become an object; its bytes are released.
  static bool End(const std::string& id);
};

// Ends uploads that nobody has touched for three days. When somebody sets the clock, no upload becomes older or
// younger: only the age of those that are there at the start is taken from the time of day. Where several processes
// share the catalogue, the time of day is that of the database, and one process ends uploads for all. Threads: any.
class CPartUploadSweep : private TansyBase::CNoncopyable {
 public:
  static CPartUploadSweep& Instance();

  CPartUploadSweep() = default;
  ~CPartUploadSweep() = default;

  // Has to be called by the server whose uploads they are, before it serves: other hosts may have no table of uploads.
  void Start();
  // Has to be called from time to time. An upload that has changed since is young again. Returns false when it has done
  // nothing, because it was not started yet or the database does not answer.
  bool Run();
  // How many uploads a Run has removed. Threads: any.
  std::uint64_t SweptUploads() const { return swept_uploads_.load(std::memory_order_relaxed); }
  // Sets what the first Start calls, so that a Run that came before it is made up for. It must not wait.
  void SetWhenStarted(std::function<void()> when_started);

 private:
  struct Seen {
    std::string update_time;
    std::int64_t birth = 0;  // value of TimeUtil::Uptime
  };
  using SeenUploads = std::map<std::string, Seen>;  // by the url of the object that an upload will become

  bool Look(bool at_start);

  std::atomic<std::uint64_t> swept_uploads_{0};
  std::mutex mutex_;  // guards everything below
  bool is_started_ = false;
  std::function<void()> when_started_;
  SeenUploads seen_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PART_UPLOADS_H
