#include "db_layer/SqliteConnect.h"

#include <string_view>
#include <utility>

#include "db_layer/SqlWords.h"

namespace db_layer {

CSqliteConnect::CSqliteConnect(std::shared_ptr<CSqliteDatabase> database) : database_(std::move(database)) {}

bool CSqliteConnect::Open(SqlError& error) {
  // The generation is read first: if the file is replaced meanwhile, that is then noticed later instead of never.
  const int generation = database_->Generation();
  auto reader = std::make_unique<CSqliteHandle>();
  if (!database_->OpenReader(*reader, error)) {
    return false;
  }
  reader_ = std::move(reader);
  generation_ = generation;
  is_broken_ = false;
  return true;
}

bool CSqliteConnect::Execute(const std::string& sql) {
  return WithoutExceptions([&] { return database_->Write({sql}, nullptr, error_); });
}

bool CSqliteConnect::ExecuteAll(const std::vector<std::string>& statements) {
  return WithoutExceptions([&] { return database_->Write(statements, nullptr, error_); });
}

void CSqliteConnect::ExecuteLater(std::vector<std::string> statements, WriteDone done) {
  rows_.Clear();
  auto write = std::make_unique<PostedWrite>();
  write->statements = std::move(statements);
  write->done = std::move(done);
  // `done` may give this connection back, and that may close it, while the database still reports.
  const std::shared_ptr<CSqliteDatabase> database = database_;
  database->Post(write);
}

bool CSqliteConnect::Query(const std::string& sql) {
  return WithoutExceptions([&] {
    if (const std::string_view sequence = SequenceOf(sql); !sequence.empty()) {
      return ReadNextValue(sequence, sql);
    }
    bool writes = false;
    return EnsureReader() && (Read(sql, writes) || (writes && database_->Write({sql}, &rows_, error_)));
  });
}

bool CSqliteConnect::ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look) {
  return WithoutExceptions([&] {
    if (!EnsureReader()) {
      return false;
    }
    const bool succeeded = reader_->ShowRows(sql, columns, look, error_);
    is_broken_ = !succeeded && IsBroken(error_);
    return succeeded;
  });
}

// The most common query of all needs no reader: its values are in memory.
bool CSqliteConnect::ReadNextValue(std::string_view sequence, const std::string& sql) {
  std::int64_t value = 0;
  if (!database_->NextValue(std::string(sequence), value, error_)) {
    return false;
  }
  ShowNextValue(sql, value);
  return true;
}

// The reader is opened for the first query: most connections only write. A connection that met a failure gets a new
// reader, so that it works again once the cause is gone.
bool CSqliteConnect::EnsureReader() {
  const bool is_current = reader_ && !is_broken_ && generation_ == database_->Generation();
  return is_current || Open(error_);
}

bool CSqliteConnect::Read(const std::string& sql, bool& writes) {
  const bool succeeded = reader_->RunIfReading(sql, rows_, writes, error_);
  is_broken_ = !succeeded && !writes && IsBroken(error_);
  return succeeded;
}

// The connection is never broken for good; EnsureReader says why.
bool CSqliteConnect::IsHealthy() {
  return true;
}

std::unique_ptr<CConnect> CSqliteDriver::Open(const DBParam& param, std::string& error) {
  SqlError sql_error;
  if (auto database = CSqliteDatabase::Acquire(param.database, sql_error)) {
    return std::make_unique<CSqliteConnect>(std::move(database));
  }
  error = "cannot open the database " + param.database + ": " + sql_error.text;
  return nullptr;
}

}  // namespace db_layer
