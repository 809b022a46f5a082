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
  // Holds `size` bytes and a terminating NUL, owned by the task that sends them. It is null in the registry's copies,
  // which outlive the task.
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
  std::string key;  // URL of the object, so that equal names in two pools or servers are kept apart
  std::map<std::int32_t, SPieceEntry> pieces;  // by part number
  // Holds bytes that the caller has handed over and that wait for more of them; null when there are none.
  std::shared_ptr<const std::string> tail = nullptr;
  bool in_use = false;  // true while a piece is being sent
};

// There is one registry per process, and it is never destroyed. Its two halves share nothing; each has its own mutex,
// which every operation holds for its whole duration. Any thread may call it.
class CPartUploadRegistry : private TansyBase::CNoncopyable {
 public:
  static CPartUploadRegistry& Instance() { return CSingleton<CPartUploadRegistry>::Instance(); }

  // The part half keeps uploads that one call makes, by upload id.

  // Always returns true.
  bool AddPart(const std::string& upload_id, const PartRecord& record);
  // Replaces the part's record and counts it as finished. Returns false when the upload or the part is unknown.
  bool FinishPart(const PartRecord& record);
  // Returns true when the upload is over: every part is done, or, in the order of the numbers, a failed part comes
  // before the first part that is not done. `failed_status` is then the status of the failed part, and the parts are
  // forgotten. Returns false when the upload goes on or is unknown. `percent` is set for any upload that has parts.
  bool QueryParts(const std::string& upload_id, std::int32_t& failed_status, std::int32_t& percent);
  // Forgets the parts of an upload that ends before it is over.
  void ForgetParts(const std::string& upload_id) noexcept;
  // Waits until the number of finished parts differs from `seen` or the time is over, and returns the number.
  std::int32_t WaitForFinishedPart(const std::string& upload_id, std::int32_t seen, std::chrono::milliseconds timeout);

  // The piecewise half keeps uploads that take several calls, by PieceTask::key. Its members return false when the key
  // is unknown; AddTask returns false when the key is known already.

  // `last_part_number` becomes the highest number, and stays as it is when there is no piece yet.
  bool FindTask(const std::string& key, std::int32_t& last_part_number, PieceTask& task);
  bool AddTask(const PieceTask& task);
  bool AddPiece(const std::string& key, const SPieceEntry& piece);
  // Appends the pieces in the order of their numbers, with empty ETags.
  bool GetAllPieces(const std::string& key, std::list<SPartInfo>& parts);
  bool RemoveTask(const std::string& key);
  // Between BeginPiece and EndPiece the upload belongs to one caller: BeginPiece returns false while a piece is being
  // sent.
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
