#include "db_layer/SqliteDatabase.h"

#include <sqlite3.h>

#include <atomic>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include "TansyBase/MessageLoop.h"

namespace db_layer {

namespace details {
namespace {

// SQLite then counts no bytes, which would take a lock of the whole process at each allocation. It has to be said
// before SQLite is used for the first time.
const int g_memory_statistics_off = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);

std::atomic<bool> g_full_durability{true};
std::atomic<int> g_busy_timeout_ms{5000};

// The registry lives until the process ends, because connections may be given back very late.
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::weak_ptr<CSqliteDatabase>> databases;
};
Registry& TheRegistry() {
  static auto* registry = new Registry;
  return *registry;
}

// Whoever waits for the disk lets another thread of its message loop work meanwhile, and hand in a write of its own for
// the next commit. A commit that does not wait for the disk is over before that pays.
class CWaitForDisk {
 public:
  explicit CWaitForDisk(bool full_durability) {
    if (full_durability) {
      blocking_.emplace();
    }
  }

 private:
  std::optional<TansyBase::CBlockingScope> blocking_;
};

std::filesystem::path FromUtf8(const std::string& path) {
  return std::filesystem::path(std::u8string(path.begin(), path.end()));
}

std::string ToUtf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

// Gives one name for one file, whatever current folder the process has later. The name is empty when the path names no
// file.
std::string FullPath(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) {
    return {};
  }
  std::error_code error;
  const auto absolute = std::filesystem::absolute(FromUtf8(path), error);
  if (error) {
    return {};
  }
  auto full = std::filesystem::weakly_canonical(absolute, error);
  return ToUtf8(error ? absolute : full);
}

}  // namespace
}  // namespace details

bool SetSqliteDefaultDurability(bool full_durability) {
  return details::g_full_durability.exchange(full_durability);
}

int SetSqliteDefaultBusyTimeout(int milliseconds) {
  return details::g_busy_timeout_ms.exchange(milliseconds);
}

std::shared_ptr<CSqliteDatabase> CSqliteDatabase::Acquire(const std::string& path, SqlError& error) {
  const std::string full_path = details::FullPath(path);
  if (full_path.empty()) {
    error = {SQLITE_CANTOPEN, "the database has no usable path"};
    return nullptr;
  }
  auto& registry = details::TheRegistry();
  const std::lock_guard lock(registry.mutex);
  std::erase_if(registry.databases, [](const auto& entry) { return entry.second.expired(); });
  if (auto database = registry.databases[full_path].lock()) {
    return database;
  }
  const SqliteOptions options{details::g_full_durability, details::g_busy_timeout_ms};
  auto database = std::make_shared<CSqliteDatabase>(full_path, options);
  if (!database->writer_.EnsureOpen(error)) {
    return nullptr;
  }
  registry.databases[full_path] = database;
  return database;
}

CSqliteDatabase::CSqliteDatabase(std::string path, const SqliteOptions& options)
    : path_(std::move(path)),
      options_(options),
      sequences_(
          [this](const std::string& sql, CRowBuffer& rows, SqlError& error) { return Write({sql}, &rows, error); }),
      writer_sequences_(sequences_),
      writer_(path_, options_, writer_sequences_, copying_),
      group_commit_([this](const std::vector<SqlWrite*>& batch) { RunBatch(batch); }),
      checkpoints_([this] { return CopyLog(); }, writing_) {}

// When a sequence runs low, its next values are reserved along with what is written anyway.
void CSqliteDatabase::RunBatch(const std::vector<SqlWrite*>& batch) {
  const details::CWaitForDisk waiting(options_.full_durability);
  checkpoints_.WaitForRoom();
  const std::lock_guard writing(writing_);
  CSqliteSequences::CReservation reservation(sequences_);
  if (reservation.Write() != nullptr) {
    std::vector<SqlWrite*> with_reservation = batch;
    with_reservation.push_back(reservation.Write());
    writer_.RunBatch(with_reservation);
  } else {
    writer_.RunBatch(batch);
  }
  checkpoints_.Note(writer_.LogPages());
}

int CSqliteDatabase::CopyLog() noexcept {
  const std::lock_guard copying(copying_);
  try {
    SqlError error;
    const int generation = writer_.Generation();
    if ((!copier_.IsOpen() || copier_generation_ != generation) && !copier_.Open(path_, options_, sequences_, error)) {
      return -1;
    }
    copier_generation_ = generation;
    int left = 0;
    if (copier_.Checkpoint(left, error)) {
      return left;
    }
    if (IsBroken(error)) {
      copier_.CopyAllAgain();
    }
    return -1;
  } catch (const std::exception&) {
    return -1;  // the next commit asks again
  }
}

bool CSqliteDatabase::NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) {
  return sequences_.NextValue(sequence, value, error);
}

bool CSqliteDatabase::Write(const std::vector<std::string>& statements, CRowBuffer* rows, SqlError& error) {
  SqlWrite write;
  write.statements = &statements;
  write.rows = rows;
  {
    const details::CWaitForDisk waiting(options_.full_durability);
    group_commit_.Run(write);
  }
  if (!write.succeeded) {
    error = std::move(write.error);
  }
  return write.succeeded;
}

bool CSqliteDatabase::OpenReader(CSqliteHandle& reader, SqlError& error) {
  return reader.Open(path_, options_, sequences_, error);
}

}  // namespace db_layer
