// Notes file calls below one folder in a trace. Part of the library that a test puts in front of a server's file calls.
#ifndef TANSY_TESTS_PROVE_POWER_CALLS_RECORDER_H
#define TANSY_TESTS_PROVE_POWER_CALLS_RECORDER_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "TraceFormat.h"

namespace prove {

// What is wrong with the server on purpose, so that a test can show that such a defect is found.
enum class EPlant {
  kNone,
  kNoBodySync,          // the syncs of stored bytes are left out
  kNoFolderSync,        // those of folders are
  kNoCatalogueSync,     // those of the database's log are
  kRowBeforeBytes,      // stored bytes reach the disk only after the row that names them
  kAnswerBeforeCommit,  // a commit reaches the disk only after the next one, and so after its answer
};

// Threads: any. Between a call and its note nobody else may change anything, so both are made under GetMutex.
class CRecorder {
 public:
  // Null when the environment names no trace and no plan of faults.
  static CRecorder* Get();

  std::mutex& GetMutex() { return mutex_; }

  // The number of an open file or folder below the watched one; 0 for every other.
  std::uint64_t NodeOf(int descriptor);
  // The number of the folder that holds the last part of a path, and that last part; 0 when it is not watched.
  struct Place {
    std::uint64_t folder = 0;
    std::string name;
  };
  Place Locate(int folder, const char* path);

  // All of these need the mutex.
  void NoteCreate(const Place& place, std::uint64_t node, bool is_folder);
  void NoteWrite(std::uint64_t node, const void* data, std::size_t size, std::uint64_t offset);
  void NoteResize(std::uint64_t node, std::uint64_t size);
  void NoteRename(const Place& from, const Place& to);
  void NoteRemove(const Place& place);
  void NoteLink(const Place& place, std::uint64_t node);
  // Notes what the C library has written to a file in ways that cannot be seen.
  void NoteContent(std::uint64_t node, int descriptor);
  std::uint64_t NoteSyncBegins(std::uint64_t node);
  void NoteSyncEnds(std::uint64_t node, std::uint64_t number, int error);

  // What came through a socket; does not need the mutex. A plant waits there for commits of a database server.
  void LookAtReceived(std::string_view data);

 private:
  enum class EPart { kOther, kStore, kBodies, kCatalogueLog };

  CRecorder(const char* trace, const std::string& root, const char* plant);
  void TakeOver(const std::string& path, std::uint64_t folder, EPart part, bool is_noted);
  EPart PartOf(const Place& place, bool is_folder) const;
  EPart PartOf(std::uint64_t node) const;
  bool IsSyncLeftOut(std::uint64_t node) const;
  void Note(RecordHead head, std::string_view name = {}, std::string_view other_name = {}, std::string_view data = {});
  bool Hold(const RecordHead& head, const std::string& record);
  void Release();
  void Append(const std::string& record);

  std::mutex mutex_;
  int trace_ = -1;
  EPlant plant_ = EPlant::kNone;
  dev_t device_ = 0;
  std::uint64_t root_ = 0;
  std::uint64_t syncs_ = 0;
  std::mutex nodes_mutex_;  // guards what follows; taken last
  struct Node {
    bool is_folder = false;
    EPart part = EPart::kOther;
  };
  std::unordered_map<std::uint64_t, Node> nodes_;
  std::vector<std::string> held_;    // records that a plant holds back
  std::vector<std::string> before_;  // those of the commit before
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_CALLS_RECORDER_H
