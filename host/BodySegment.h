#ifndef TANSY_HOST_BODY_SEGMENT_H
#define TANSY_HOST_BODY_SEGMENT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "BodyLogFormat.h"
#include "HostSystem/Files.h"

namespace Tansy::Host {

// Where a body lies. The file stays what it is for as long as somebody has it, whatever becomes of the segment.
struct BodyPlace {
  std::shared_ptr<HostSystem::IFile> file;
  std::uint32_t offset = 0;
  std::uint32_t size = 0;
  std::uint32_t crc = 0;
  std::uint64_t nonce = 0;
  std::uint32_t key = 0;
};
// Returns false when these bytes are not the body that was stored there.
bool IsWhole(const BodyPlace& place, const char* bytes);

// A body for which no row has been seen yet.
struct UnsettledBody {
  std::uint32_t key = 0;
  std::int64_t seconds = 0;  // since it was written
  bool failed = false;       // it was not made durable, or the process that wrote it is gone
};

// The folder in which segments lie, and how many of them have their file open. It must outlive the segments.
struct SegmentFolder {
  explicit SegmentFolder(HostSystem::IFolder& folder) : files(folder) {}

  HostSystem::IFolder& files;
  std::atomic<std::size_t> open{0};
};

// One file of the body log with what is remembered of its records. Results are 0 or errno.
//
// Its owner takes care that Reserve is called by one thread at a time, and Sync, Seal and Rewrite by one thread at a
// time. Everything else may be called by any thread at any time.
class CBodySegment {
 public:
  enum class EOpen {
    kServe,  // states can be changed
    kLook,   // another process may be using it
  };

  // Makes an empty segment. With `durable`, it is on stable storage with its name when this returns, and from then on
  // it is remembered which records are not.
  static int Create(SegmentFolder& folder, std::uint32_t number, bool durable, std::shared_ptr<CBodySegment>& segment);
  // Reads the index, or searches the file when there is none. EBADMSG: neither the head nor the index can be read.
  static int Open(SegmentFolder& folder, std::uint32_t number, EOpen mode, std::shared_ptr<CBodySegment>& segment);
  ~CBodySegment();
  CBodySegment(const CBodySegment&) = delete;
  CBodySegment& operator=(const CBodySegment&) = delete;

  std::uint32_t GetNumber() const { return head_.number; }
  std::uint64_t GetNonce() const { return head_.nonce; }

  // Appending. A new segment takes records until it is full; one that was opened takes none.
  bool HasRoom(std::uint32_t size) const;
  // Gives the key of a record that Write is then called for.
  std::uint32_t Reserve(std::uint32_t size);
  // Writes the record; bodies can be written at the same time. Until this succeeds, nobody finds the body.
  int Write(std::uint32_t key, std::string_view body);
  // Returns when everything that was written is on stable storage. After a failure the segment takes nothing more, and
  // nobody finds what may not have reached the disk: it is lost, and counts as unsettled and failed.
  int Sync();
  // Gives the keys of what was lost. They are remembered as long as the segment is.
  std::vector<std::uint32_t> GetLost() const;

  // ENOENT: there is no such body.
  int Find(std::uint32_t key, BodyPlace& place);
  // Returns false when there is no such body. The room is free once the segment is written anew.
  bool Remove(std::uint32_t key) noexcept;
  // Shows the bodies that are there, until the visitor returns false.
  bool ForEach(const std::function<bool(std::uint32_t key, std::uint32_t size)>& visitor) const;

  // A body counts as unsettled from its write until Settle or Remove. GetUnsettled gives those that were written at
  // least `seconds` ago, and those that have failed.
  void Settle(std::uint32_t key);
  bool IsUnsettled(std::uint32_t key) const;
  std::vector<UnsettledBody> GetUnsettled(std::int64_t seconds) const;
  // Writes down, for the next start, up to where all bodies are settled.
  void NoteSettled();

  struct Facts {
    bool is_sealed = false;
    bool is_busy = false;  // a record is being written or is not durable yet
    bool has_lost = false;
    std::size_t live = 0;
    std::size_t unsettled = 0;
    std::uint64_t live_bytes = 0;  // with their heads
    std::uint64_t file_bytes = 0;
  };
  Facts GetFacts() const;
  // Writes the index. Nothing may be appended any more.
  int Seal();
  // Puts a file with the bodies that are there in the place of this one. The new file is durable before the old one
  // goes. A body whose bytes are damaged is copied as it is.
  int Rewrite();
  // Gives the room of gaps back without writing anything, as far as the file system can do that: for a disk without
  // room for a new file. Nothing may be appended any more.
  void FreeGaps();
  // Closes the file, if it has an index and nobody is reading it. Whoever needs it next opens it again.
  void CloseFile();

 private:
  struct Unsettled {
    std::int64_t written = 0;  // uptime
    bool failed = false;
  };

  CBodySegment(SegmentFolder& folder, const BodyFormat::SegmentHead& head, EOpen mode,
               std::unique_ptr<HostSystem::IFile> file);

  static int OpenFile(HostSystem::IFolder& folder, std::uint32_t number, EOpen mode,
                      std::unique_ptr<HostSystem::IFile>& file);
  // To be called with mutex_ held before file_ is used, unless there is no index yet.
  int NeedFile() noexcept;
  int Load();
  bool LoadIndex(std::uint64_t file_size);
  bool IsOfAnotherNonce(const BodyFormat::SegmentHead& head) const;
  int Search(std::uint64_t file_size);
  void CountEntries();
  int AddWritten(const BodyEntry& entry);
  // Gives where the entry of this key is, or would be.
  static std::vector<BodyEntry>::iterator PlaceOf(std::vector<BodyEntry>& entries, std::uint32_t key);
  BodyEntry* FindEntry(std::uint32_t key);
  std::string StatesOf(const std::vector<BodyEntry>& entries) const;
  void Lose(std::uint32_t key) noexcept;
  void Kill(BodyEntry& entry) noexcept;
  void MarkDead(const BodyEntry& entry) noexcept;
  int WriteDead(const BodyEntry& entry);
  int Copy(HostSystem::IFile& source, HostSystem::IFile& target, const std::vector<BodyEntry>& old,
           std::vector<BodyEntry>& fresh);

  SegmentFolder& folder_;
  BodyFormat::SegmentHead head_;
  const EOpen mode_;

  mutable std::mutex mutex_;                 // guards what follows
  std::shared_ptr<HostSystem::IFile> file_;  // null while it is closed, which it never is without an index
  std::vector<BodyEntry> entries_;           // by key
  std::unordered_map<std::uint32_t, Unsettled> unsettled_;
  std::vector<std::uint32_t> unflushed_;  // keys of records that are not durable yet
  std::vector<std::uint32_t> lost_;
  bool is_durable_ = false;
  bool is_poisoned_ = false;
  std::vector<std::uint32_t> writing_;  // keys between Reserve and the end of Write
  std::uint32_t end_ = 0;               // where the next record goes
  std::uint32_t index_at_ = 0;          // 0: it has none
  std::size_t live_ = 0;
  std::uint64_t live_bytes_ = 0;
  std::uint64_t gaps_freed_at_ = UINT64_MAX;  // value of live_bytes_ when the room of gaps was given back last
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BODY_SEGMENT_H
