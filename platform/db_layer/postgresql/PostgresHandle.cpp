#include "db_layer/postgresql/PostgresHandle.h"

#include <libpq-fe.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <string_view>
#include <utility>

#include "db_layer/SqlWords.h"
#include "db_layer/postgresql/PostgresParameters.h"
#include "db_layer/postgresql/SocketWait.h"

namespace db_layer {

namespace details {
namespace {

constexpr int kOldestServer = 130000;
constexpr const char* kEncoding = "SQL_ASCII";

// Lists of values differ in length from call to call; only short ones come again.
constexpr std::size_t kMostPreparedValues = 16;
// The catalogue has some twenty statements. What goes beyond this is not prepared.
constexpr std::size_t kMostPrepared = 128;

constexpr std::array<std::string_view, 9> kTransactions = {"BEGIN", "START", "COMMIT",    "END",    "ROLLBACK",
                                                           "ABORT", "LOCK",  "SAVEPOINT", "RELEASE"};
constexpr std::array<std::string_view, 9> kSessions = {"SET",     "RESET",      "DISCARD", "PREPARE", "EXECUTE",
                                                       "DECLARE", "DEALLOCATE", "COPY",    "LISTEN"};

bool StartsWithOneOf(std::string_view sql, const std::array<std::string_view, 9>& words) {
  return std::any_of(words.begin(), words.end(), [sql](std::string_view word) { return StartsWithWord(sql, word); });
}

// PostgreSQL numbers the places of values.
std::string Numbered(std::string_view text) {
  std::string numbered;
  int number = 0;
  for (const char c : text) {
    if (c == '?') {
      numbered += '$';
      numbered += std::to_string(++number);
    } else {
      numbered += c;
    }
  }
  return numbered;
}

std::string Field(const pg_result* result, int field) {
  const char* text = PQresultErrorField(result, field);
  return text == nullptr ? std::string() : std::string(text);
}

std::string_view Cell(const pg_result* result, int row, int column) {
  return {PQgetvalue(result, row, column), static_cast<std::size_t>(PQgetlength(result, row, column))};
}

void AddRows(const pg_result* result, CRowBuffer& rows) {
  rows.Clear();
  const int columns = PQnfields(result);
  for (int i = 0; i < columns; ++i) {
    rows.AddColumn(PQfname(result, i));
  }
  const int count = PQntuples(result);
  for (int row = 0; row < count; ++row) {
    for (int i = 0; i < columns; ++i) {
      rows.AddCell(Cell(result, row, i));
    }
  }
}

// The only row of a result, in columns that were asked for by name.
class CResultRow final : public IRow {
 public:
  CResultRow(const pg_result* result, const std::vector<int>& indices) : result_(result), indices_(indices) {}

  std::string_view GetText(std::size_t column) const override {
    const int index = column < indices_.size() ? indices_[column] : -1;
    return index < 0 ? std::string_view() : Cell(result_, 0, index);
  }
  std::int32_t GetInt(std::size_t column) const override { return LowBits(GetText(column)); }

