#ifndef TANSY_HOST_READ_CACHE_H
#define TANSY_HOST_READ_CACHE_H

#include <cstdint>
#include <memory>
#include <string>

#include "HostSystem/Files.h"
#include "ObjectStore.h"
#include "RecentlyUsed.h"
#include "StoredName.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::Host {

// What a store keeps ready for readers: whole small bodies, and open files. Bytes never change under a name once they
// are complete; the store calls Drop for a name that it writes to or removes, after it has done so.
//
// Bodies count in the process's account of memory and take at most a sixteenth of its ceiling; when memory is short
// they give way. Where there is no memory to keep something, it is not kept. Threads: any.
class CReadCache {
 public:
  struct Ticket {
    std::uint64_t bodies = 0;
    std::uint64_t files = 0;
  };

  // Copies a range into `buffer`. Returns false when it is not here; what is read instead may then be added with the
  // ticket.
  bool ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer, Ticket& ticket);
  // Offers bytes that were read from the beginning of a body. Only small ones are kept.
  void AddBody(const StoredName& name, const ReadBuffer& buffer, const Ticket& ticket);

  std::shared_ptr<HostSystem::IFile> FindFile(const StoredName& name, Ticket& ticket);
  void AddFile(const StoredName& name, std::shared_ptr<HostSystem::IFile> file, const Ticket& ticket);

  void Drop(const std::string& id);

 private:
  struct Body {
    TansyNet::CMemoryShare share;
    ReadBuffer bytes;
  };

  CRecentlyUsed<std::shared_ptr<const Body>> bodies_;
  CRecentlyUsed<std::shared_ptr<HostSystem::IFile>> files_;
};

// Gets memory for bytes that are handed to the server; not null even for none. Returns false when there is none.
bool Allocate(ReadBuffer& buffer, std::uint32_t size);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_READ_CACHE_H
