// Sequence values of one database file, which are reserved in blocks and given out from memory.
#ifndef TANSY_DB_LAYER_SQLITE_SEQUENCES_H
#define TANSY_DB_LAYER_SQLITE_SEQUENCES_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "db_layer/GroupCommit.h"
#include "db_layer/RowBuffer.h"
#include "db_layer/SqliteHandle.h"
#include "db_layer/SqliteWriter.h"

namespace db_layer {

// The source that reading connections call. Threads: any.
class CSqliteSequences : public ISequenceSource {
 public:
  class CReservation;

  static constexpr std::int64_t kBlock = 1024;

  // Runs one statement and keeps its rows. When it returns true, the statement is committed.
  using Commit = std::function<bool(const std::string& sql, CRowBuffer& rows, SqlError& error)>;

  explicit CSqliteSequences(Commit commit);

  // Gives the next value, and reserves a block first when none is left. Callers that come meanwhile wait for that
  // block.
  bool NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) override;
  // Gives a value only if one is left in memory.
  bool TakeReserved(const std::string& sequence, std::int64_t& value);
  void Forget();

  // The first makes the statement that reserves a block and returns the block's first value; the second reads that row.
  static std::string ReserveStatement(const std::string& sequence);
  static bool ReadBlock(const CRowBuffer& rows, const std::string& sequence, std::int64_t& first, SqlError& error);

 private:
  struct Sequence {
    std::int64_t next = 0;
    std::int64_t end = 0;             // one beyond the last value that may be given
    std::int64_t first_of_spare = 0;  // begins the block that follows
    bool has_spare = false;
    bool was_refused = false;  // no further block was to be had while this one was in use
    bool is_reserving = false;
    std::uint64_t failures = 0;
    SqlError last_failure;
  };

  static bool TakeNext(Sequence& sequence, std::int64_t& value);
  bool CommitBlock(const std::string& name, std::int64_t& first, SqlError& error) noexcept;
  bool Reserve(Sequence& sequence, const std::string& name, std::unique_lock<std::mutex>& lock, SqlError& error);

  const Commit commit_;
  std::mutex mutex_;
  std::condition_variable reserved_;
  std::uint64_t epoch_ = 0;  // number of calls of Forget
  std::map<std::string, Sequence> sequences_;
};

// The next block of a sequence of which less than half a block is left, reserved along with other writes, so that
// nobody has to wait for it. For one batch of writes; threads: one at a time.
class CSqliteSequences::CReservation {
 public:
  explicit CReservation(CSqliteSequences& sequences);
  // Takes the block over when the write succeeded.
  ~CReservation();
  CReservation(const CReservation&) = delete;
  CReservation& operator=(const CReservation&) = delete;

  // Gives what has to be written; null when no sequence runs low.
  SqlWrite* Write() { return statements_.empty() ? nullptr : &write_; }

 private:
  bool Find();

  CSqliteSequences& sequences_;
  std::string name_;
  std::uint64_t epoch_ = 0;
  std::vector<std::string> statements_;  // one or none
  CRowBuffer rows_;
  SqlWrite write_;
};

// The source that the writing connection calls. A reservation would have to wait for the transaction that the writer
// holds, so the writer reserves a block of its own inside that transaction. Such a block serves its statement only: if
// the statement is undone, the reservation is undone too, and a value that another statement had taken from the block
// would be given twice.
class CSqliteWriterSequences : public IWriterSequences {
 public:
  explicit CSqliteWriterSequences(CSqliteSequences& shared);

  bool NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) override;
  void UseTransactionOf(CSqliteHandle* handle) override;
  void Forget() override;

 private:
  struct Block {
    std::int64_t next = 0;
    std::int64_t end = 0;
  };

  CSqliteSequences& shared_;
  CSqliteHandle* handle_ = nullptr;
  std::map<std::string, Block> blocks_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_SEQUENCES_H
