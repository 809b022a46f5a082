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
#include <string_view>
#include <vector>

#include "StoredName.h"

namespace Tansy::Host {

enum class EStoreResult {
  kDone,
  kNoSpace,
  kMissing,  // nothing is stored under this name
  kInvalid,  // the name is no name of this store
  kDamaged,  // the bytes are not those that were stored
  kFailed,   // the system refused; the reason is in the log
};

enum class EContent {
  kObject,   // bytes of objects: a row refers to them, and bytes without a row may be freed
  kPicture,  // bytes of pictures: their address was sent to a client, so they are freed by name only
};

enum class EStoreUse {
  kServe,   // the place is made when it is missing, and what earlier runs left unfinished is taken over
  kShare,   // the same beside other processes that do so too; what is unfinished is noted in the data folder
  kRepair,  // as kLook, but stored bytes can be removed
  kLook,    // nothing is changed, and nothing counts as new; another process may be using the store
};

struct FreeDeleter {
  void operator()(char* data) const { std::free(data); }
};

// Bytes that were read. Their memory comes from malloc, because the server frees it with free.
struct ReadBuffer {
  std::unique_ptr<char, FreeDeleter> data;
  std::uint32_t size = 0;
};

// Stored bytes as the check sees them.
struct StoredEntry {
  StoredName name;         // empty for bytes that nothing can refer to
  std::string path;        // path inside the store
  std::uint64_t size = 0;  // bytes
  EContent content = EContent::kObject;
  bool is_temporary = false;  // a write that never finished: nothing can refer to it
  bool is_damaged = false;    // not what was stored; without a name, a file in which nothing can be found
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

  // Stores everything under a new name. When it fails, nothing of it is left. The bytes of a small object are durable
  // only after the next MakeDurable; everything else is when this returns.
  virtual EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) = 0;
  // Makes durable what was stored, as far as this store was told to. It has to be called before statements are
  // committed that name stored bytes. Returns false, with a reason, when they must not be committed.
  virtual bool MakeDurable(const std::vector<std::string_view>& statements, std::string& error) = 0;
  // Stores bytes at an offset; a name without an id asks for a new one, other names come from this function. Gaps that
  // were never written read as zeros.
  virtual EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) = 0;
  // Stores bytes at an offset under a name that any store has given, and makes the name when there is none of it. The
  // bytes are durable when this returns. It counts as a write of new bytes. A picture must be given whole, and then
  // appears as a whole; one that is there is replaced.
  virtual EStoreResult SaveNamed(const StoredName& name, std::uint64_t offset, const char* data,
                                 std::uint32_t size) = 0;
  virtual EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) = 0;
  // Reads at most `size` bytes, fewer (even none) at the end.
  virtual EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                 ReadBuffer& buffer) = 0;
  // Says whether stored bytes can be looked for: kDone, or kFailed. What is found is not read, and nothing is logged.
  virtual EStoreResult Look() = 0;
  // Says how many bytes a long download should read at a time; 0 leaves that to the server.
  virtual std::uint32_t DownloadChunk() const = 0;
  virtual EStoreResult Remove(const StoredName& name) = 0;

  // From the begin to the end of a read, ranges of these bytes can be read, whatever removes them meanwhile. kDone
  // counts one reader of the name, who must be ended later; every other result counts none.
  virtual EStoreResult BeginRead(const StoredName& name) = 0;
  virtual void EndRead(const StoredName& name) = 0;

  // Says whether the name is a picture's.
  virtual bool IsPicture(const StoredName& name) const = 0;
  // Shows stored bytes of one kind, in no order, until the visitor returns false; the visitor may remove what it is
  // shown. Returns false when a folder cannot be read.
  virtual bool ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) = 0;
  // Removes stored bytes by the path that ForEach gave.
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
  // Gives back the room of removed small bodies and of notes about forgotten names; it has to be called from time to
  // time, by one thread. It ends within a second or so when `is_stopping` says so; null: never.
  virtual void Tidy(const std::function<bool()>& is_stopping) = 0;
  // For a store that another process has open: looks again at what that process has done, and adds the names of new
  // bytes as that process knows them. Returns false when it cannot.
  virtual bool LookAgain(std::vector<StoredName>& new_names) = 0;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_OBJECT_STORE_H
