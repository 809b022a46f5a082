// What all connections of this process to one PostgreSQL database share: its writer, the queue of writes, its
// sequences, and the connections that read.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_DATABASE_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_DATABASE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "db_layer/GroupCommit.h"
#include "db_layer/postgresql/PostgresHandle.h"
#include "db_layer/postgresql/PostgresSequences.h"
#include "db_layer/postgresql/PostgresWriter.h"

namespace db_layer {

// Threads: any.
class CPostgresDatabase {
 public:
  // Gives the database of these parameters, which is opened when this process has not opened it yet. Returns null with
  // `error` filled in when it does not open. It is closed with its last owner.
  static std::shared_ptr<CPostgresDatabase> Acquire(const DBParam& param, SqlError& error);

  CPostgresDatabase(const DBParam& param, const PostgresOptions& options);

  // Commits the statements as one, together with what other threads write at the same time. `rows` receives the rows of
  // the last statement.
  bool Write(const std::vector<std::string>& statements, CRowBuffer* rows, SqlError& error);
  bool NextValue(const std::string& sequence, std::int64_t& value, SqlError& error);
  // Lends a connection that only reads to `use`, which runs one statement on it. An old connection may have been lost
  // since it was used last, so `use` may be called twice, the second time with a new one; it returns kFailed when it
  // must not be. Fails also when there is no connection to be had.
  using Use = std::function<CPostgresHandle::EResult(CPostgresHandle& reader)>;
  bool Read(const Use& use, SqlError& error);

 private:
  using Handle = std::unique_ptr<CPostgresHandle>;

  // The right to use one of the connections that read, for as long as it lives.
  class CTurn {
   public:
    explicit CTurn(CPostgresDatabase& database);
    ~CTurn();
    CTurn(const CTurn&) = delete;
    CTurn& operator=(const CTurn&) = delete;

   private:
    CPostgresDatabase& database_;
  };

  Handle TakeIdle();
  Handle OpenReader(SqlError& error);
  void GiveBack(Handle reader);

  const DBParam param_;
  const PostgresOptions options_;
  CPostgresSequences sequences_;
  std::mutex readers_mutex_;
  std::condition_variable reader_free_;
  std::vector<Handle> readers_;  // not in use
  std::size_t reading_ = 0;      // callers that have a turn
  CPostgresWriter writer_;
  CGroupCommit group_commit_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_DATABASE_H
