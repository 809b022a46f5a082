// For several processes that write to one PostgreSQL database at the same time, and hear of each other's changes.
#ifndef TANSY_DB_LAYER_SHARED_DATABASE_H
#define TANSY_DB_LAYER_SHARED_DATABASE_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "db_layer/Connect.h"

namespace db_layer {

// Gives the statement with which each transaction that writes begins. It has to keep the transactions of the other
// processes out until the end of this one (pg_advisory_xact_lock): so transactions neither overlap nor wait for each
// other in a circle, and numbers that they take from a sequence come in the order of their commits. When the server
// refuses it, everything that was to be written is refused.
using TransactionPrelude = std::function<std::string()>;
// Sets the prelude of the PostgreSQL databases that this process opens from now on. An empty one, the default, means
// that one process alone writes to the database: all others are kept out as long as it is connected. Those with a
// prelude let each other in, and keep one without a prelude out. Throws std::bad_alloc.
void SetPostgresPrelude(TransactionPrelude prelude);

// A connection of its own, beside those of a pool, that is made anew whenever it was lost. Threads: one. Errors: false,
// with one line in `error`; only the visitor's exceptions pass through.
class IDatabaseEar {
 public:
  virtual ~IDatabaseEar() = default;
  // Runs one statement that gives rows, even if it writes, and shows these columns of them one by one.
  virtual bool Ask(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look,
                   std::string& error) = 0;
  // Waits until somebody notifies a channel. What was notified since the last call counts. Returns false when the
  // connection was lost or has to be made first: then something may have been missed.
  virtual bool Hear(const std::string& channel, std::chrono::milliseconds patience, bool& heard,
                    std::string& error) = 0;
};

// Gives an ear to a PostgreSQL database, whose server may be silent for so long; null for other databases. Nothing is
// connected yet. Throws std::bad_alloc.
std::unique_ptr<IDatabaseEar> MakeDatabaseEar(const DBParam& param, int timeout_ms);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SHARED_DATABASE_H
