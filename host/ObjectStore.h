// The place where bytes are kept. The server's callbacks are thin adapters over this interface; a store knows nothing
// of buckets, catalogues and protocols.
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
  kInvalid,  // the name is no name of this store
  kFailed,   // the system refused; the reason is in the log
};

enum class EContent {
  kObject,   // bytes of objects: a row refers to them, and bytes without a row may be freed
  kPicture,  // bytes of pictures: their address was sent to a client, so they are freed by name only
};

struct FreeDeleter {
  void operator()(char* data) const { std::free(data); }
};

// Bytes that were read. Their memory comes from malloc, because the server frees it with free.
struct ReadBuffer {
  std::unique_ptr<char, FreeDeleter> data;
  std::uint32_t size = 0;
};

// One stored file as the check sees it.
struct StoredEntry {
  StoredName name;         // set when `is_temporary` is false
  std::string path;        // path inside the store
  std::uint64_t size = 0;  // bytes
  EContent content = EContent::kObject;
  bool is_temporary = false;  // a write that never finished: nothing can refer to it
};

// Bytes that were stored lately, as housekeeping needs to know about them.
struct NewBytes {
  StoredName name;
  std::int64_t untouched_seconds = 0;
  bool failed = false;  // its last write failed, or the process that wrote it is gone
};

// Threads: every member may be called from any thread, also for the same name. A read that a write overlaps gives each
// byte as it was before or after the write. Errors: results say what failed; only std::bad_alloc is thrown.
class IObjectStore {
 public:
  virtual ~IObjectStore() = default;

  // Stores everything under a new name. When it fails, nothing of it is left.
  virtual EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) = 0;
  // Stores bytes at an offset; a name without an id asks for a new one. Gaps that were never written read as zeros.
  virtual EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) = 0;
  virtual EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) = 0;
  // Reads at most `size` bytes, fewer (even none) at the end.
  virtual EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                 ReadBuffer& buffer) = 0;
  virtual EStoreResult Remove(const StoredName& name) = 0;

  // From the begin to the end of a read, ranges of these bytes can be read, whatever removes them meanwhile. kDone
  // counts one reader of the name, who must be ended later; every other result counts none.
  virtual EStoreResult BeginRead(const StoredName& name) = 0;
  virtual void EndRead(const StoredName& name) = 0;

  // Says whether the name is a picture's.
  virtual bool IsPicture(const StoredName& name) const = 0;
  // Shows stored files of one kind, in no order, until the visitor returns false; the visitor may remove what it is
  // shown. Returns false when a folder cannot be read.
  virtual bool ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) = 0;
  // Removes a stored file by the path that ForEach gave.
  virtual EStoreResult RemovePath(const std::string& path) = 0;
  virtual EStoreResult GetSize(const StoredName& name, std::uint64_t& size) = 0;

  // GetNew gives stored bytes for which ForgetNew has not been called yet, over restarts: those that nobody is writing
  // and that were last written at least `seconds` ago, and those whose write is known to have failed. Pictures are not
  // among them once they are stored.
  virtual std::vector<NewBytes> GetNew(std::int64_t seconds) const = 0;
  virtual bool IsNew(const StoredName& name) const = 0;
  // Counts as a write of these names, because their upload is still running.
  virtual void TouchNew(const std::vector<StoredName>& names) = 0;
  // Forgets names that a row names now.
  virtual void ForgetNew(const std::vector<StoredName>& names) = 0;
  // Frees the bytes of a name that GetNew gave, and forgets it.
  virtual EStoreResult FreeNew(const StoredName& name) = 0;
  // Gives back the room of notes about forgotten names; it has to be called from time to time.
  virtual void CompactNew() = 0;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_OBJECT_STORE_H
