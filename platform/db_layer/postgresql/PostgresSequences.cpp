#include "db_layer/postgresql/PostgresSequences.h"

#include <charconv>
#include <exception>
#include <utility>

#include "TansyBase/MessageLoop.h"
#include "db_layer/Connect.h"

namespace db_layer {

CPostgresSequences::CPostgresSequences(Ask ask) : ask_(std::move(ask)) {}

bool CPostgresSequences::NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) {
  std::unique_lock lock(mutex_);
  Sequence& entry = sequences_[sequence];
  while (entry.values.empty()) {
    if (!entry.is_reserving) {
      if (!Reserve(entry, sequence, lock, error)) {
        return false;
      }
      continue;
    }
    // One failure answers all callers that waited for it. If each of them tried in turn, their waits would add up.
    const std::uint64_t failures = entry.failures;
    {
      const TansyBase::CBlockingScope blocking;
      reserved_.wait(lock, [&entry] { return !entry.is_reserving; });
    }
    if (entry.failures != failures) {
      error = entry.last_failure;
      return false;
    }
  }
  value = entry.values.front();
  entry.values.pop_front();
  return true;
}

void CPostgresSequences::Forget() {
  const std::lock_guard lock(mutex_);
  for (auto& [name, sequence] : sequences_) {
    sequence.values.clear();
  }
}

bool CPostgresSequences::Reserve(Sequence& entry, const std::string& name, std::unique_lock<std::mutex>& lock,
                                 SqlError& error) {
  entry.is_reserving = true;
  lock.unlock();
  std::deque<std::int64_t> values;
  const bool succeeded = AskForBlock(name, values, error);
  lock.lock();
  // This comes first: whatever fails below, those who wait must get an answer.
  entry.is_reserving = false;
  reserved_.notify_all();
  if (succeeded) {
    entry.values.swap(values);
  } else {
    ++entry.failures;
    entry.last_failure = error;
  }
  return succeeded;
}

// The values need not follow each other: another process may take some in between.
bool CPostgresSequences::AskForBlock(const std::string& name, std::deque<std::int64_t>& values,
                                     SqlError& error) noexcept {
  try {
    CRowBuffer rows;
    const std::string sql =
        "SELECT nextval('" + name + "') AS value FROM generate_series(1, " + std::to_string(kBlock) + ")";
    if (!ask_(sql, rows, error)) {
      return false;
    }
    for (; !rows.IsEnd(); rows.MoveNext()) {
      const std::string text = rows.GetString("value");
      std::int64_t value = 0;
      if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc()) {
        values.push_back(value);
      }
    }
    return !values.empty() || SetError(error, kErrorBusy, "the sequence " + name + " gave no values");
  } catch (const std::exception&) {
    SetOutOfMemory(error);
    return false;
  }
}

}  // namespace db_layer
