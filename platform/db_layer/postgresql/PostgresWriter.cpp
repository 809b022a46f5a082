#include "db_layer/postgresql/PostgresWriter.h"

#include <algorithm>
#include <exception>
#include <thread>
#include <utility>

#include "TansyBase/GuidUtil.h"
#include "db_layer/WriteBatch.h"

namespace db_layer {

namespace details {
namespace {

// Writes wait so long for a database that is being restarted, and are refused at once after that.
constexpr std::chrono::seconds kLongestPatience{5};
constexpr std::chrono::milliseconds kFirstPause{50};
constexpr std::chrono::milliseconds kLongestPause{5000};
// A batch in doubt is looked up for so long. Clients have given up before that.
constexpr std::chrono::seconds kLongestDoubt{110};
constexpr int kMostTries = 2;
constexpr int kLockTries = 20;

// This lock is held by the connection of the process that writes to the database. Processes that share the database
// share the lock.
constexpr const char* kTakeLock = "SELECT pg_try_advisory_lock(1413565779, 1)::int AS taken";
constexpr const char* kShareLock = "SELECT pg_try_advisory_lock_shared(1413565779, 1)::int AS taken";
constexpr const char* kFindMarks =
    "SELECT count(*) AS found FROM pg_class WHERE oid = to_regclass('platform.commit_marks')";
constexpr const char* kFindSession =
    "SELECT 'pid = ' || pid || ' AND backend_start = ' || quote_literal(backend_start) AS session "
    "FROM pg_stat_activity WHERE pid = pg_backend_pid()";

}  // namespace
}  // namespace details

CPostgresWriter::CPostgresWriter(DBParam param, const PostgresOptions& options, std::function<void()> connected)
    : param_(std::move(param)),
      options_(options),
      connected_(std::move(connected)),
      name_(TansyBase::GuidUtil::CreateGuid()) {}

void CPostgresWriter::RunBatch(const std::vector<SqlWrite*>& batch) {
  std::vector<SqlWrite*> writes;
  for (SqlWrite* write : batch) {
    write->succeeded = false;
    const auto& statements = *write->statements;
    const bool fits = std::all_of(statements.begin(), statements.end(),
                                  [write](const std::string& sql) { return IsCallersStatement(sql, write->error); });
    if (fits) {
      writes.push_back(write);
    }
  }
  SqlError error;
  if (writes.empty()) {
    return;
  }
  if (!EnsureOpen(error) || !PassBarrier(writes, error)) {
    FailAll(writes, error);
    return;
  }
  RunTogether(writes);
}

void CPostgresWriter::RunTogether(const std::vector<SqlWrite*>& writes) {
  SqlError error;
  switch (RunWithRetry(writes, EDialect::kPrepared, error)) {
    case EOutcome::kDone:
      LookForMarks(writes);
      break;
    case EOutcome::kRefused:
      // Nearly always all writes succeed. When one was refused, each gets a transaction of its own.
      for (SqlWrite* write : writes) {
        RunAlone(*write);
      }
      break;
    case EOutcome::kKeptOut:
    case EOutcome::kLost:
    case EOutcome::kUnknown:
      FailAll(writes, error);
      break;
  }
}

// A schema that was just made may have brought the table of marks.
void CPostgresWriter::LookForMarks(const std::vector<SqlWrite*>& writes) noexcept {
  const auto names_marks = [](const SqlWrite* write) {
    return std::any_of(write->statements->begin(), write->statements->end(),
                       [](const std::string& sql) { return sql.find("commit_marks") != std::string::npos; });
  };
  if (!has_marks_ && std::any_of(writes.begin(), writes.end(), names_marks)) {
    handle_.Close();  // the next connection looks for it
  }
}

// The statements run as they are, because one whose values have no place of their own can be prepared in no other way.
void CPostgresWriter::RunAlone(SqlWrite& write) {
  if (RunWithRetry({&write}, EDialect::kAsItIs, write.error) != EOutcome::kDone) {
    FailAll({&write}, SqlError(write.error));
  }
}

CPostgresWriter::EOutcome CPostgresWriter::RunWithRetry(const std::vector<SqlWrite*>& writes, EDialect dialect,
                                                        SqlError& error) {
  EOutcome outcome = EOutcome::kLost;
  for (int tries = 0; tries < details::kMostTries && outcome == EOutcome::kLost; ++tries) {
    if (!EnsureOpen(error)) {
      return EOutcome::kLost;
    }
    outcome = RunTransaction(writes, dialect, error);
  }
  return outcome;
}

CPostgresWriter::EOutcome CPostgresWriter::RunTransaction(const std::vector<SqlWrite*>& writes, EDialect dialect,
                                                          SqlError& error) {
  ++last_batch_;
  std::vector<PostgresStep> steps;
  EResult result = EResult::kFailed;
  try {
    steps = StepsOf(writes, dialect);
    result = handle_.RunPipeline(steps, error);
  } catch (const std::exception&) {
    SetOutOfMemory(error);
    handle_.Close();  // in the middle of an answer it is of no use, and what it did is undone
    return EOutcome::kRefused;
  }
  if (result == EResult::kLost) {
    return EOutcome::kLost;
  }
  if (result == EResult::kFailed) {
    RollBack();
    // The prelude stands before all others, so that it has failed when it has said nothing.
    return IsShared() && steps[PreludeStep()].tag.empty() ? EOutcome::kKeptOut : EOutcome::kRefused;
  }
  if (has_marks_ && steps[1].tag != "UPDATE 1") {
    RollBack();
    SetError(error, kErrorBusy, "this process's row of platform.commit_marks is gone");
    handle_.Close();
    return EOutcome::kLost;
  }
  const EOutcome outcome = Commit(error);
  for (SqlWrite* write : writes) {
    write->succeeded = outcome == EOutcome::kDone;
  }
  return outcome;
}

std::vector<PostgresStep> CPostgresWriter::StepsOf(const std::vector<SqlWrite*>& writes, EDialect dialect) const {
  std::vector<PostgresStep> steps;
  steps.push_back({"BEGIN", true, nullptr, {}});
  if (has_marks_) {
    steps.push_back(
        {"UPDATE platform.commit_marks SET batch = " + std::to_string(last_batch_) + " WHERE writer = '" + name_ + "'",
         false,
         nullptr,
         {}});
  }
  if (IsShared()) {
    steps.push_back({options_.prelude(), true, nullptr, {}});
  }
  for (const SqlWrite* write : writes) {
    for (const std::string& sql : *write->statements) {
      const bool is_last = &sql == &write->statements->back();
      steps.push_back({sql, dialect == EDialect::kAsItIs, is_last ? write->rows : nullptr, {}});
    }
  }
  return steps;
}

// Nothing may be thrown from here on, because a write that is committed must not be reported as failed.
CPostgresWriter::EOutcome CPostgresWriter::Commit(SqlError& error) noexcept {
  EResult result = EResult::kLost;
  try {
    std::vector<PostgresStep> steps{{"COMMIT", true, nullptr, {}}};
    result = handle_.RunPipeline(steps, error);
    if (result == EResult::kDone) {
      if (steps.front().tag == "COMMIT") {
        return EOutcome::kDone;
      }
      SetError(error, kErrorBusy, "the transaction was rolled back");
      return EOutcome::kRefused;
    }
  } catch (const std::exception&) {
    handle_.Close();
  }
  if (result == EResult::kFailed) {
    return EOutcome::kRefused;
  }
  try {
    return ResolveDoubt(error);
  } catch (const std::exception&) {
    SetOutOfMemory(error);
    return EOutcome::kUnknown;
  }
}

CPostgresWriter::EOutcome CPostgresWriter::ResolveDoubt(SqlError& error) {
  const Clock::time_point deadline = Clock::now() + details::kLongestDoubt;
  const SqlError lost = error;
  const std::string session = session_;  // the next connection has another
  is_in_doubt_ = has_marks_;
  EMark mark = EMark::kUnread;
  while (has_marks_ && mark == EMark::kUnread && Clock::now() < deadline) {
    if (EnsureOpen(error)) {
      mark = ReadMark(session, error);
    }
    if (mark == EMark::kUnread) {
      std::this_thread::sleep_for(details::kFirstPause);
    }
  }
  is_in_doubt_ = false;
  error = lost;
  if (mark == EMark::kLast || mark == EMark::kOlder) {
    return mark == EMark::kLast ? EOutcome::kDone : EOutcome::kLost;
  }
  handle_.Close();  // the next connection makes its mark
  SetError(error, kErrorBusy, "it is not known whether this was committed: " + lost.text);
  return EOutcome::kUnknown;
}

// The lock is waited for: as long as the session in doubt has not ended, its transaction may still be committed. A
// process that wrote to the database alone meanwhile has removed the mark.
CPostgresWriter::EMark CPostgresWriter::ReadMark(const std::string& session, SqlError& error) {
  CRowBuffer rows;
  const std::string sql = "SELECT batch FROM platform.commit_marks WHERE writer = '" + name_ + "' FOR UPDATE";
  if (handle_.Run(sql, &rows, error) != EResult::kDone) {
    EndSession(session);
    return EMark::kUnread;
  }
  if (rows.IsEnd()) {
    return EMark::kMissing;
  }
  return rows.GetString("batch") == std::to_string(last_batch_) ? EMark::kLast : EMark::kOlder;
}

void CPostgresWriter::RollBack() noexcept {
  try {
    SqlError ignored;
    if (handle_.IsInTransaction() && handle_.Run("ROLLBACK", nullptr, ignored) == EResult::kDone) {
      return;
    }
  } catch (const std::exception&) {
    handle_.Close();
  }
  if (handle_.IsInTransaction()) {
    handle_.Close();
  }
}

CPostgresWriter::Clock::duration CPostgresWriter::Patience() const {
  return std::min<Clock::duration>(details::kLongestPatience, std::chrono::milliseconds(options_.timeout_ms));
}

// Waits a while for a database that has gone away. After that it tries from time to time only, and others are refused
// at once.
bool CPostgresWriter::EnsureOpen(SqlError& error) {
  if (handle_.IsOpen()) {
    return true;
  }
  const bool was_open = !session_.empty();
  if (was_open && pause_.count() == 0) {
    lost_at_ = Clock::now();
    next_try_ = lost_at_;
  }
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (now >= next_try_) {
      if (TryToOpen(last_error_)) {
        pause_ = std::chrono::milliseconds(0);
        return true;
      }
      pause_ = std::clamp(2 * pause_, details::kFirstPause, details::kLongestPause);
      next_try_ = Clock::now() + pause_;
    }
    if (!was_open || next_try_ > lost_at_ + Patience()) {
      error = last_error_;
      return false;
    }
    std::this_thread::sleep_until(next_try_);
  }
}