 private:
  const pg_result* const result_;
  const std::vector<int>& indices_;
};

std::vector<int> FindColumns(const pg_result* result, const std::vector<std::string>& columns) {
  std::vector<int> indices;
  for (const std::string& column : columns) {
    int index = PQnfields(result) - 1;
    while (index >= 0 && column != PQfname(result, index)) {
      --index;
    }
    indices.push_back(index);
  }
  return indices;
}

}  // namespace
}  // namespace details

std::string PostgresObjection(int version, const std::string& encoding, const std::string& database) {
  if (version < details::kOldestServer) {
    return "the server is PostgreSQL " + std::to_string(version / 10000) + "; 13 or later is needed";
  }
  if (encoding != details::kEncoding) {
    return "the database has the encoding " + encoding +
           ", but names are bytes of any kind: make it with CREATE DATABASE " + database +
           " ENCODING 'SQL_ASCII' LOCALE 'C' TEMPLATE template0";
  }
  return "";
}

int PostgresErrorCode(const std::string& state) {
  constexpr int kOther = 1;
  // TNL01 is the schema's own: a prelude says by it that this process may not write now.
  static const std::map<std::string, int> codes = {
      {"23", kErrorConstraint}, {"P0001", kErrorConstraint}, {"55P03", kErrorBusy},   {"57014", kErrorBusy},
      {"40", kErrorBusy},       {"08", kErrorBusy},          {"57P", kErrorBusy},     {"53300", kErrorBusy},
      {"TNL01", kErrorBusy},    {"53100", kErrorFull},       {"53200", kErrorMemory}, {"25006", kErrorReadOnly}};
  for (const std::size_t length : {5U, 3U, 2U}) {
    const auto found = codes.find(state.substr(0, length));
    if (found != codes.end()) {
      return found->second;
    }
  }
  return kOther;
}

bool IsCallersStatement(const std::string& sql, SqlError& error) {
  if (sql.find('\0') != std::string::npos) {
    return SetError(error, kErrorMisuse, "the statement holds a NUL byte");
  }
  std::string_view rest = SkipBlanks(sql);
  while (rest.starts_with(";")) {
    rest = SkipBlanks(rest.substr(1));
  }
  if (rest.empty()) {
    return SetError(error, kErrorMisuse, "the statement is empty");
  }
  if (details::StartsWithOneOf(rest, details::kTransactions)) {
    return SetError(error, kErrorMisuse, "transactions are not the caller's to control");
  }
  if (details::StartsWithOneOf(rest, details::kSessions)) {
    return SetError(error, kErrorMisuse, "connections are not the caller's to change");
  }
  return true;
}

void CPostgresHandle::ClearResult::operator()(pg_result* result) const {
  PQclear(result);
}

CPostgresHandle::~CPostgresHandle() {
  Close();
}

void CPostgresHandle::Close() {
  PQfinish(connection_);
  connection_ = nullptr;
  names_.clear();
  is_silent_ = false;
}

bool CPostgresHandle::IsOpen() const {
  return connection_ != nullptr && !is_silent_ && PQstatus(connection_) == CONNECTION_OK;
}

bool CPostgresHandle::IsInTransaction() const {
  return IsOpen() && PQtransactionStatus(connection_) != PQTRANS_IDLE;
}

bool CPostgresHandle::Open(const DBParam& param, EUse use, const PostgresOptions& options, SqlError& error) {
  Close();
  PostgresParameters parameters;
  if (!ReadPostgresParameters(param, parameters, error.text)) {
    error.code = kErrorMisuse;
    return false;
  }
  AddPostgresSettings(use == EUse::kRead, options.full_durability, options.timeout_ms, parameters);
  std::vector<const char*> keywords;
  std::vector<const char*> values;
  for (const auto& [keyword, value] : parameters) {
    keywords.push_back(keyword.c_str());
    values.push_back(value.c_str());
  }
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  timeout_ms_ = options.timeout_ms;
  connection_ = PQconnectdbParams(keywords.data(), values.data(), 0);
  if (PQstatus(connection_) != CONNECTION_OK) {
    SetError(error, kErrorBusy, PQerrorMessage(connection_));
    Close();
    return false;
  }
  PQsetNoticeProcessor(
      connection_, [](void*, const char*) {}, nullptr);
  const char* const encoding = PQparameterStatus(connection_, "server_encoding");
  const std::string objection =
      PostgresObjection(PQserverVersion(connection_), encoding == nullptr ? "" : encoding, PQdb(connection_));
  if (!objection.empty() || PQsetnonblocking(connection_, 1) != 0) {
    SetError(error, kErrorMisuse, objection.empty() ? PQerrorMessage(connection_) : objection);
    Close();
    return false;
  }
  return true;
}

CPostgresHandle::EResult CPostgresHandle::RunPipeline(std::vector<PostgresStep>& steps, SqlError& error) {
  if (!IsOpen() || PQenterPipelineMode(connection_) != 1) {
    return Lose(error);
  }
  std::vector<Expected> expected;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (!Send(i, steps[i], expected)) {
      return Lose(error);
    }
  }
  if (PQpipelineSync(connection_) != 1) {
    return Lose(error);
  }
  return ReceivePipeline(steps, expected, error);
}

