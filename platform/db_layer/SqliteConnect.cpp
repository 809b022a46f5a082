#include "db_layer/SqliteConnect.h"

#include <exception>
#include <new>
#include <utility>

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

template <typename Action>
bool CSqliteConnect::WithoutExceptions(Action action) noexcept {
  rows_.Clear();
  try {
    return action();
  } catch (const std::exception&) {
    rows_.Clear();
    SetOutOfMemory(error_);
    return false;
  }
}

bool CSqliteConnect::Execute(const std::string& sql) {
  return WithoutExceptions([&] { return database_->Write({sql}, nullptr, error_); });
}

bool CSqliteConnect::ExecuteAll(const std::vector<std::string>& statements) {
  return WithoutExceptions([&] { return database_->Write(statements, nullptr, error_); });
}

bool CSqliteConnect::Query(const std::string& sql) {
  return WithoutExceptions([&] {
    bool writes = false;
    return EnsureReader() && (Read(sql, writes) || (writes && database_->Write({sql}, &rows_, error_)));
  });
}

// A connection that met a failure gets a new reader, so that it works again once the cause is gone.
bool CSqliteConnect::EnsureReader() {
  const bool is_current = !is_broken_ && generation_ == database_->Generation();
  return is_current || Open(error_);
}

bool CSqliteConnect::Read(const std::string& sql, bool& writes) {
  const bool succeeded = reader_->RunIfReading(sql, rows_, writes, error_);
  is_broken_ = !succeeded && !writes && IsBroken(error_);
  return succeeded;
}

int CSqliteConnect::GetLastError(std::string& text) {
  try {
    text = error_.text;
  } catch (const std::bad_alloc&) {
    text.clear();
  }
  return error_.code;
}

void CSqliteConnect::MoveNext() {
  rows_.MoveNext();
}

bool CSqliteConnect::IsEnd() {
  return rows_.IsEnd();
}

std::string CSqliteConnect::GetString(const std::string& column) {
  return rows_.GetString(column);
}

std::int32_t CSqliteConnect::GetInt(int index) {
  return index < 0 ? 0 : rows_.GetInt(static_cast<std::size_t>(index));
}

std::int32_t CSqliteConnect::GetInt(const std::string& column) {
  return rows_.GetInt(column);
}

// The connection is never broken for good; EnsureReader says why.
bool CSqliteConnect::IsHealthy() {
  return true;
}

std::unique_ptr<CConnect> CSqliteDriver::Open(const DBParam& param, std::string& error) {
  SqlError sql_error;
  if (auto database = CSqliteDatabase::Acquire(param.database, sql_error)) {
    auto connection = std::make_unique<CSqliteConnect>(std::move(database));
    if (connection->Open(sql_error)) {
      return connection;
    }
  }
  error = "cannot open the database " + param.database + ": " + sql_error.text;
  return nullptr;
}

}  // namespace db_layer
