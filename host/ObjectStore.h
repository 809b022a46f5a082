// Where bytes are kept. The server's callbacks are thin adapters over this interface; a store knows nothing of buckets,
// catalogues and protocols.
#ifndef TANSY_HOST_OBJECT_STORE_H
#define TANSY_HOST_OBJECT_STORE_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "StoredName.h"

namespace Tansy::Host {

enum class EStoreResult {
  kDone,
  kNoSpace,
  kMissing,  // nothing is stored under this name
  kInvalid,  // no name of this store
  kFailed,   // the system refused; the reason is in the log
};

enum class EContent {
  kObject,   // the catalogue refers to it: what no row refers to may be freed
  kPicture,  // its address was given away: never freed but by name
};

struct FreeDeleter {
  void operator()(char* data) const { std::free(data); }
};

// Bytes read, in memory from malloc: the server frees what it is handed with free.
struct ReadBuffer {
  std::unique_ptr<char, FreeDeleter> data;
  std::uint32_t size = 0;
};

// One stored file as the check sees it.
struct StoredEntry {
  StoredName name;         // when `is_temporary` is false
  std::string path;        // inside the store
  std::uint64_t size = 0;  // bytes
  EContent content = EContent::kObject;
  bool is_temporary = false;  // a write that never finished: nothing can refer to it
};

// Threads: every member may be called from any thread, also for the same name. A write that overlaps a read gives each
// byte as it was before or after. Errors: results; nothing throws but for want of memory.
class IObjectStore {
 public:
  virtual ~IObjectStore() = default;

  // Stores everything under a new name. Nothing of it is left when it fails.
  virtual EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) = 0;
  // Stores bytes at an offset; a name without an id asks for a new one. Bytes never written before written ones read as
  // zeros.
  virtual EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) = 0;
  virtual EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) = 0;
  // At most `size` bytes, fewer (even none) at the end.
  virtual EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                 ReadBuffer& buffer) = 0;
  virtual EStoreResult Remove(const StoredName& name) = 0;

  // Whether the name is a picture's.
  virtual bool IsPicture(const StoredName& name) const = 0;
  // Every stored file, in no order; the visitor may remove what it is shown. False when a folder cannot be read.
  virtual bool ForEach(const std::function<void(const StoredEntry&)>& visitor) = 0;
  // Removes a stored file by the path that ForEach gave.
  virtual EStoreResult RemovePath(const std::string& path) = 0;
  virtual EStoreResult GetSize(const StoredName& name, std::uint64_t& size) = 0;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_OBJECT_STORE_H