bool CPostgresHandle::Send(std::size_t index, const PostgresStep& step, std::vector<Expected>& expected) {
  SqlTemplate shape;
  if (!step.as_it_is && step.rows == nullptr && MakeTemplate(step.sql, shape) &&
      shape.values.size() <= details::kMostPreparedValues) {
    return SendPrepared(index, shape, expected);
  }
  expected.push_back({index, nullptr});
  return PQsendQueryParams(connection_, step.sql.c_str(), 0, nullptr, nullptr, nullptr, nullptr, 0) == 1;
}

bool CPostgresHandle::SendPrepared(std::size_t index, const SqlTemplate& shape, std::vector<Expected>& expected) {
  std::vector<std::string> numbers(shape.values.size());
  std::vector<const char*> values;
  for (std::size_t i = 0; i < shape.values.size(); ++i) {
    const SqlValue& value = shape.values[i];
    numbers[i] = value.is_text ? std::string() : std::to_string(value.number);
    values.push_back(value.is_text ? value.text.c_str() : numbers[i].c_str());
  }
  const int count = static_cast<int>(values.size());
  auto found = names_.find(shape.text);
  if (found == names_.end() && names_.size() >= details::kMostPrepared) {
    expected.push_back({index, nullptr});
    return PQsendQueryParams(connection_, details::Numbered(shape.text).c_str(), count, nullptr, values.data(), nullptr,
                             nullptr, 0) == 1;
  }
  if (found == names_.end()) {
    found = names_.emplace(shape.text, "s" + std::to_string(next_name_++)).first;
    expected.push_back({index, &found->first});
    if (PQsendPrepare(connection_, found->second.c_str(), details::Numbered(shape.text).c_str(), 0, nullptr) != 1) {
      return false;
    }
  }
  expected.push_back({index, nullptr});
  return PQsendQueryPrepared(connection_, found->second.c_str(), count, values.data(), nullptr, nullptr, 0) == 1;
}

CPostgresHandle::EResult CPostgresHandle::ReceivePipeline(std::vector<PostgresStep>& steps,
                                                          const std::vector<Expected>& expected, SqlError& error) {
  bool has_failed = false;
  std::vector<std::string> unprepared;
  for (const Expected& item : expected) {
    Result result;
    if (!Receive(result) || !result) {
      return has_failed ? LoseWithReason() : Lose(error);
    }
    const ExecStatusType status = PQresultStatus(result.get());
    const bool succeeded = status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
    PostgresStep& step = steps[item.step];
    if (!succeeded && item.prepared != nullptr) {
      unprepared.push_back(*item.prepared);
    }
    if (!succeeded && !has_failed) {
      has_failed = true;
      Fail(result.get(), error);
    }
    if (succeeded && item.prepared == nullptr) {
      step.tag = PQcmdStatus(result.get());
      if (step.rows != nullptr) {
        details::AddRows(result.get(), *step.rows);
      }
    }
    if (!SkipToEnd()) {
      return has_failed ? LoseWithReason() : Lose(error);
    }
  }
  Result sync;
  if (!Receive(sync) || PQresultStatus(sync.get()) != PGRES_PIPELINE_SYNC) {
    return has_failed ? LoseWithReason() : Lose(error);
  }
  sync.reset();
  for (const std::string& text : unprepared) {
    names_.erase(text);
  }
  if (PQexitPipelineMode(connection_) != 1) {
    return Lose(error);
  }
  return has_failed ? EResult::kFailed : EResult::kDone;
}

CPostgresHandle::EResult CPostgresHandle::Run(const std::string& sql, CRowBuffer* rows, SqlError& error) {
  if (!IsOpen() || PQsendQueryParams(connection_, sql.c_str(), 0, nullptr, nullptr, nullptr, nullptr, 0) != 1) {
    return Lose(error);
  }
  Result result;
  if (!Receive(result) || !result) {
    return Lose(error);
  }
  const ExecStatusType status = PQresultStatus(result.get());
  const bool succeeded = status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
  if (!succeeded) {
    Fail(result.get(), error);
  } else if (rows != nullptr) {
    details::AddRows(result.get(), *rows);
  }
  if (!SkipToEnd()) {
    return succeeded ? Lose(error) : LoseWithReason();
  }
  return succeeded ? EResult::kDone : EResult::kFailed;
}

