#ifndef TANSY_HOST_HELD_FILES_H
#define TANSY_HOST_HELD_FILES_H

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "HostSystem/Files.h"
#include "StoredName.h"

namespace Tansy::Host {

// Keeps files open while somebody reads them, so that they can be read to their last byte after they were removed.
// Readers of one name share one file. Threads: any.
class CHeldFiles {
 public:
  // Counts one more reader. When others read the name already, their file stays and `file` is not needed.
  void Begin(const StoredName& name, std::shared_ptr<HostSystem::IFile> file) {
    const std::lock_guard lock(mutex_);
    Held& held = files_.try_emplace(name.id, Held{std::move(file), 0}).first->second;
    ++held.readers;
  }

  void End(const StoredName& name) {
    std::shared_ptr<HostSystem::IFile> last;  // closed outside the lock
    const std::lock_guard lock(mutex_);
    const auto held = files_.find(name.id);
    if (held != files_.end() && --held->second.readers == 0) {
      last = std::move(held->second.file);
      files_.erase(held);
    }
  }

  // Returns null when nobody holds the file.
  std::shared_ptr<HostSystem::IFile> Find(const StoredName& name) const {
    const std::lock_guard lock(mutex_);
    const auto held = files_.find(name.id);
    return held == files_.end() ? nullptr : held->second.file;
  }

 private:
  struct Held {
    std::shared_ptr<HostSystem::IFile> file;
    std::size_t readers = 0;
  };

  mutable std::mutex mutex_;
  std::map<std::string, Held> files_;  // by id
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HELD_FILES_H
