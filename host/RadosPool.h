#ifndef TANSY_HOST_RADOS_POOL_H
#define TANSY_HOST_RADOS_POOL_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "RadosLibrary.h"
#include "RadosUrl.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::Host {

// A change of one object of a pool, which takes effect as a whole or not at all. The fields describe what is done, in
// this order; `result` is 0 or errno once the batch has waited. Bytes must stay where they are until then.
struct RadosChange {
  std::string object;
  bool only_existing = false;  // else ENOENT when there is no such object
  bool only_larger = false;    // with `sets_size`: else ECANCELED when the number there is not smaller
  bool writes = false;         // `size` bytes at `offset`; the object is made when it is missing
  bool replaces = false;       // the bytes are all that the object holds afterwards; `offset` is 0
  const char* data = nullptr;
  std::size_t size = 0;
  std::uint64_t offset = 0;
  bool sets_size = false;
  std::uint64_t whole_size = 0;  // the number that is kept beside the bytes
  bool removes = false;
  int result = 0;
};

// A look at one object, at one moment. `size` bytes are read at `offset`, fewer at the object's end.
struct RadosLook {
  std::string object;
  char* data = nullptr;
  std::size_t size = 0;
  std::uint64_t offset = 0;
  std::size_t done = 0;        // bytes that were read
  std::uint64_t own_size = 0;  // bytes that this object holds
  bool has_whole_size = false;
  std::uint64_t whole_size = 0;  // the number that RadosChange has set
  int result = 0;
};

// A pool of a Ceph cluster, or a namespace in it. Every call ends within the time-outs, which are those of Ceph's
// settings file; where it sets none, there are some all the same. Results are 0 or an errno value. Threads: any.
class CRadosPool {
 public:
  // Connects. Throws CStartFailure with kExitFailed and a line that says what does not fit.
  explicit CRadosPool(const RadosUrl& url);
  ~CRadosPool();
  CRadosPool(const CRadosPool&) = delete;
  CRadosPool& operator=(const CRadosPool&) = delete;

  // Example: "storage pool photos, namespace tansy"
  const std::string& Describe() const { return description_; }

  // Says that changes are refused from now on, with EROFS.
  void SetReadOnly() { is_read_only_ = true; }
  bool IsReadOnly() const { return is_read_only_; }

  // Whole objects of a few bytes; a longer one is cut at `limit`.
  int ReadText(const std::string& object, std::size_t limit, std::string& text);
  int WriteText(const std::string& object, const std::string& text);

  // Shows the names of all objects, in no order, until the visitor returns false.
  int List(const std::function<bool(std::string_view object)>& visitor);

  // Takes a lock on an object for so many seconds, or holds it for so many more. EBUSY: another connection
  // has it, or one that does not share it.
  enum class ELock { kAlone, kShared };
  int Lock(const std::string& object, ELock kind, const std::string& cookie, int seconds);
  void Unlock(const std::string& object, const std::string& cookie);
  struct Holder {
    std::string client;
    std::string cookie;
  };
  int GetHolders(const std::string& object, std::vector<Holder>& holders);
  int BreakLock(const std::string& object, const Holder& holder);

 private:
  friend class CRadosBatch;

  void Connect(const RadosUrl& url);
  void SetTimeOut(const char* name, double unset, const char* seconds);
  void TakeRoom(std::size_t bytes);
  void GiveRoom(std::size_t bytes);
  [[noreturn]] void Fail(const std::string& what) const;

  const RadosLibrary& rados_;
  std::string description_;
  void* cluster_ = nullptr;
  void* context_ = nullptr;
  std::atomic<bool> is_read_only_{false};

  std::mutex room_mutex_;  // guards the next three
  std::condition_variable room_given_;
  std::size_t under_way_ = 0;  // bytes that librados has copied, or may hold, for operations under way
  TansyNet::CMemoryShare share_;
};

// Operations that run side by side. What is started must live until Wait, or until the batch is destroyed, which waits
// too. The bytes of all batches that are under way are bounded, so Start may wait for others. Threads: one.
class CRadosBatch {
 public:
  explicit CRadosBatch(CRadosPool& pool) : pool_(pool) {}
  ~CRadosBatch() { Wait(); }
  CRadosBatch(const CRadosBatch&) = delete;
  CRadosBatch& operator=(const CRadosBatch&) = delete;

  void Start(RadosChange& change);
  void Start(RadosLook& look);
  void Wait();

 private:
  struct Operation;
  static void OnEnd(void* completion, void* argument);
  void Submit(Operation* operation);

  CRadosPool& pool_;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::size_t under_way_ = 0;  // guarded by mutex_
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_POOL_H
