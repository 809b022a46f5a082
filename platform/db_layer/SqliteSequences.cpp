#include "db_layer/SqliteSequences.h"

#include <sqlite3.h>

#include <charconv>
#include <exception>
#include <limits>
#include <utility>

#include "TansyBase/MessageLoop.h"

namespace db_layer {

CSqliteSequences::CSqliteSequences(Commit commit) : commit_(std::move(commit)) {}

bool CSqliteSequences::NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) {
  std::unique_lock lock(mutex_);
  for (;;) {
    Sequence& entry = sequences_[sequence];
    if (entry.next < entry.end) {
      value = entry.next++;
      return true;
    }
    if (!entry.is_reserving) {
      if (!Reserve(entry, sequence, lock, error)) {
        return false;
      }
      continue;
    }
    // One failure answers all callers that waited for it. If each of them tried in turn, their waits would add up.
    const std::uint64_t failures = entry.failures;
    {
      const TansyBase::CBlockingScope blocking;  // the block is being committed
      reserved_.wait(lock, [&entry] { return !entry.is_reserving; });
    }
    if (entry.failures != failures) {
      error = entry.last_failure;
      return false;
    }
  }
}

bool CSqliteSequences::Reserve(Sequence& entry, const std::string& name, std::unique_lock<std::mutex>& lock,
                               SqlError& error) {
  entry.is_reserving = true;
  const std::uint64_t epoch = epoch_;
  lock.unlock();
  std::int64_t first = 0;
  const bool succeeded = CommitBlock(name, first, error);
  lock.lock();
  // This comes first: whatever fails below, those who wait must get an answer.
  entry.is_reserving = false;
  reserved_.notify_all();
  if (!succeeded) {
    ++entry.failures;
    entry.last_failure = error;
  } else if (epoch == epoch_) {
    entry.next = first;
    entry.end = first + kBlock;
  }
  return succeeded;
}

bool CSqliteSequences::CommitBlock(const std::string& name, std::int64_t& first, SqlError& error) noexcept {
  try {
    CRowBuffer rows;
    return commit_(ReserveStatement(name), rows, error) && ReadBlock(rows, name, first, error);
  } catch (const std::exception&) {
    SetOutOfMemory(error);
    return false;
  }
}

bool CSqliteSequences::TakeReserved(const std::string& sequence, std::int64_t& value) {
  const std::lock_guard lock(mutex_);
  const auto found = sequences_.find(sequence);
  if (found == sequences_.end() || found->second.next >= found->second.end) {
    return false;
  }
  value = found->second.next++;
  return true;
}

void CSqliteSequences::Forget() {
  const std::lock_guard lock(mutex_);
  ++epoch_;
  for (auto& [name, entry] : sequences_) {
    entry.next = entry.end = 0;
  }
}

std::string CSqliteSequences::ReserveStatement(const std::string& sequence) {
  std::string name;
  for (const char c : sequence) {
    name.append(c == '\'' ? 2 : 1, c);
  }
  const std::string block = std::to_string(kBlock);
  const std::string last = std::to_string(std::numeric_limits<std::int64_t>::max() - kBlock);
  return "UPDATE platform.sequences SET next_value = next_value + " + block + " WHERE name = '" + name +
         "' AND typeof(next_value) = 'integer' AND next_value <= " + last + " RETURNING next_value - " + block +
         " AS first_value";
}

bool CSqliteSequences::ReadBlock(const CRowBuffer& rows, const std::string& sequence, std::int64_t& first,
                                 SqlError& error) {
  const std::string text = rows.GetString("first_value");
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), first);
  if (rows.IsEnd() || parsed.ec != std::errc()) {
    error = {SQLITE_ERROR, "no such sequence, or none of its values left: " + sequence};
    return false;
  }
  return true;
}

CSqliteWriterSequences::CSqliteWriterSequences(CSqliteSequences& shared) : shared_(shared) {}

bool CSqliteWriterSequences::NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) {
  if (shared_.TakeReserved(sequence, value)) {
    return true;
  }
  if (handle_ == nullptr) {
    error = {SQLITE_MISUSE, "nextval cannot be used outside a transaction"};
    return false;
  }
  Block& block = blocks_[sequence];
  if (block.next >= block.end) {
    CRowBuffer rows;
    std::int64_t first = 0;
    const std::string statement = CSqliteSequences::ReserveStatement(sequence);
    if (!handle_->RunOwn(statement.c_str(), &rows, error) ||
        !CSqliteSequences::ReadBlock(rows, sequence, first, error)) {
      return false;
    }
    block = {first, first + CSqliteSequences::kBlock};
  }
  value = block.next++;
  return true;
}

void CSqliteWriterSequences::UseTransactionOf(CSqliteHandle* handle) {
  handle_ = handle;
  blocks_.clear();
}

void CSqliteWriterSequences::Forget() {
  shared_.Forget();
}

}  // namespace db_layer
