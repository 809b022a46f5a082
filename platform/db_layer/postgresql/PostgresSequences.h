// Values of PostgreSQL's sequences, which are reserved in blocks and given out from memory.
#ifndef TANSY_DB_LAYER_POSTGRESQL_POSTGRES_SEQUENCES_H
#define TANSY_DB_LAYER_POSTGRESQL_POSTGRES_SEQUENCES_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "db_layer/RowBuffer.h"
#include "db_layer/SqlError.h"

namespace db_layer {

// Threads: any.
class CPostgresSequences {
 public:
  static constexpr int kBlock = 1024;

  // Runs one statement and keeps its rows.
  using Ask = std::function<bool(const std::string& sql, CRowBuffer& rows, SqlError& error)>;

  explicit CPostgresSequences(Ask ask);

  // Gives the next value, and reserves a block first when none is left. Callers that come meanwhile wait for that
  // block.
  bool NextValue(const std::string& sequence, std::int64_t& value, SqlError& error);
  // Gives up what is reserved. A server that is connected to anew may have lost the reservation, in a crash without
  // full durability or because it was set back, and would give the same values to others.
  void Forget();

 private:
  struct Sequence {
    std::deque<std::int64_t> values;
    bool is_reserving = false;
    std::uint64_t failures = 0;
    SqlError last_failure;
  };

  bool Reserve(Sequence& sequence, const std::string& name, std::unique_lock<std::mutex>& lock, SqlError& error);
  bool AskForBlock(const std::string& name, std::deque<std::int64_t>& values, SqlError& error) noexcept;

  const Ask ask_;
  std::mutex mutex_;
  std::condition_variable reserved_;
  std::map<std::string, Sequence> sequences_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_POSTGRES_SEQUENCES_H
