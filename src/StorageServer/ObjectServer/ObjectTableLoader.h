#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_TABLE_LOADER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_TABLE_LOADER_H

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "StorageServer/ObjectServer/ObjectTable.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

// Fills a table with many objects that come one after another. A thread of its own puts them into the table, while the
// caller fetches the next ones. Few objects, or a system that has no thread to give, need no thread. Threads: one at a
// time.
class CObjectTableLoader : private TansyBase::CNoncopyable {
 public:
  static constexpr std::size_t kBatch = 1024;

  // `table` must live longer than the loader.
  explicit CObjectTableLoader(CObjectTable& table) : table_(table) {}
  // Afterwards all objects are in the table.
  ~CObjectTableLoader();

  // Takes an object; the first one of a name counts. Throws std::bad_alloc, and the object is then not taken.
  void Add(CPackedObject::Pointer object);

 private:
  using Batch = std::vector<CPackedObject::Pointer>;

  void HandBatchOver();
  bool HasThread() noexcept;
  void Work() noexcept;
  void PutAll(Batch& batch) noexcept;

  CObjectTable& table_;
  Batch filling_;  // the caller's own
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Batch waiting_;           // guarded by mutex_
  bool has_ended_ = false;  // guarded by mutex_
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_TABLE_LOADER_H
