#include "db_layer/WriteBatch.h"

#include <string_view>

#include "db_layer/CommitBarrier.h"

namespace db_layer {

namespace details {
namespace {

constexpr int kAborted = 4;

}  // namespace
}  // namespace details

void FailAll(const std::vector<SqlWrite*>& writes, const SqlError& error) {
  for (SqlWrite* write : writes) {
    write->succeeded = false;
    write->error = error;
    if (write->rows != nullptr) {
      write->rows->Clear();
    }
  }
}

bool PassBarrier(const std::vector<SqlWrite*>& writes, SqlError& error) {
  if (writes.empty()) {
    return true;
  }
  std::vector<std::string_view> statements;
  for (const SqlWrite* write : writes) {
    statements.insert(statements.end(), write->statements->begin(), write->statements->end());
  }
  if (PassCommitBarrier(statements, error.text)) {
    return true;
  }
  error.code = details::kAborted;
  return false;
}

}  // namespace db_layer
