#include "db_layer/SqliteHandle.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

namespace db_layer {

namespace details {
namespace {

// SQLite only says that it is unable to open; the system knows why.
void AddSystemReason(sqlite3* db, SqlError& error) {
  const int reason = sqlite3_system_errno(db);
  if ((error.code & 0xFF) == SQLITE_CANTOPEN && reason != 0) {
    error.text += " (" + std::system_category().message(reason) + ")";
  }
}

// Implements nextval(name) in SQL. NULL gives NULL, as in other databases.
void NextValueFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
  const auto* name = reinterpret_cast<const char*>(sqlite3_value_text(arguments[0]));
  if (name == nullptr) {
    sqlite3_result_null(context);
    return;
  }
  auto* source = static_cast<ISequenceSource*>(sqlite3_user_data(context));
  try {
    std::int64_t value = 0;
    SqlError error;
    if (source->NextValue(name, value, error)) {
      sqlite3_result_int64(context, value);
      return;
    }
    sqlite3_result_error(context, error.text.c_str(), static_cast<int>(error.text.size()));
    sqlite3_result_error_code(context, error.code);
  } catch (const std::exception&) {
    // No exception may pass through SQLite, which is written in C, so it becomes SQLite's error for missing memory.
    sqlite3_result_error_nomem(context);
  }
}

// Sets a flag for as long as it lives.
class CRaisedFlag {
 public:
  explicit CRaisedFlag(bool& flag) : flag_(flag), before_(std::exchange(flag, true)) {}
  ~CRaisedFlag() { flag_ = before_; }
  CRaisedFlag(const CRaisedFlag&) = delete;
  CRaisedFlag& operator=(const CRaisedFlag&) = delete;

 private:
  bool& flag_;
  const bool before_;
};

bool BindAll(sqlite3_stmt* statement, const std::vector<SqlValue>& values) {
  int result =
      static_cast<std::size_t>(sqlite3_bind_parameter_count(statement)) == values.size() ? SQLITE_OK : SQLITE_RANGE;
  for (std::size_t i = 0; i < values.size() && result == SQLITE_OK; ++i) {
    const int index = static_cast<int>(i) + 1;
    const SqlValue& value = values[i];
    result = value.is_text ? sqlite3_bind_text64(statement, index, value.text.data(), value.text.size(), SQLITE_STATIC,
                                                 SQLITE_UTF8)
                           : sqlite3_bind_int64(statement, index, value.number);
  }
  return result == SQLITE_OK;
}

// Says whether a statement will probably come again. PRAGMAs are not kept, because some of them do their work while
// they are prepared. Long statements are not kept, because their lists of values differ each time.
bool IsWorthKeeping(std::string_view sql) {
  constexpr std::size_t kMaxBytes = 4096;
  constexpr std::array<std::string_view, 9> kBeginnings = {"SELECT", "INSERT",    "UPDATE",  "DELETE",  "BEGIN",
                                                           "COMMIT", "SAVEPOINT", "RELEASE", "ROLLBACK"};
  return sql.size() <= kMaxBytes &&
         std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [sql](std::string_view beginning) { return sql.starts_with(beginning); });
}

std::string_view Text(const void* text, int size) {
  return text == nullptr ? std::string_view()
                         : std::string_view(static_cast<const char*>(text), static_cast<std::size_t>(size));
}

void AddColumns(sqlite3_stmt* statement, CRowBuffer& rows) {
  const int count = sqlite3_column_count(statement);
  for (int i = 0; i < count; ++i) {
    const char* name = sqlite3_column_name(statement, i);
    rows.AddColumn(name == nullptr ? "" : name);
  }
}

// Returns false when memory ran out while a value was turned into text.
bool AddRow(sqlite3_stmt* statement, CRowBuffer& rows) {
  const int count = sqlite3_column_count(statement);
  for (int i = 0; i < count; ++i) {
    const bool is_null = sqlite3_column_type(statement, i) == SQLITE_NULL;
    const unsigned char* text = sqlite3_column_text(statement, i);
    const int size = sqlite3_column_bytes(statement, i);
    if (text == nullptr && !is_null && size > 0) {
      return false;
    }
    rows.AddCell(Text(text, size));
  }
  return true;
}

// The row that a statement stands on. Columns that the statement does not have have the index -1, for which SQLite
// gives NULL.
class CSteppedRow final : public IRow {
 public:
  CSteppedRow(sqlite3_stmt* statement, const std::vector<std::string>& columns) : statement_(statement) {
    const int count = sqlite3_column_count(statement);
    for (const std::string& column : columns) {
      int index = count - 1;
      while (index >= 0 && column != sqlite3_column_name(statement, index)) {
        --index;
      }
      indices_.push_back(index);
    }
  }

