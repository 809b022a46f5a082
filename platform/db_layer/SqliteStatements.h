// Prepared statements of one connection, which are kept for the next time that the same text comes.
#ifndef TANSY_DB_LAYER_SQLITE_STATEMENTS_H
#define TANSY_DB_LAYER_SQLITE_STATEMENTS_H

#include <list>
#include <memory>
#include <string>
#include <utility>

struct sqlite3_stmt;

namespace db_layer {

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const;
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Keeps the few statements that were used last. Threads: one at a time. It must be empty before the connection is
// closed.
class CSqliteStatements {
 public:
  class CLoan;

  // Lends a statement that was given back under this text. The loan is empty when there is none, also while it is lent
  // already.
  CLoan Borrow(const std::string& text);
  void Clear() { kept_.clear(); }

 private:
  struct Entry {
    std::string text;
    StatementPtr statement;
  };
  using Entries = std::list<Entry>;

  void TakeBack(Entries& entry) noexcept;

  Entries kept_;  // the statement used last comes first
};

// A statement in use. It goes back, reset and without values, when the loan ends.
class CSqliteStatements::CLoan {
 public:
  explicit CLoan(CSqliteStatements& owner) : owner_(owner) {}
  CLoan(CLoan&& other) noexcept : owner_(other.owner_) { entry_.splice(entry_.begin(), other.entry_); }
  ~CLoan();
  CLoan(const CLoan&) = delete;
  CLoan& operator=(const CLoan&) = delete;
  CLoan& operator=(CLoan&&) = delete;

  explicit operator bool() const { return !entry_.empty(); }
  // Puts a new statement into an empty loan.
  void Fill(const std::string& text, StatementPtr statement) { entry_.push_back({text, std::move(statement)}); }
  sqlite3_stmt* Get() const { return entry_.front().statement.get(); }
  // Says that the statement must not be kept.
  void Drop() { entry_.clear(); }

 private:
  friend class CSqliteStatements;

  CSqliteStatements& owner_;
  Entries entry_;  // one or none
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_STATEMENTS_H
