// The only connection that changes a database file. It carries out batches of writes.
#ifndef TANSY_DB_LAYER_SQLITE_WRITER_H
#define TANSY_DB_LAYER_SQLITE_WRITER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "db_layer/GroupCommit.h"
#include "db_layer/SqliteHandle.h"

namespace db_layer {

// By this the writer tells the sequence source about the statements that it runs.
class IWriterSequences : public ISequenceSource {
 public:
  // Says that values may be reserved on `handle` from here on, inside its transaction; null when no statement runs.
  virtual void UseTransactionOf(CSqliteHandle* handle) = 0;
  // Says that the file is opened (again): values reserved before may belong to another file.
  virtual void Forget() = 0;
};

// Threads: one at a time, except for Generation.
class CSqliteWriter {
 public:
  // `checkpoints` is locked while the file is opened and while the log is emptied after a failure, because nobody else
  // may copy the log meanwhile.
  CSqliteWriter(std::string path, const SqliteOptions& options, IWriterSequences& sequences, std::mutex& checkpoints);

  // Opens the file when it is not open, when another file is behind the path by now (which is noticed within a second),
  // or when the connection does not recover from a failure.
  bool EnsureOpen(SqlError& error);
  // Passes the commit barrier, then commits the batch in one transaction, in which a refused write fails alone. When
  // the barrier or the commit fails, all writes fail and nothing is applied. After an exception (std::bad_alloc)
  // nothing is applied either.
  void RunBatch(const std::vector<SqlWrite*>& batch);
  // Gives the pages in the write-ahead log after the last commit.
  int LogPages() const { return handle_ ? handle_->LogPages() : 0; }
  // Changes when the file is opened again; other connections should then be opened again too. Threads: any.
  int Generation() const { return generation_; }

 private:
  enum class ESavepoints { kNone, kForEachWrite };

  void RunTogether(std::vector<SqlWrite*>& writes) noexcept;
  bool RunTransaction(std::vector<SqlWrite*>& writes, ESavepoints savepoints);
  bool RunInSavepoint(SqlWrite& write);
  bool RunStatements(SqlWrite& write) noexcept;
  void RunAlone(SqlWrite& write) noexcept;
  void RollBack() noexcept;
  bool HasMoved();
  bool Recovers();
  bool Reopen(SqlError& error);

  const std::string path_;
  const SqliteOptions options_;
  IWriterSequences& sequences_;
  std::mutex& checkpoints_;
  std::unique_ptr<CSqliteHandle> handle_;
  std::int64_t looked_at_ = 0;  // value of TimeUtil::Uptime when the path was looked at last
  bool is_in_doubt_ = false;    // the last batch met a failure that may be due to the connection
  std::atomic<int> generation_{0};
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_WRITER_H
