// Serialises the writers of one database. One of them at a time is the leader and writes for all who wait.
#ifndef TANSY_DB_LAYER_GROUP_COMMIT_H
#define TANSY_DB_LAYER_GROUP_COMMIT_H

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "db_layer/RowBuffer.h"
#include "db_layer/SqlError.h"

namespace db_layer {

// One caller's statements: all of them take effect, or none. The object is on the caller's stack while the caller
// waits.
struct SqlWrite {
  const std::vector<std::string>* statements = nullptr;
  CRowBuffer* rows = nullptr;  // takes the rows of the last statement; may be null
  bool succeeded = false;
  SqlError error;

  void FailForMemory() noexcept;
};

class CGroupCommit {
 public:
  // Carries out a batch and fills in `succeeded` and `error` of each write. One thread at a time calls it, without a
  // lock. An exception means that the whole batch has failed and nothing of it was committed.
  using Executor = std::function<void(const std::vector<SqlWrite*>& batch)>;

  explicit CGroupCommit(Executor executor);

  // Returns when the write was carried out, or throws std::bad_alloc before the write was queued. A single caller
  // starts at once; callers that come while a batch is under way make up the next batch.
  void Run(SqlWrite& write);
  // Counts the callers that the next batch will serve.
  std::size_t CountWaiting() const;

 private:
  struct Waiter {
    SqlWrite* write = nullptr;
    bool done = false;
    bool leads = false;
    std::condition_variable wake;
  };

  void Execute(const std::vector<Waiter*>& group) noexcept;

  const Executor executor_;
  mutable std::mutex mutex_;
  bool has_leader_ = false;
  std::vector<Waiter*> waiting_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_GROUP_COMMIT_H