bool CPostgresWriter::TryToOpen(SqlError& error) {
  if (handle_.Open(param_, CPostgresHandle::EUse::kWrite, options_, error) && BecomeTheWriter(error)) {
    connected_();
    return true;
  }
  handle_.Close();
  return false;
}

bool CPostgresWriter::BecomeTheWriter(SqlError& error) {
  // The server may need a moment to end a connection that was closed just now.
  std::string taken;
  for (int tries = 0; tries < details::kLockTries && taken != "1"; ++tries) {
    if (tries > 0) {
      std::this_thread::sleep_for(details::kFirstPause);
    }
    if (!Ask(IsShared() ? details::kShareLock : details::kTakeLock, "taken", taken, error)) {
      return false;
    }
  }
  if (taken != "1") {
    EndSession(session_);  // perhaps it is this process's own
    return SetError(error, kErrorBusy, "the database is in use by another program that writes to it");
  }
  std::string synchronous;
  if (options_.full_durability &&
      (!Ask("SELECT current_setting('synchronous_commit') AS setting", "setting", synchronous, error) ||
       (synchronous == "off" && handle_.Run("SET synchronous_commit = on", nullptr, error) != EResult::kDone))) {
    return false;
  }
  // A mark in doubt must not be made anew before it was looked at.
  return Ask(details::kFindSession, "session", session_, error) && (is_in_doubt_ || MakeMark(error));
}

