#include "db_layer/SqliteWriter.h"

#include <sqlite3.h>

#include <algorithm>
#include <exception>
#include <string_view>
#include <utility>

#include "TansyBase/TimeUtil.h"
#include "db_layer/FolderSync.h"
#include "db_layer/SqlWords.h"
#include "db_layer/WriteBatch.h"

namespace db_layer {

namespace details {
namespace {

// Lets sequences reserve values in the transaction of one statement, and ends that however the statement ends.
class CTransactionUse {
 public:
  CTransactionUse(IWriterSequences& sequences, CSqliteHandle* handle) : sequences_(sequences) {
    sequences_.UseTransactionOf(handle);
  }
  ~CTransactionUse() { sequences_.UseTransactionOf(nullptr); }
  CTransactionUse(const CTransactionUse&) = delete;
  CTransactionUse& operator=(const CTransactionUse&) = delete;

 private:
  IWriterSequences& sequences_;
};

// SQLite refuses or ignores these inside a transaction.
bool MustRunAlone(const SqlWrite& write) {
  if (write.statements->size() != 1) {
    return false;
  }
  const std::string_view sql = SkipBlanks(write.statements->front());
  return StartsWithWord(sql, "VACUUM") || StartsWithWord(sql, "PRAGMA");
}

}  // namespace
}  // namespace details

CSqliteWriter::CSqliteWriter(std::string path, const SqliteOptions& options, IWriterSequences& sequences,
                             std::mutex& checkpoints)
    : path_(std::move(path)), options_(options), sequences_(sequences), checkpoints_(checkpoints) {}

void CSqliteWriter::RunBatch(const std::vector<SqlWrite*>& batch) {
  SqlError error;
  if (!EnsureOpen(error)) {
    FailAll(batch, error);
    return;
  }
  std::vector<SqlWrite*> together;
  std::vector<SqlWrite*> alone;
  for (SqlWrite* write : batch) {
    (details::MustRunAlone(*write) ? alone : together).push_back(write);
  }
  if (!PassBarrier(together, error)) {
    FailAll(together, error);
    together.clear();
  }
  // From here on nothing may be thrown, because a write that has been committed must not be reported as failed.
  RunTogether(together);
  for (SqlWrite* write : alone) {
    RunAlone(*write);
  }
  is_in_doubt_ = std::any_of(batch.begin(), batch.end(),
                             [](const SqlWrite* write) { return !write->succeeded && IsBroken(write->error); });
}

void CSqliteWriter::RunTogether(std::vector<SqlWrite*>& writes) noexcept {
  try {
    // Nearly always all writes succeed, and then none of them needs a savepoint. Otherwise they run again with one
    // each.
    bool done = writes.empty() || RunTransaction(writes, ESavepoints::kNone);
    // A full or failing disk can undo the whole transaction. The other writes then run again without the one that
    // caused it, so each round is shorter than the one before.
    while (!done && !writes.empty()) {
      done = RunTransaction(writes, ESavepoints::kForEachWrite);
    }
  } catch (const std::exception&) {
    // This never happens after a commit, because nothing allocates between the commit and the end of RunTransaction.
    for (SqlWrite* write : writes) {
      write->FailForMemory();
    }
    RollBack();
  }
}

// When memory is missing, this may fail too; the next transaction then begins with it.
void CSqliteWriter::RollBack() noexcept {
  try {
    SqlError ignored;
    if (handle_->IsInTransaction()) {
      handle_->RunOwn("ROLLBACK", ignored);
    }
  } catch (const std::exception&) {
    return;
  }
}

bool CSqliteWriter::EnsureOpen(SqlError& error) {
  const bool works = handle_ && !HasMoved() && (!is_in_doubt_ || Recovers());
  return works || Reopen(error);
}

// Asks at most once a second, because asking is a call of the operating system.
bool CSqliteWriter::HasMoved() {
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  if (now == looked_at_) {
    return false;
  }
  looked_at_ = now;
  return handle_->HasMoved();
}

// Copies all of the log into the database and empties it. This shows that the file works again, and it also removes
// what a failed commit left behind in the log.
bool CSqliteWriter::Recovers() {
  const std::lock_guard lock(checkpoints_);
  SqlError error;
  is_in_doubt_ = !handle_->CopyAllAgain() || !handle_->RunOwn("PRAGMA platform.wal_checkpoint(TRUNCATE)", error);
  return !is_in_doubt_;
}

// The old connection is closed after the new one is open. If all were closed in between, the next one would read the
// log as after a crash, and would take a commit that failed while it was made durable for a successful one.
bool CSqliteWriter::Reopen(SqlError& error) {
  const std::lock_guard lock(checkpoints_);
  auto handle = std::make_unique<CSqliteHandle>();
  if (!handle->Open(path_, options_, sequences_, error) || !handle->PrepareToWrite(error)) {
    return false;
  }
  // A new file whose folder entry is missing after a power failure is as lost as one that was never written.
  if (options_.full_durability && !SyncFolderOf(path_)) {
    error = {SQLITE_IOERR_DIR_FSYNC, "the folder of the database cannot be made durable"};
    return false;
  }
  handle_ = std::move(handle);
  is_in_doubt_ = false;
  ++generation_;
  sequences_.Forget();
  return true;
}

// Returns false when the transaction was undone on the way; `writes` then holds what has to run again.
bool CSqliteWriter::RunTransaction(std::vector<SqlWrite*>& writes, ESavepoints savepoints) {
  SqlError error;
  // An old transaction may still be open, if memory ran out in the middle of a batch and again at its end. That batch
  // has failed.
  RollBack();
  if (!handle_->RunOwn("BEGIN IMMEDIATE", error)) {
    FailAll(writes, error);
    return true;
  }
  for (auto it = writes.begin(); it != writes.end(); ++it) {
    SqlWrite& write = **it;
    write.succeeded = savepoints == ESavepoints::kForEachWrite ? RunInSavepoint(write) : RunStatements(write);
    if (!handle_->IsInTransaction()) {
      writes.erase(it);
      return false;
    }
    if (!write.succeeded && savepoints == ESavepoints::kNone) {
      RollBack();
      return false;
    }
  }
  std::erase_if(writes, [](const SqlWrite* write) { return !write->succeeded; });
  if (handle_->RunOwn("COMMIT", error)) {
    return true;
  }
  RollBack();
  FailAll(writes, error);
  return true;
}

bool CSqliteWriter::RunInSavepoint(SqlWrite& write) {
  if (!handle_->RunOwn("SAVEPOINT one_write", write.error)) {
    return false;
  }
  const bool succeeded = RunStatements(write);
  if (!handle_->IsInTransaction()) {
    return false;
  }
  SqlError error;
  const bool undone = succeeded || handle_->RunOwn("ROLLBACK TO one_write", error);
  if (undone && handle_->RunOwn("RELEASE one_write", error)) {
    return succeeded;
  }
  // The traces of this write can no longer be separated from the work of the others.
  if (succeeded) {
    write.error = error;
  }
  handle_->RunOwn("ROLLBACK", error);
  return false;
}

bool CSqliteWriter::RunStatements(SqlWrite& write) noexcept {
  try {
    for (const std::string& sql : *write.statements) {
      const details::CTransactionUse use(sequences_, handle_.get());
      if (!handle_->Run(sql, write.rows, write.error)) {
        return false;
      }
    }
    return true;
  } catch (const std::exception&) {
    // When memory is missing for one write, the others have not failed.
    write.FailForMemory();
    return false;
  }
}

void CSqliteWriter::RunAlone(SqlWrite& write) noexcept {
  try {
    write.succeeded = handle_->Run(write.statements->front(), write.rows, write.error);
  } catch (const std::exception&) {
    write.FailForMemory();
  }
}

}  // namespace db_layer
