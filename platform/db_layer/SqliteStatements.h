// Prepared statements of one connection, kept for the next time that the same text comes.
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

// Keeps the few that were used last. One thread at a time; must be empty before the connection is closed.
class CSqliteStatements {
 public:
  class CLoan;

  // A statement that was given back under this text; an empty loan when there is none, as while it is on loan already.
  CLoan Borrow(const std::string& text);
  void Clear() { kept_.clear(); }

 private:
  struct Entry {
    std::string text;
    StatementPtr statement;
  };
  using Entries = std::list<Entry>;

  void TakeBack(Entries& entry) noexcept;

  Entries kept_;  // the one used last in front
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
  // Makes an empty loan one of a new statement.
  void Fill(const std::string& text, StatementPtr statement) { entry_.push_back({text, std::move(statement)}); }
  sqlite3_stmt* Get() const { return entry_.front().statement.get(); }
  // Not to be kept.
  void Drop() { entry_.clear(); }

 private:
  friend class CSqliteStatements;

  CSqliteStatements& owner_;
  Entries entry_;  // one or none
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_STATEMENTS_H
