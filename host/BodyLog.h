#ifndef TANSY_HOST_BODY_LOG_H
#define TANSY_HOST_BODY_LOG_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "BodyLogFormat.h"
#include "BodySegment.h"
#include "HostSystem/Files.h"
#include "ObjectStore.h"
#include "StoreRoom.h"
#include "StoredName.h"

namespace Tansy::Host {

// Keeps small bodies one behind another in a few large files, the segments, so that one flush makes many of them
// durable. BodyLogFormat.h describes the files.
//
// Appending does not flush. With full durability MakeDurable has to be called before a row that names a body is
// committed. A body is written once and never changed. A removed body leaves a gap; Tidy removes segments in which
// nothing is left and writes those anew that are mostly gaps. Every run begins a segment of its own, so what a crash
// has cut short is never written to again.
//
// Until Settle is called a body counts as new: no row is known that names it. This holds over restarts, without a note
// for each body: the segment says up to where all are settled, and its index names the few behind that.
//
// Threads: any, also for one body; Tidy is called by one thread at a time.
class CBodyLog {
 public:
  enum class EMode {
    kFull,  // bodies are made durable before they are named
    kFast,
    kLook,  // nothing is changed; another process may be using the log
  };

  // `root` is the store's folder. `room` says what its disk can take; null: that does not matter.
  CBodyLog(HostSystem::IFolder& root, EMode mode, CStoreRoom* room = nullptr) : root_(root), mode_(mode), room_(room) {}

  // Reads what is there; must be called once before everything else. A log that is looked at can be read again, to see
  // what another process has done meanwhile. Returns 0 or errno.
  int Load();

  // Returns 0 or errno.
  int Append(std::string_view body, StoredName& name);
  // Makes everything that was appended durable, with one flush for all. Returns false, with a reason, when this fails
  // or when one of the statements names a body that was lost by a failure before.
  bool MakeDurable(const std::vector<std::string_view>& statements, std::string& error);

  // Says whether the segment is there that the name speaks of.
  bool HasSegment(const StoredName& name) const;
  // Returns 0 or errno; ENOENT: there is no such body.
  int Find(const StoredName& name, BodyPlace& place) const;
  // Removing bytes that are gone succeeds.
  void Remove(const StoredName& name);
  // Shows the bodies that are there, and files that nothing can be found in, until the visitor returns false. All bytes
  // are read, so that damage is seen. Returns false when the visitor did.
  bool ForEach(const std::function<bool(const StoredEntry&)>& visitor) const;

  void Settle(const StoredName& name);
  bool IsUnsettled(const StoredName& name) const;
  // Adds the bodies that were written at least `seconds` ago and those that have failed.
  void AddUnsettled(std::int64_t seconds, std::vector<NewBytes>& bodies) const;

  // Gives room back and writes what makes the next start fast. It has to be called from time to time. Between two
  // segments it ends when `is_stopping` says so; null: never.
  void Tidy(const std::function<bool()>& is_stopping = {});

 private:
  using SegmentPointer = std::shared_ptr<CBodySegment>;

  int OpenFolder();
  int OpenSegment(const HostSystem::FolderEntry& entry, std::uint32_t number);
  int Reserve(std::uint32_t size, SegmentPointer& segment, std::uint32_t& key);
  int BeginSegment();
  bool Flush(std::string& error);
  void ForgetFlushed();
  bool NamesLost(const std::vector<std::string_view>& statements) const;
  SegmentPointer SegmentOf(const StoredName& name, BodyId& id) const;
  std::vector<SegmentPointer> Segments() const;
  void LimitOpenFiles() const;
  struct Round {
    std::size_t unsealed = 0;  // closed segments without an index
    int rewrites = 0;
    bool is_short = false;  // of room
    bool has_dropped = false;
  };
  void RetireActive(const Round& round);
  int WriteAnew(CBodySegment& segment, const CBodySegment::Facts& facts);
  void TidyClosed(CBodySegment& segment, Round& round);
  void Drop(const CBodySegment& segment);
  static void Report(const char* what, const std::string& file, int error);

  // This number of segments may be open, and a few more: those without an index, and those that somebody is reading.
  static constexpr std::size_t kMostOpenFiles = 512;

  HostSystem::IFolder& root_;
  const EMode mode_;
  CStoreRoom* const room_;
  std::unique_ptr<HostSystem::IFolder> folder_;  // null until there is one, as the next
  std::unique_ptr<SegmentFolder> segment_folder_;
  mutable std::atomic<std::size_t> close_above_{kMostOpenFiles};  // open files

  mutable std::shared_mutex segments_mutex_;  // guards the next two
  std::map<std::uint32_t, SegmentPointer> segments_;
  std::vector<HostSystem::FolderEntry> unreadable_;

  std::mutex append_mutex_;                // guards the next three
  SegmentPointer active_;                  // null until something is appended
  std::vector<SegmentPointer> unflushed_;  // segments of this run that may hold what is not durable
  std::uint32_t next_number_ = 1;

  std::mutex flush_mutex_;  // held while a flush is under way
  std::atomic<std::uint64_t> appended_{0};
  std::atomic<std::uint64_t> flushed_{0};  // bodies that were appended before the last flush

  std::atomic<bool> has_lost_{false};  // a flush has failed, and not all that it was about is given up yet
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BODY_LOG_H