  std::string_view GetText(std::size_t column) const override {
    const int index = IndexOf(column);
    const unsigned char* const text = sqlite3_column_text(statement_, index);
    if (text == nullptr && sqlite3_column_type(statement_, index) != SQLITE_NULL) {
      throw std::bad_alloc();
    }
    return Text(text, sqlite3_column_bytes(statement_, index));
  }
  std::int32_t GetInt(std::size_t column) const override {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(sqlite3_column_int64(statement_, IndexOf(column))));
  }

 private:
  int IndexOf(std::size_t column) const { return column < indices_.size() ? indices_[column] : -1; }

  sqlite3_stmt* const statement_;
  std::vector<int> indices_;
};

}  // namespace
}  // namespace details

CSqliteHandle::~CSqliteHandle() {
  Close();
}

void CSqliteHandle::Close() {
  own_statements_.Clear();
  callers_statements_.Clear();
  refusal_ = nullptr;
  sqlite3_close_v2(db_);
  db_ = nullptr;
}

bool CSqliteHandle::Open(const std::string& path, const SqliteOptions& options, ISequenceSource& sequences,
                         SqlError& error) {
  Close();
  if (path.find('\0') != std::string::npos) {
    return SetError(error, SQLITE_CANTOPEN, "the path holds a NUL byte");
  }
  // One thread at a time uses a connection, so SQLite's own lock around each call would only cost time.
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE |
                         SQLITE_OPEN_EXRESCODE;
  const bool opened = sqlite3_open_v2(":memory:", &db_, kFlags, nullptr) == SQLITE_OK;
  if (!opened) {
    Fail(error);
    Close();
    return false;
  }
  sqlite3_busy_timeout(db_, options.busy_timeout_ms);
  sqlite3_set_authorizer(db_, &CSqliteHandle::Authorize, this);
  sqlite3_create_function_v2(db_, "nextval", 1, SQLITE_UTF8, &sequences, &details::NextValueFunction, nullptr, nullptr,
                             nullptr);
  if (!Attach(path, error) || !Configure(options, error)) {
    details::AddSystemReason(db_, error);
    Close();
    return false;
  }
  return true;
}

bool CSqliteHandle::Attach(const std::string& path, SqlError& error) {
  const StatementPtr statement = Prepare("ATTACH DATABASE ?1 AS platform", error);
  if (!statement) {
    return false;
  }
  sqlite3_bind_text64(statement.get(), 1, path.data(), path.size(), SQLITE_STATIC, SQLITE_UTF8);
  return Step(statement.get(), nullptr, error);
}

bool CSqliteHandle::Configure(const SqliteOptions& options, SqlError& error) {
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  // A text in double quotes is always a name, as in other databases, even when there is no such column.
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
  if (sqlite3_db_readonly(db_, "platform") == 1) {
    return SetError(error, SQLITE_READONLY, "the database file cannot be written to");
  }
  const char* synchronous =
      options.full_durability ? "PRAGMA platform.synchronous=FULL" : "PRAGMA platform.synchronous=NORMAL";
  // With write-ahead logging, readers see the last commit; they do not wait for writers, and writers do not wait for
  // them.
  CRowBuffer mode;
  if (!RunOwn(synchronous, error) || !RunOwn("PRAGMA platform.journal_mode=WAL", &mode, error)) {
    return false;
  }
  if (mode.GetString("journal_mode") != "wal") {
    return SetError(error, SQLITE_ERROR, "the database cannot use a write-ahead log here");
  }
  return RunOwn("PRAGMA temp_store=MEMORY", error) &&
         // This limit gives the space of an unusually long log back.
         RunOwn("PRAGMA platform.journal_size_limit=67108864", error) &&
         // This reads the schema now, so that a file that is no database is noticed here.
         RunOwn("SELECT count(*) FROM platform.sqlite_schema", error);
}

bool CSqliteHandle::PrepareToWrite(SqlError& error) {
  const auto note_pages = [](void* handle, sqlite3*, const char*, int pages) {
    static_cast<CSqliteHandle*>(handle)->log_pages_ = pages;
    return SQLITE_OK;
  };
  // The hook takes the place of SQLite's own, which would copy the log in the middle of a commit.
  sqlite3_wal_hook(db_, note_pages, this);
  return RunOwn("PRAGMA platform.cache_size=-65536", error);
}

bool CSqliteHandle::Checkpoint(int& left, SqlError& error) {
  int pages = 0;
  int copied = 0;
  if (sqlite3_wal_checkpoint_v2(db_, "platform", SQLITE_CHECKPOINT_PASSIVE, &pages, &copied) != SQLITE_OK) {
    return Fail(error);
  }
  left = pages - copied;
  return true;
}

