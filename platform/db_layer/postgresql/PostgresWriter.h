// The only connection of this process that changes a PostgreSQL database. It carries out batches of writes.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_WRITER_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_WRITER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "db_layer/GroupCommit.h"
#include "db_layer/postgresql/PostgresHandle.h"

namespace db_layer {

// Threads: one at a time.
//
// A batch is one transaction in two round trips: first everything but the end, then, when all of it succeeded, COMMIT.
// A connection that is lost before COMMIT was sent has changed nothing, and the batch runs once more on a new one. When
// it is lost after that, the batch is in doubt: a new connection looks whether it was committed, before anybody gets an
// answer. The transaction itself tells: it writes the number of the batch into this process's row of
// platform.commit_marks, and the look waits for the lock of that row until the old transaction has ended.
//
// Where several processes share the database, the prelude runs in each transaction before the statements. When it is
// refused, the whole batch is: each of its writes would be refused, after having waited as long again.
class CPostgresWriter {
 public:
  using Clock = std::chrono::steady_clock;

  // `connected` is called whenever there is a new connection, before anything is written on it.
  CPostgresWriter(DBParam param, const PostgresOptions& options, std::function<void()> connected);

  // Passes the commit barrier, then commits the batch, in which a refused write fails alone.
  void RunBatch(const std::vector<SqlWrite*>& batch);

 private:
  using EResult = CPostgresHandle::EResult;
  enum class EDialect { kPrepared, kAsItIs };
  enum class EOutcome {
    kDone,
    kRefused,  // nothing of it is committed, because the server refused a statement
    kKeptOut,  // the same, and none of its statements has run: the prelude was refused
    kLost,     // nothing of it is committed, because the connection was lost
    kUnknown,  // nobody can tell
  };

  // What this process's row of marks says about the last batch.
  enum class EMark {
    kUnread,
    kMissing,
    kLast,   // it was committed
    kOlder,  // it was not
  };

  void RunTogether(const std::vector<SqlWrite*>& writes);
  void RunAlone(SqlWrite& write);
  EOutcome RunWithRetry(const std::vector<SqlWrite*>& writes, EDialect dialect, SqlError& error);
  EOutcome RunTransaction(const std::vector<SqlWrite*>& writes, EDialect dialect, SqlError& error);
  std::vector<PostgresStep> StepsOf(const std::vector<SqlWrite*>& writes, EDialect dialect) const;
  EOutcome Commit(SqlError& error) noexcept;
  EOutcome ResolveDoubt(SqlError& error);
  EMark ReadMark(const std::string& session, SqlError& error);
  void RollBack() noexcept;

  Clock::duration Patience() const;
  bool IsShared() const { return static_cast<bool>(options_.prelude); }
  std::size_t PreludeStep() const { return has_marks_ ? 2 : 1; }
  bool EnsureOpen(SqlError& error);
  bool TryToOpen(SqlError& error);
  bool BecomeTheWriter(SqlError& error);
  bool MakeMark(SqlError& error);
  void LookForMarks(const std::vector<SqlWrite*>& writes) noexcept;
  void EndSession(const std::string& session);
  bool Ask(const std::string& sql, const std::string& column, std::string& answer, SqlError& error);

  const DBParam param_;
  const PostgresOptions options_;
  const std::function<void()> connected_;
  const std::string name_;  // of this process's row of marks
  CPostgresHandle handle_;
  bool has_marks_ = false;       // the database has the table of marks
  bool is_in_doubt_ = false;     // nobody knows yet whether the last batch was committed
  std::int64_t last_batch_ = 0;  // number of the batch that ran last
  std::string session_;          // condition that finds the server's process of the connection opened last
  Clock::time_point lost_at_{};  // when the connection was found lost
  Clock::time_point next_try_{};
  std::chrono::milliseconds pause_{0};  // before the next try to connect; 0 while the connection works
  SqlError last_error_;                 // of the last try to connect
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_WRITER_H
