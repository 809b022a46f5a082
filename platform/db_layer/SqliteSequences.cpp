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
    if (TakeNext(entry, value)) {
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

bool CSqliteSequences::TakeNext(Sequence& entry, std::int64_t& value) {
  if (entry.next == entry.end && entry.has_spare) {
    entry.next = entry.first_of_spare;
    entry.end = entry.first_of_spare + kBlock;
    entry.has_spare = false;
  }
  if (entry.next == entry.end) {
    return false;
  }
  value = entry.next++;
  return true;
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
    entry.was_refused = false;
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
  return found != sequences_.end() && TakeNext(found->second, value);
}

void CSqliteSequences::Forget() {
  const std::lock_guard lock(mutex_);
  ++epoch_;
  for (auto& [name, entry] : sequences_) {
    entry.next = entry.end = 0;
    entry.has_spare = entry.was_refused = false;
  }
}

CSqliteSequences::CReservation::CReservation(CSqliteSequences& sequences) : sequences_(sequences) {
  if (Find()) {
    write_.statements = &statements_;
    write_.rows = &rows_;
  }
}

bool CSqliteSequences::CReservation::Find() {
  const std::lock_guard lock(sequences_.mutex_);
  for (auto& [name, entry] : sequences_.sequences_) {
    const std::int64_t left = entry.end - entry.next;
    if (left > 0 && left < kBlock / 2 && !entry.has_spare && !entry.was_refused && !entry.is_reserving) {
      name_ = name;
      statements_.push_back(ReserveStatement(name));
      epoch_ = sequences_.epoch_;
      entry.is_reserving = true;
      return true;
    }
  }
  return false;
}

CSqliteSequences::CReservation::~CReservation() {
  if (Write() == nullptr) {
    return;
  }
  SqlError ignored;
  std::int64_t first = 0;
  bool succeeded = false;
  try {
    succeeded = write_.succeeded && ReadBlock(rows_, name_, first, ignored);
  } catch (const std::exception&) {
    succeeded = false;  // out of memory; the values are lost
  }
  const std::lock_guard lock(sequences_.mutex_);
  Sequence& entry = sequences_.sequences_.find(name_)->second;
  entry.is_reserving = false;
  sequences_.reserved_.notify_all();
  if (epoch_ == sequences_.epoch_) {
    entry.first_of_spare = first;
    entry.has_spare = succeeded;
    entry.was_refused = !succeeded;
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