// SQLite documents the index of the log ("WAL-index format"): the number of pages that are copied already is at byte
// 96, guarded by lock 1.
bool CSqliteHandle::CopyAllAgain() {
  constexpr int kCheckpointLock = 1;
  constexpr int kRegionSize = 32 * 1024;
  constexpr std::size_t kCopiedPages = 96;
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(db_, "platform", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file->pMethods == nullptr || file->pMethods->iVersion < 2 ||
      file->pMethods->xShmLock(file, kCheckpointLock, 1, SQLITE_SHM_LOCK | SQLITE_SHM_EXCLUSIVE) != SQLITE_OK) {
    return false;
  }
  void volatile* index = nullptr;
  const bool is_mapped = file->pMethods->xShmMap(file, 0, kRegionSize, 0, &index) == SQLITE_OK && index != nullptr;
  if (is_mapped) {
    *reinterpret_cast<std::uint32_t volatile*>(static_cast<char volatile*>(index) + kCopiedPages) = 0;
  }
  file->pMethods->xShmLock(file, kCheckpointLock, 1, SQLITE_SHM_UNLOCK | SQLITE_SHM_EXCLUSIVE);
  return is_mapped;
}

bool CSqliteHandle::Run(const std::string& sql, CRowBuffer* rows, SqlError& error) {
  if (!IsAcceptable(sql, error)) {
    return false;
  }
  SqlTemplate shape;
  bool has_run = false;
  if (rows == nullptr && MakeTemplate(sql, shape)) {
    const bool succeeded = RunTemplate(shape, error, has_run);
    if (has_run) {
      return succeeded;
    }
  }
  StatementPtr statement;
  {
    const details::CRaisedFlag guard(guarded_);
    statement = Prepare(sql, error);
  }
  return statement && Step(statement.get(), rows, error);
}

// A template that cannot be prepared has not run. The error reported is then the one of the original statement.
bool CSqliteHandle::RunTemplate(const SqlTemplate& shape, SqlError& error, bool& has_run) {
  const details::CRaisedFlag guard(guarded_);
  SqlError ignored;
  CSqliteStatements::CLoan loan = Borrow(callers_statements_, shape.text, ignored);
  has_run = loan && details::BindAll(loan.Get(), shape.values);
  return has_run && RunBorrowed(loan, nullptr, error);
}

bool CSqliteHandle::RunIfReading(const std::string& sql, CRowBuffer& rows, bool& writes, SqlError& error) {
  writes = false;
  if (!IsAcceptable(sql, error)) {
    return false;
  }
  const details::CRaisedFlag guard(guarded_);
  try {
    CSqliteStatements::CLoan loan = Borrow(callers_statements_, sql, error);
    writes = loan && sqlite3_stmt_readonly(loan.Get()) == 0;
    if (writes) {
      loan.Drop();
    }
    return loan && RunBorrowed(loan, &rows, error);
  } catch (const std::bad_alloc&) {
    SetOutOfMemory(error);
    return false;
  }
}

bool CSqliteHandle::ShowRows(const std::string& sql, const std::vector<std::string>& columns, const RowVisitor& look,
                             SqlError& error) {
  if (!IsAcceptable(sql, error)) {
    return false;
  }
  const details::CRaisedFlag guard(guarded_);
  CSqliteStatements::CLoan loan = Borrow(callers_statements_, sql, error);
  if (!loan) {
    return false;
  }
  if (sqlite3_stmt_readonly(loan.Get()) == 0) {
    loan.Drop();
    return SetError(error, SQLITE_MISUSE, "only what reads can be shown row by row");
  }
  int result = sqlite3_step(loan.Get());
  // The columns are looked for after the first step, because a kept statement learns of a changed schema only then.
  const details::CSteppedRow row(loan.Get(), columns);
  for (; result == SQLITE_ROW; result = sqlite3_step(loan.Get())) {
    look(row);
  }
  if (result != SQLITE_DONE) {
    Fail(error);
    loan.Drop();
  }
  return result == SQLITE_DONE;
}

bool CSqliteHandle::RunOwn(const char* sql, SqlError& error) {
  return RunOwn(sql, nullptr, error);
}

bool CSqliteHandle::RunOwn(const char* sql, CRowBuffer* rows, SqlError& error) {
  CSqliteStatements::CLoan loan = Borrow(own_statements_, sql, error);
  return loan && RunBorrowed(loan, rows, error);
}

// Gives a statement that was kept, or prepares it; on failure the loan is empty and `error` is filled in.
CSqliteStatements::CLoan CSqliteHandle::Borrow(CSqliteStatements& statements, const std::string& sql, SqlError& error) {
  refusal_ = nullptr;
  CSqliteStatements::CLoan loan = statements.Borrow(sql);
  if (!loan) {
    if (StatementPtr fresh = Prepare(sql, error); fresh) {
      loan.Fill(sql, std::move(fresh));
    }
  }
  return loan;
}

