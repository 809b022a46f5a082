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

// Bytes that were stored lately, as far as housekeeping is interested in them.
struct NewBytes {
  StoredName name;
  std::int64_t untouched_seconds = 0;
  bool failed = false;  // its last write failed, or the process that wrote it is gone
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

  // From the begin to the end of a read, ranges of these bytes can be read whatever removes them meanwhile. kDone
  // counts one reader of the name; each is to be ended. Anything else counts none.
  virtual EStoreResult BeginRead(const StoredName& name) = 0;
  virtual void EndRead(const StoredName& name) = 0;

  // Whether the name is a picture's.
  virtual bool IsPicture(const StoredName& name) const = 0;
  // Stored files of one kind, in no order, until the visitor returns false; it may remove what it is shown. False when
  // a folder cannot be read.
  virtual bool ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) = 0;
  // Removes a stored file by the path that ForEach gave.
  virtual EStoreResult RemovePath(const std::string& path) = 0;
  virtual EStoreResult GetSize(const StoredName& name, std::uint64_t& size) = 0;

  // What was stored and nobody has told yet that a row names it: from its first byte until ForgetNew, over restarts.
  // GetNew gives what nobody is writing and was written last at least `seconds` ago, and what is known to have failed.
  // Pictures are never among it once they are stored.
  virtual std::vector<NewBytes> GetNew(std::int64_t seconds) const = 0;
  virtual bool IsNew(const StoredName& name) const = 0;
  // Counts as a write of these names: their upload is still running.
  virtual void TouchNew(const std::vector<StoredName>& names) = 0;
  // Names that a row names now.
  virtual void ForgetNew(const std::vector<StoredName>& names) = 0;
  // Frees the bytes of a name that GetNew gave, and forgets it.
  virtual EStoreResult FreeNew(const StoredName& name) = 0;
  // Lets go of what is written down about forgotten names; to be called from time to time.
  virtual void CompactNew() = 0;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_OBJECT_STORE_H
