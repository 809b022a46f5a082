#ifndef TANSY_HOST_NEW_BYTES_LOG_H
#define TANSY_HOST_NEW_BYTES_LOG_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "HostSystem/Files.h"
#include "ObjectStore.h"
#include "StoredName.h"

namespace Tansy::Host {

// Names stored bytes until it is seen that a row names them.
//
// A name is noted here, and in a file of the store's folder, before its first byte is written. It is forgotten when a
// row is seen that names it, or when its bytes are gone. So the next start knows what a crash has left, without a look
// at every file. A note is certain to be on the disk only when its page has been turned: a power failure may lose the
// youngest notes, and the check finds the bytes that they stood for.
//
// The notes are files "new.1", "new.2" and so on, with one line per name, which only grow. From time to time the next
// file is begun, and files whose names are all forgotten are removed. Threads: any.
class CNewBytesLog {
 public:
  explicit CNewBytesLog(HostSystem::IFolder& root) : root_(root) {}

  // Takes over what earlier runs noted. Their writers are gone, so all of it counts as failed. Returns 0 or errno.
  int Load();

  // Notes a name before its file is made, and counts the write as begun. Returns 0 or errno; after an error the file
  // must not be made.
  int Add(const StoredName& name);
  // These two frame every further write of a name. Names that are not noted are left alone.
  void BeginWrite(const StoredName& name);
  void EndWrite(const StoredName& name, bool done);

  // Ends a write that has begun, however the block is left: as failed, unless SetDone was called.
  class CWrite {
   public:
    CWrite(CNewBytesLog& log, const StoredName& name) : log_(log), name_(name) {}
    ~CWrite() { log_.EndWrite(name_, done_); }
    CWrite(const CWrite&) = delete;
    CWrite& operator=(const CWrite&) = delete;
    void SetDone() { done_ = true; }

   private:
    CNewBytesLog& log_;
    const StoredName& name_;
    bool done_ = false;
  };

  // Makes the names count as written just now.
  void Touch(const std::vector<StoredName>& names);
  void Forget(const StoredName& name);

  bool Contains(const StoredName& name) const;
  // Gives the names that nobody is writing and whose last write was at least `seconds` ago or failed.
  std::vector<NewBytes> GetUntouched(std::int64_t seconds) const;

  // Begins the next file unless the current one is empty, syncs what the current one still holds, and removes the files
  // that are not needed any more.
  void TurnPage();

  // Reads the names in the notes of a store that another process has open.
  static int Read(HostSystem::IFolder& root, std::vector<StoredName>& names);

 private:
  struct Note {
    StoredName name;
    std::uint64_t page = 0;
    int writes = 0;               // number of writes under way
    std::int64_t last_write = 0;  // uptime of the last write
    bool failed = false;
  };
  struct Page {
    std::size_t names = 0;  // number of names that are not forgotten yet
  };

  int OpenPage();
  void RemoveEmptyPages();

  HostSystem::IFolder& root_;
  mutable std::mutex mutex_;                     // guards what follows
  std::unordered_map<std::string, Note> notes_;  // by id
  std::map<std::uint64_t, Page> pages_;          // by number; the last is the current one once `file_` is there
  std::unique_ptr<HostSystem::IFile> file_;      // null until the first note
  std::uint64_t file_size_ = 0;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_NEW_BYTES_LOG_H