// The rows of other processes are of no use any more when the lock is this one's alone.
bool CPostgresWriter::MakeMark(SqlError& error) {
  std::string found;
  if (!Ask(details::kFindMarks, "found", found, error)) {
    return false;
  }
  has_marks_ = found == "1";
  return !has_marks_ || (handle_.Run("INSERT INTO platform.commit_marks (writer, batch) VALUES ('" + name_ +
                                         "', 0) ON CONFLICT (writer) DO NOTHING",
                                     nullptr, error) == EResult::kDone &&
                         (IsShared() || handle_.Run("DELETE FROM platform.commit_marks WHERE writer <> '" + name_ + "'",
                                                    nullptr, error) == EResult::kDone));
}

// Ends what the server still does for a connection that this side has given up. It may wait there for a disk or for a
// network, holding locks.
void CPostgresWriter::EndSession(const std::string& session) {
  SqlError ignored;
  if (!session.empty()) {
    handle_.Run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND " + session,
                nullptr, ignored);
  }
}

bool CPostgresWriter::Ask(const std::string& sql, const std::string& column, std::string& answer, SqlError& error) {
  CRowBuffer rows;
  if (handle_.Run(sql, &rows, error) != EResult::kDone) {
    return false;
  }
  if (rows.IsEnd()) {
    return SetError(error, kErrorBusy, "the database has no answer to " + sql);
  }
  answer = rows.GetString(column);
  return true;
}

}  // namespace db_layer