bool CSqliteHandle::RunBorrowed(CSqliteStatements::CLoan& loan, CRowBuffer* rows, SqlError& error) {
  const bool succeeded = Step(loan.Get(), rows, error);
  if (!succeeded || !details::IsWorthKeeping(sqlite3_sql(loan.Get()))) {
    loan.Drop();
  }
  return succeeded;
}

bool CSqliteHandle::IsInTransaction() const {
  return db_ != nullptr && sqlite3_get_autocommit(db_) == 0;
}

bool CSqliteHandle::HasMoved() const {
  int moved = 0;
  const int result = sqlite3_file_control(db_, "platform", SQLITE_FCNTL_HAS_MOVED, &moved);
  return result == SQLITE_OK && moved != 0;
}

bool CSqliteHandle::IsAcceptable(const std::string& sql, SqlError& error) {
  if (sql.find('\0') != std::string::npos) {
    // SQLite would stop reading at the NUL byte and run what comes before it.
    return SetError(error, SQLITE_MISUSE, "the statement holds a NUL byte");
  }
  if (sql.size() >= static_cast<std::size_t>(sqlite3_limit(db_, SQLITE_LIMIT_SQL_LENGTH, -1))) {
    return SetError(error, SQLITE_TOOBIG, "the statement is too long");
  }
  return true;
}

// Returns null with `error` filled in unless `sql` is exactly one statement that may run.
StatementPtr CSqliteHandle::Prepare(const std::string& sql, SqlError& error) {
  refusal_ = nullptr;
  sqlite3_stmt* statement = nullptr;
  const char* tail = nullptr;
  // The length includes the terminating NUL, so that SQLite need not copy the text.
  if (sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size() + 1), &statement, &tail) != SQLITE_OK) {
    Fail(error);
    return nullptr;
  }
  StatementPtr owner(statement);
  if (!owner) {
    SetError(error, SQLITE_MISUSE, "the statement is empty");
    return nullptr;
  }
  return IsLast(tail, error) ? std::move(owner) : nullptr;
}

// Only blanks, semicolons and comments may follow a statement.
bool CSqliteHandle::IsLast(const char* tail, SqlError& error) {
  while (tail != nullptr && *tail != '\0') {
    sqlite3_stmt* statement = nullptr;
    const int result = sqlite3_prepare_v2(db_, tail, -1, &statement, &tail);
    const StatementPtr owner(statement);
    if (result != SQLITE_OK || owner) {
      return SetError(error, SQLITE_MISUSE, "only one statement at a time");
    }
  }
  return true;
}

bool CSqliteHandle::Step(sqlite3_stmt* statement, CRowBuffer* rows, SqlError& error) {
  try {
    int result = sqlite3_step(statement);
    if (rows != nullptr) {
      // The columns are read after the first step, because a kept statement learns of a changed schema only then.
      rows->Clear();
      details::AddColumns(statement, *rows);
    }
    for (; result == SQLITE_ROW; result = sqlite3_step(statement)) {
      if (rows != nullptr && !details::AddRow(statement, *rows)) {
        throw std::bad_alloc();
      }
    }
    if (result == SQLITE_DONE) {
      return true;
    }
    Fail(error);
  } catch (const std::bad_alloc&) {
    SetOutOfMemory(error);
  }
  if (rows != nullptr) {
    rows->Clear();
  }
  return false;
}

bool CSqliteHandle::Fail(SqlError& error) {
  if (db_ == nullptr) {
    SetOutOfMemory(error);
    return false;
  }
  return SetError(error, sqlite3_extended_errcode(db_), refusal_ == nullptr ? sqlite3_errmsg(db_) : refusal_);
}

int CSqliteHandle::Authorize(void* handle, int action, const char*, const char*, const char* database, const char*) {
  auto& self = *static_cast<CSqliteHandle*>(handle);
  if (!self.guarded_) {
    return SQLITE_OK;
  }
  switch (action) {
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT:
      // Statements of several callers share a transaction, so none of them may end it.
      self.refusal_ = "transactions are not the caller's to control";
      return SQLITE_DENY;
    case SQLITE_ATTACH:
    case SQLITE_DETACH:
      self.refusal_ = "databases are not the caller's to attach";
      return SQLITE_DENY;
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
      if (database != nullptr && std::strcmp(database, "main") == 0) {
        // A table without its schema's name would be made in memory and be lost when the connection is closed.
        self.refusal_ = "only the schema platform can be written to";
        return SQLITE_DENY;
      }
      return SQLITE_OK;
    default:
      return SQLITE_OK;
  }
}

bool IsBroken(const SqlError& error) {
  switch (error.code & 0xFF) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CANTOPEN:
    case SQLITE_IOERR:
    case SQLITE_PROTOCOL:
    case SQLITE_READONLY:
      return true;
    default:
      return false;
  }
}

}  // namespace db_layer