CPostgresHandle::EResult CPostgresHandle::ShowRows(const std::string& sql, const std::vector<std::string>& columns,
                                                   const RowVisitor& look, bool& shown, SqlError& error) {
  shown = false;
  if (!IsOpen() || PQsendQueryParams(connection_, sql.c_str(), 0, nullptr, nullptr, nullptr, nullptr, 0) != 1 ||
      PQsetSingleRowMode(connection_) != 1) {
    return Lose(error);
  }
  std::vector<int> indices;
  Result result;
  for (;;) {
    if (!Receive(result) || !result) {
      return Lose(error);
    }
    if (PQresultStatus(result.get()) != PGRES_SINGLE_TUPLE) {
      break;
    }
    if (!shown) {
      indices = details::FindColumns(result.get(), columns);
      shown = true;
    }
    try {
      look(details::CResultRow(result.get(), indices));
    } catch (...) {
      result.reset();
      Close();
      throw;
    }
  }
  const bool succeeded = PQresultStatus(result.get()) == PGRES_TUPLES_OK;
  if (!succeeded) {
    Fail(result.get(), error);
  }
  if (!SkipToEnd()) {
    return succeeded ? Lose(error) : LoseWithReason();
  }
  return succeeded ? EResult::kDone : EResult::kFailed;
}

// Gives the next result, or none at the end of those of one statement. Returns false when the connection is lost.
bool CPostgresHandle::Receive(Result& result) {
  while (PQisBusy(connection_) == 1) {
    if (!WaitForInput()) {
      return false;
    }
  }
  result.reset(PQgetResult(connection_));
  return PQstatus(connection_) == CONNECTION_OK;
}

bool CPostgresHandle::WaitForInput() {
  for (;;) {
    const int left = PQflush(connection_);
    if (left < 0) {
      return false;
    }
    const ESocket state = WaitForSocket(PQsocket(connection_), left == 1, std::chrono::milliseconds(timeout_ms_));
    if (state == ESocket::kTimedOut) {
      is_silent_ = true;
      return false;
    }
    if (state == ESocket::kReadable) {
      return PQconsumeInput(connection_) == 1;
    }
  }
}

CPostgresHandle::ENotice CPostgresHandle::WaitForNotice(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    if (!IsOpen() || PQconsumeInput(connection_) != 1) {
      Close();
      return ENotice::kLost;
    }
    bool came = false;
    while (PGnotify* const notice = PQnotifies(connection_)) {
      PQfreemem(notice);
      came = true;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (came || left.count() <= 0) {
      return came ? ENotice::kCame : ENotice::kNone;
    }
    WaitForSocket(PQsocket(connection_), false, left);
  }
}

bool CPostgresHandle::SkipToEnd() {
  Result result;
  do {
    if (!Receive(result)) {
      return false;
    }
  } while (result);
  return true;
}

// Closes a connection after the server itself has said why.
CPostgresHandle::EResult CPostgresHandle::LoseWithReason() {
  Close();
  return EResult::kLost;
}

// Says why the connection is of no use any more, and closes it.
CPostgresHandle::EResult CPostgresHandle::Lose(SqlError& error) {
  if (is_silent_) {
    SetError(error, kErrorBusy, "the database server has not answered for " + std::to_string(timeout_ms_) + " ms");
  } else {
    const std::string reason = connection_ == nullptr ? "" : PQerrorMessage(connection_);
    SetError(error, kErrorBusy,
             "the connection to the database server is lost" + (reason.empty() ? "" : ": " + reason));
  }
  Close();
  return EResult::kLost;
}

void CPostgresHandle::Fail(const pg_result* result, SqlError& error) const {
  const std::string state = details::Field(result, PG_DIAG_SQLSTATE);
  const std::string text = details::Field(result, PG_DIAG_MESSAGE_PRIMARY);
  SetError(error, PostgresErrorCode(state), text.empty() ? PQresultErrorMessage(result) : text);
}

}  // namespace db_layer
