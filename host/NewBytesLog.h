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

// The stored bytes of which nobody has seen yet that a row names them.
//
// A name is noted here, and in a file of the store's folder, before its first byte is written. It is forgotten when a
// row is seen that names it, or when its bytes are gone. So what a crash leaves is known at the next start without a
// look at every file. A note reaches the disk for certain when its page is turned: a power failure may lose the
// youngest ones, and the check finds what they stood for.
//
// The notes are files "new.1", "new.2" and so on, one line per name, which only grow. From time to time the next one is
// begun, and one whose names are all forgotten is removed. Threads: any.
class CNewBytesLog {
 public:
  explicit CNewBytesLog(HostSystem::IFolder& root) : root_(root) {}

  // Takes over what earlier runs noted. Their writers are gone, so all of it counts as failed. 0, or errno.
  int Load();

  // Before the file is made; the write counts as begun. 0, or errno: then the file must not be made.
  int Add(const StoredName& name);
  // Around every further write of a name. Names that are not noted are left alone.
  void BeginWrite(const StoredName& name);
  void EndWrite(const StoredName& name, bool done);
  // As if they were written just now.
  void Touch(const std::vector<StoredName>& names);
  void Forget(const StoredName& name);

  bool Contains(const StoredName& name) const;
  // Names that nobody is writing and whose last write was at least `seconds` ago or failed.
  std::vector<NewBytes> GetUntouched(std::int64_t seconds) const;

  // Begins the next file unless the current one is empty, flushes what stays on the current one, and removes those that
  // are not needed any more.
  void TurnPage();

  // The names in the notes of a store that another process has open.
  static int Read(HostSystem::IFolder& root, std::vector<StoredName>& names);

 private:
  struct Note {
    StoredName name;
    std::uint64_t page = 0;
    int writes = 0;               // under way
    std::int64_t last_write = 0;  // uptime
    bool failed = false;
  };
  struct Page {
    std::size_t names = 0;  // not forgotten yet
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
