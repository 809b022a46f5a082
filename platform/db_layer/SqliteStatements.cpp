#include "db_layer/SqliteStatements.h"

#include <sqlite3.h>

#include <algorithm>

namespace db_layer {

namespace details {
namespace {

constexpr std::size_t kMaxKept = 16;

}  // namespace
}  // namespace details

void FinalizeStatement::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

CSqliteStatements::CLoan CSqliteStatements::Borrow(const std::string& text) {
  CLoan loan(*this);
  const auto found = std::find_if(kept_.begin(), kept_.end(), [&text](const Entry& kept) { return kept.text == text; });
  if (found != kept_.end()) {
    loan.entry_.splice(loan.entry_.begin(), kept_, found);
  }
  return loan;
}

// The statement is reset, because otherwise it would keep its transaction open.
void CSqliteStatements::TakeBack(Entries& entry) noexcept {
  sqlite3_stmt* statement = entry.front().statement.get();
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  kept_.splice(kept_.begin(), entry);
  if (kept_.size() > details::kMaxKept) {
    kept_.pop_back();
  }
}

CSqliteStatements::CLoan::~CLoan() {
  if (!entry_.empty()) {
    owner_.TakeBack(entry_);
  }
}

}  // namespace db_layer
