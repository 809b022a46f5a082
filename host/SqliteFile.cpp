#include "SqliteFile.h"

#include <sqlite3.h>

#include <cstdint>
#include <string_view>

#include "HostSystem/Files.h"
#include "StartFailure.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr int kAllPages = -1;

// Writes a path as a "file:" address, which may carry parameters.
std::string Address(const std::string& path) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string address = "file:";
  for (const char c : path) {
    if (c == '?' || c == '#' || c == '%') {
      const auto code = static_cast<unsigned char>(c);
      address += '%';
      address += kDigits[code >> 4];
      address += kDigits[code & 15];
    } else {
      address += c;
    }
  }
  return address;
}

std::string AddressFor(const std::string& path, CSqliteFile::EAccess access) {
  if (access == CSqliteFile::EAccess::kChange) {
    return Address(path);
  }
  // Without a log beside it, nobody is writing to the file. SQLite is told so, because it would make such a log even
  // for a reader.
  const bool at_rest = HostSystem::GetPathKind(path + "-wal") == HostSystem::EPathKind::kMissing;
  return Address(path) + (at_rest ? "?mode=ro&immutable=1" : "?mode=ro");
}

class CSteppedRow final : public db_layer::IRow {
 public:
  explicit CSteppedRow(sqlite3_stmt* statement) : statement_(statement) {}

  std::string_view GetText(std::size_t column) const override {
    const unsigned char* text = sqlite3_column_text(statement_, static_cast<int>(column));
    return text == nullptr ? "" : reinterpret_cast<const char*>(text);
  }
  std::int32_t GetInt(std::size_t column) const override {
    return static_cast<std::int32_t>(
        static_cast<std::uint32_t>(sqlite3_column_int64(statement_, static_cast<int>(column))));
  }

 private:
  sqlite3_stmt* const statement_;
};

}  // namespace
}  // namespace details

void CSqliteFile::CloseDatabase::operator()(sqlite3* database) const {
  sqlite3_close(database);
}

CSqliteFile::CSqliteFile(const std::string& file, EAccess access) : file_(file) {
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(":memory:", &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI, nullptr);
  database_.reset(opened);  // a handle is there and must be closed even when opening failed
  if (result != SQLITE_OK) {
    Fail("cannot be opened");
  }
  sqlite3_busy_timeout(database_.get(), details::kBusyTimeoutMs);
  Run("ATTACH DATABASE ?1 AS platform", {details::AddressFor(file, access)});
  // This query reads the header, so a file that is no database is found here.
  QueryNumber("SELECT COUNT(*) FROM platform.sqlite_master");
}

void CSqliteFile::CopyTo(const std::string& file) {
  sqlite3* opened = nullptr;
  int result = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  std::unique_ptr<sqlite3, CloseDatabase> target(opened);
  sqlite3_backup* backup =
      result == SQLITE_OK ? sqlite3_backup_init(opened, "main", database_.get(), "platform") : nullptr;
  if (backup != nullptr) {
    sqlite3_backup_step(backup, details::kAllPages);
    result = sqlite3_backup_finish(backup);
  } else if (result == SQLITE_OK) {
    result = sqlite3_errcode(opened);
  }
  if (result == SQLITE_OK) {
    // A copy of a file with a write-ahead log would make one beside it.
    result = sqlite3_exec(opened, "PRAGMA journal_mode = DELETE", nullptr, nullptr, nullptr);
  }
  if (result != SQLITE_OK) {
    const std::string reason = sqlite3_errstr(result);
    target.reset();
    TansyBase::FileUtil::RemoveFile(file);
    throw CStartFailure(kExitFailed, "database " + file_ + " cannot be copied to " + file + ": " + reason);
  }
}

void CSqliteFile::RunScript(const std::string& sql, const std::string& name) {
  if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    const std::string reason = sqlite3_errmsg(database_.get());
    sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    throw CStartFailure(kExitFailed, "database " + file_ + ": " + name + " failed: " + reason);
  }
}

void CSqliteFile::Run(const std::string& sql, const std::vector<std::string>& values) {
  const Statement statement = Prepare(sql, values);
  const int result = sqlite3_step(statement.get());
  if (result != SQLITE_DONE && result != SQLITE_ROW) {
    Fail("cannot be used");
  }
}

void CSqliteFile::Query(const std::string& sql, const std::vector<std::string>& /*columns*/,
                        const db_layer::RowVisitor& visitor) {
  const Statement statement = Prepare(sql, {});
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
    visitor(details::CSteppedRow(statement.get()));
  }
  if (result != SQLITE_DONE) {
    Fail("cannot be read");
  }
}

bool CSqliteFile::HasGivenIds() {
  return QueryNumber("SELECT COUNT(*) FROM platform.sequences WHERE next_value > 1") > 0;
}

CSqliteFile::Statement CSqliteFile::Prepare(const std::string& sql, const std::vector<std::string>& values) {
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &prepared, nullptr) != SQLITE_OK) {
    Fail("cannot be used");
  }
  Statement statement(prepared, [](sqlite3_stmt* ended) { sqlite3_finalize(ended); });
  for (std::size_t i = 0; i < values.size(); ++i) {
    sqlite3_bind_text(prepared, static_cast<int>(i) + 1, values[i].c_str(), -1, SQLITE_TRANSIENT);
  }
  return statement;
}

void CSqliteFile::Fail(const std::string& what) {
  throw CStartFailure(kExitFailed, "database " + file_ + " " + what + ": " + sqlite3_errmsg(database_.get()));
}

}  // namespace Tansy::Host
