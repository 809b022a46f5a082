// The one connection that changes a database file, and how a batch of writes is carried out on it.
#ifndef TANSY_DB_LAYER_SQLITE_WRITER_H
#define TANSY_DB_LAYER_SQLITE_WRITER_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "db_layer/GroupCommit.h"
#include "db_layer/SqliteHandle.h"

namespace db_layer {

// What the writer tells the sequence source about the statements that it runs.
class IWriterSequences : public ISequenceSource {
 public:
  // From here on values may be reserved on `handle`, inside its transaction; null when no statement runs.
  virtual void UseTransactionOf(CSqliteHandle* handle) = 0;
  // The file is opened (again): what was reserved may be of another file.
  virtual void Forget() = 0;
};

// One thread at a time, except Generation.
class CSqliteWriter {
 public:
  CSqliteWriter(std::string path, const SqliteOptions& options, IWriterSequences& sequences);

  // Opens the file when it is not open, when the file behind the path is another one by now, or when the connection
  // does not recover from a failure.
  bool EnsureOpen(SqlError& error);
  // Commits the batch in one transaction, a savepoint for each write: a refused write fails alone. When the commit
  // fails, all fail and nothing is applied. An exception (std::bad_alloc) leaves nothing applied either.
  void RunBatch(const std::vector<SqlWrite*>& batch);
  // Changes when the file is opened again: other connections should be too. Any thread.
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
  bool is_in_doubt_ = false;  // the last batch met a failure that may be the connection's
  std::atomic<int> generation_{0};
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_WRITER_H
