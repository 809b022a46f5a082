// What uploads in parts must remember: parts under way and their results, and piecewise uploads between two calls.
#ifndef TANSY_SRC_STORAGE_CLIENT_PART_UPLOAD_REGISTRY_H
#define TANSY_SRC_STORAGE_CLIENT_PART_UPLOAD_REGISTRY_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

// A part as the request that completes an upload names it.
struct SPartInfo {
  std::int32_t part_number = 0;
  std::uint32_t part_size = 0;
  std::string etag;
};

inline constexpr std::int32_t kPartUploaded = 0;
inline constexpr std::int32_t kPartFailed = 1;

// One part of a multipart upload.
struct PartRecord {
  std::string upload_id;
  // `size` bytes and a terminating NUL, owned by the task that sends them; null in the registry's copies, which outlive
  // the task.
  const char* data = nullptr;
  std::uint32_t size = 0;
  bool done = false;
  std::int32_t status = kPartUploaded;
  std::int32_t part_number = 0;  // counted from 1
  std::int32_t total_parts = 0;
};

struct SPieceEntry {
  std::int32_t part_number = 0;
  std::uint32_t size = 0;
};

// One unfinished piecewise upload.
struct PieceTask {
  std::string upload_id;
  std::string best_node;
  std::string key;                             // URL of the object: equal names in two pools or servers stay apart
  std::map<std::int32_t, SPieceEntry> pieces;  // by part number
  // Bytes that the caller has handed over and that wait for more of them; null when there are none.
  std::shared_ptr<const std::string> tail = nullptr;
  bool in_use = false;  // a piece is on its way
};

// There is one registry per process, and it is never destroyed. Its two halves share nothing; each has its own mutex,
// which every operation holds for its whole duration. Any thread may call it.
class CPartUploadRegistry : private TansyBase::CNoncopyable {
 public:
  static CPartUploadRegistry& Instance() { return CSingleton<CPartUploadRegistry>::Instance(); }

  // Part half: uploads of one call, by upload id.

  // Always true.
  bool AddPart(const std::string& upload_id, const PartRecord& record);
  // Replaces the part's record and counts it as finished. False when the upload or the part is unknown.
  bool FinishPart(const PartRecord& record);
  // True when the upload is over: every part of it is done, or, in the order of the numbers, a failed one comes before
  // the first that is not; `failed_status` is then that part's status, and the parts are forgotten. False when it goes
  // on or is unknown. `percent` is set for any upload that has parts.
  bool QueryParts(const std::string& upload_id, std::int32_t& failed_status, std::int32_t& percent);
  // Waits until the number of finished parts differs from `seen` or the time is over, and returns the number.
  std::int32_t WaitForFinishedPart(const std::string& upload_id, std::int32_t seen, std::chrono::milliseconds timeout);

  // Piecewise half: uploads over several calls, by PieceTask::key. All are false when the key is unknown, AddTask when
  // it is known.

  // `last_part_number` becomes the highest number, and stays as it is when there is no piece yet.
  bool FindTask(const std::string& key, std::int32_t& last_part_number, PieceTask& task);
  bool AddTask(const PieceTask& task);
  bool AddPiece(const std::string& key, const SPieceEntry& piece);
  // Appends the pieces in the order of their numbers, with empty ETags.
  bool GetAllPieces(const std::string& key, std::list<SPartInfo>& parts);
  bool RemoveTask(const std::string& key);
  // Between the two the upload belongs to one caller: BeginPiece is false while a piece is on its way.
  bool BeginPiece(const std::string& key);
  bool EndPiece(const std::string& key) noexcept;
  bool SetTail(const std::string& key, std::shared_ptr<const std::string> tail) noexcept;
  // Forgets the pieces from this number on.
  bool RemovePiecesFrom(const std::string& key, std::int32_t part_number) noexcept;

 private:
  friend class CSingleton<CPartUploadRegistry>;

  struct SUploadProgress {
    std::int32_t total = 0;
    std::int32_t finished = 0;
  };

  CPartUploadRegistry() = default;

  std::mutex part_mutex_;
  std::condition_variable part_finished_;
  std::map<std::string, std::map<std::int32_t, PartRecord>> parts_;
  std::map<std::string, SUploadProgress> progress_;  // entries stay for the life of the process

  std::mutex piece_mutex_;
  std::map<std::string, PieceTask> pieces_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PART_UPLOAD_REGISTRY_H
