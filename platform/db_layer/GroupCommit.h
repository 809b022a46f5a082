// Serialises the writers of one database. One of them at a time is the leader and writes for all who wait.
#ifndef TANSY_DB_LAYER_GROUP_COMMIT_H
#define TANSY_DB_LAYER_GROUP_COMMIT_H

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "db_layer/Connect.h"
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

// A write for which nobody waits; `done` tells what became of it.
struct PostedWrite {
  std::vector<std::string> statements;
  WriteDone done;
  SqlWrite write;
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
  // Takes a write, carries it out with a batch, and calls its `done`. When no batch is under way, the caller runs it
  // now, and goes on with what others post meanwhile; else it returns at once, and the thread that runs the next batch
  // calls `done`. When the batch under way is run by somebody who called Run, and nobody has done so before, the caller
  // waits for the end of that batch and runs the next one, because the other's thread must not be kept for what is
  // posted. std::bad_alloc leaves the write with the caller.
  void Post(std::unique_ptr<PostedWrite>& write);
  // Counts the writes of the next batch.
  std::size_t CountWaiting() const;

 private:
  struct Waiter {
    SqlWrite* write = nullptr;  // null for one that only waits to lead
    bool done = false;
    bool leads = false;
    std::condition_variable wake;
  };

  using PostedWrites = std::vector<std::unique_ptr<PostedWrite>>;
  void Lead(std::unique_lock<std::mutex> lock) noexcept;
  void LeadNext(std::unique_lock<std::mutex> lock) noexcept;
  void ChooseLeader() noexcept;
  void Execute(const std::vector<Waiter*>& waiters, const PostedWrites& posted) noexcept;
  static void Report(PostedWrite& posted) noexcept;

  const Executor executor_;
  mutable std::mutex mutex_;
  // Everything below is guarded by mutex_. Where writes wait, there is a leader, or a leader of before that looks for
  // them.
  bool has_leader_ = false;
  bool leader_waits_ = false;    // the leader called Run, so it leads one batch only
  Waiter* successor_ = nullptr;  // leads after such a leader
  std::vector<Waiter*> waiting_;
  PostedWrites posted_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_GROUP_COMMIT_H
