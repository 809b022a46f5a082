// What all connections of this process to one SQLite file share: its writer, the queue of writes, its sequences.
#ifndef TANSY_DB_LAYER_SQLITE_DATABASE_H
#define TANSY_DB_LAYER_SQLITE_DATABASE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "db_layer/GroupCommit.h"
#include "db_layer/RowBuffer.h"
#include "db_layer/SqliteCheckpoints.h"
#include "db_layer/SqliteHandle.h"
#include "db_layer/SqliteSequences.h"
#include "db_layer/SqliteWriter.h"

namespace db_layer {

// Threads: any.
class CSqliteDatabase {
 public:
  // Gives the database of a path. It is opened (and the file made) when this process has not opened it yet. Returns
  // null with `error` filled in when it does not open. It is closed with its last owner.
  static std::shared_ptr<CSqliteDatabase> Acquire(const std::string& path, SqlError& error);

  CSqliteDatabase(std::string path, const SqliteOptions& options);

  // Commits the statements as one, together with what other threads write at the same time. `rows` receives the rows of
  // the last statement.
  bool Write(const std::vector<std::string>& statements, CRowBuffer* rows, SqlError& error);
  // Commits a write later; see CGroupCommit::Post.
  void Post(std::unique_ptr<PostedWrite>& write) { group_commit_.Post(write); }
  // Gives the next value of a sequence.
  bool NextValue(const std::string& sequence, std::int64_t& value, SqlError& error);
  // Opens a connection for reading.
  bool OpenReader(CSqliteHandle& reader, SqlError& error);
  // Changes when the file is opened again; readers that were opened before should then be opened again too.
  int Generation() const { return writer_.Generation(); }

 private:
  void RunBatch(const std::vector<SqlWrite*>& batch);
  int CopyLog() noexcept;

  const std::string path_;
  const SqliteOptions options_;
  CSqliteSequences sequences_;
  CSqliteWriterSequences writer_sequences_;
  std::mutex writing_;         // held while a batch is committed
  std::mutex copying_;         // held while the log is copied or the file is opened; taken after writing_
  CSqliteHandle copier_;       // guarded by copying_
  int copier_generation_ = 0;  // guarded by copying_
  CSqliteWriter writer_;
  CGroupCommit group_commit_;
  CSqliteCheckpoints checkpoints_;  // last: its thread uses what stands above
};

// These set defaults for databases opened from now on. Both return the setting before.
bool SetSqliteDefaultDurability(bool full_durability);
int SetSqliteDefaultBusyTimeout(int milliseconds);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_DATABASE_H
