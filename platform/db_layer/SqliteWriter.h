// The only connection that changes a database file. It carries out batches of writes.
#ifndef TANSY_DB_LAYER_SQLITE_WRITER_H
#define TANSY_DB_LAYER_SQLITE_WRITER_H

#include <atomic>
#include <memory>
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
  CSqliteWriter(std::string path, const SqliteOptions& options, IWriterSequences& sequences);

  // Opens the file when it is not open, when another file is behind the path by now, or when the connection does not
  // recover from a failure.
  bool EnsureOpen(SqlError& error);
  // Passes the commit barrier, then commits the batch in one transaction with one savepoint per write, so that a
  // refused write fails alone. When the barrier or the commit fails, all writes fail and nothing is applied. After an
  // exception (std::bad_alloc) nothing is applied either.
  void RunBatch(const std::vector<SqlWrite*>& batch);
  // Changes when the file is opened again; other connections should then be opened again too. Threads: any.
  int Generation() const { return generation_; }

 private:
  void RunTogether(std::vector<SqlWrite*>& writes) noexcept;
  bool RunTransaction(std::vector<SqlWrite*>& writes);
  bool RunInSavepoint(SqlWrite& write);
  bool RunStatements(SqlWrite& write) noexcept;
  void RunAlone(SqlWrite& write) noexcept;
  void RollBack() noexcept;
  bool Recovers();
  bool Reopen(SqlError& error);

  const std::string path_;
  const SqliteOptions options_;
  IWriterSequences& sequences_;
  std::unique_ptr<CSqliteHandle> handle_;
  bool is_in_doubt_ = false;  // the last batch met a failure that may be due to the connection
  std::atomic<int> generation_{0};
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_WRITER_H
