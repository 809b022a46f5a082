// One connection to a PostgreSQL server.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_HANDLE_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_HANDLE_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "db_layer/Connect.h"
#include "db_layer/RowBuffer.h"
#include "db_layer/SharedDatabase.h"
#include "db_layer/SqlError.h"
#include "db_layer/SqlTemplate.h"

struct pg_conn;
struct pg_result;

namespace db_layer {

struct PostgresOptions {
  bool full_durability = true;
  int timeout_ms = 30000;      // the longest time without a sign of the server
  TransactionPrelude prelude;  // empty: this process alone writes to the database
};

// Says what is wrong with a server of this version (150004 is 15.4) and this encoding of its database; "" when nothing
// is.
std::string PostgresObjection(int version, const std::string& encoding, const std::string& database);

// Gives the code of a failure for the server's own code of five characters.
int PostgresErrorCode(const std::string& state);

// One statement of a pipeline.
struct PostgresStep {
  std::string sql;
  bool as_it_is = false;       // it is not to be prepared for other values
  CRowBuffer* rows = nullptr;  // takes the rows; may be null
  std::string tag;             // what the server says it did, such as "UPDATE 1"
};

// Threads: one at a time.
class CPostgresHandle {
 public:
  enum class EUse {
    kRead,  // the server refuses what would write
    kWrite,
  };
  enum class EResult {
    kDone,
    kFailed,  // the server refused a statement and has undone nothing but that
    kLost,    // the connection is gone or the server is silent; whether the statements ran is not known
  };

  CPostgresHandle() = default;
  ~CPostgresHandle();
  CPostgresHandle(const CPostgresHandle&) = delete;
  CPostgresHandle& operator=(const CPostgresHandle&) = delete;

  // Connects, and refuses servers and databases that do not fit.
  bool Open(const DBParam& param, EUse use, const PostgresOptions& options, SqlError& error);
  void Close();
  // Returns false also when the connection was lost.
  bool IsOpen() const;

  // Sends all statements at once and waits for their results. After the first one that is refused, the others do not
  // run. Statements before it stay what they are: a transaction is the caller's.
  EResult RunPipeline(std::vector<PostgresStep>& steps, SqlError& error);
  // Runs one statement and keeps its rows.
  EResult Run(const std::string& sql, CRowBuffer* rows, SqlError& error);
  // Runs one statement and shows these columns of its rows one by one. `shown` says whether there was one. What the
  // visitor throws passes through, and closes the connection.
  EResult ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look, bool& shown,
                   SqlError& error);

  bool IsInTransaction() const;

  // Waits for a notification (NOTIFY) on a channel that this connection listens to; one that has come already is taken.
  enum class ENotice { kNone, kCame, kLost };
  ENotice WaitForNotice(std::chrono::milliseconds patience);

 private:
  struct Expected {
    std::size_t step = 0;
    const std::string* prepared = nullptr;  // the statement that is being prepared, else null
  };
  struct ClearResult {
    void operator()(pg_result* result) const;
  };
  using Result = std::unique_ptr<pg_result, ClearResult>;

  bool Send(std::size_t index, const PostgresStep& step, std::vector<Expected>& expected);
  bool SendPrepared(std::size_t index, const SqlTemplate& shape, std::vector<Expected>& expected);
  EResult ReceivePipeline(std::vector<PostgresStep>& steps, const std::vector<Expected>& expected, SqlError& error);
  bool Receive(Result& result);
  bool WaitForInput();
  bool SkipToEnd();
  EResult LoseWithReason();
  EResult Lose(SqlError& error);
  void Fail(const pg_result* result, SqlError& error) const;

  pg_conn* connection_ = nullptr;
  int timeout_ms_ = 0;
  bool is_silent_ = false;                              // the server did not answer in time
  std::unordered_map<std::string, std::string> names_;  // of prepared statements, by their templates
  unsigned long next_name_ = 0;
};

// Says whether a statement may be a caller's: nothing that ends the transaction that several callers share, or changes
// the connection. Otherwise it fills in `error`.
bool IsCallersStatement(const std::string& sql, SqlError& error);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_HANDLE_H
