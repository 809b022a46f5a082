#include "db_layer/postgresql/PostgresConnect.h"

#include <algorithm>
#include <array>
#include <utility>

#include "db_layer/DbLayer.h"
#include "db_layer/PostgresDriver.h"
#include "db_layer/SqlWords.h"

namespace db_layer {

namespace details {
namespace {

// Says whether a statement probably only reads. The server knows better, and refuses the others.
bool SeemsToRead(std::string_view sql) {
  constexpr std::array<std::string_view, 6> kReads = {"SELECT", "WITH", "VALUES", "TABLE", "SHOW", "EXPLAIN"};
  sql = SkipBlanks(sql);
  return std::any_of(kReads.begin(), kReads.end(), [sql](std::string_view word) { return StartsWithWord(sql, word); });
}

}  // namespace
}  // namespace details

std::shared_ptr<IDriver> MakePostgresDriver() {
  return std::make_shared<CPostgresDriver>();
}

CPostgresConnect::CPostgresConnect(std::shared_ptr<CPostgresDatabase> database) : database_(std::move(database)) {}

bool CPostgresConnect::Execute(const std::string& sql) {
  return WithoutExceptions([&] { return database_->Write({sql}, nullptr, error_); });
}

bool CPostgresConnect::ExecuteAll(const std::vector<std::string>& statements) {
  return WithoutExceptions([&] { return statements.empty() || database_->Write(statements, nullptr, error_); });
}

bool CPostgresConnect::Query(const std::string& sql) {
  return WithoutExceptions([&] {
    if (const std::string_view sequence = SequenceOf(sql); !sequence.empty()) {
      return ReadNextValue(sequence, sql);
    }
    if (!IsCallersStatement(sql, error_)) {
      return false;
    }
    return details::SeemsToRead(sql) ? Read(sql) : database_->Write({sql}, &rows_, error_);
  });
}

bool CPostgresConnect::Read(const std::string& sql) {
  SqlError error;
  const bool succeeded =
      database_->Read([&](CPostgresHandle& reader) { return reader.Run(sql, &rows_, error); }, error);
  if (!succeeded && error.code == kErrorReadOnly) {
    return database_->Write({sql}, &rows_, error_);
  }
  if (!succeeded) {
    error_ = std::move(error);
  }
  return succeeded;
}

bool CPostgresConnect::ShowRows(const std::string& sql, const std::vector<std::string>& columns,
                                const RowVisitor& look) {
  return WithoutExceptions([&] {
    if (!IsCallersStatement(sql, error_)) {
      return false;
    }
    SqlError error;
    const auto use = [&](CPostgresHandle& reader) {
      bool shown = false;
      const CPostgresHandle::EResult result = reader.ShowRows(sql, columns, look, shown, error);
      // Rows must not be shown twice.
      return result == CPostgresHandle::EResult::kLost && shown ? CPostgresHandle::EResult::kFailed : result;
    };
    if (database_->Read(use, error)) {
      return true;
    }
    error_ = std::move(error);
    if (error_.code == kErrorReadOnly) {
      SetError(error_, kErrorMisuse, "only what reads can be shown row by row");
    }
    return false;
  });
}

// The most common query of all needs no server: its values are in memory.
bool CPostgresConnect::ReadNextValue(std::string_view sequence, const std::string& sql) {
  std::int64_t value = 0;
  if (!database_->NextValue(std::string(sequence), value, error_)) {
    return false;
  }
  ShowNextValue(sql, value);
  return true;
}

// It is never broken for good: writer and readers connect anew.
bool CPostgresConnect::IsHealthy() {
  return true;
}

std::unique_ptr<CConnect> CPostgresDriver::Open(const DBParam& param, std::string& error) {
  SqlError sql_error;
  if (auto database = CPostgresDatabase::Acquire(param, sql_error)) {
    return std::make_unique<CPostgresConnect>(std::move(database));
  }
  error = "cannot open the database " + DescribeDatabase(param) + ": " + sql_error.text;
  return nullptr;
}

}  // namespace db_layer
