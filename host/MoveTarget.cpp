#include "MoveTarget.h"

#include <openssl/rand.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <utility>

#include "FolderPlace.h"
#include "HostDatabases.h"
#include "HostSystem/Files.h"
#include "Locks.h"
#include "MoveFailure.h"
#include "MoveNames.h"
#include "PostgresDatabase.h"
#include "RadosUrl.h"
#include "Schema.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "StoragePlaces.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kIdBytes = 16;
constexpr double kCopiers = 4;
// Everything that is written is read again, and was read before.
constexpr double kWorkPerByte = 2;
constexpr double kSecondsPerRow = 0.0002;

std::string NewMoveId() {
  unsigned char bytes[kIdBytes] = {};
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    throw CMoveFailure("no random number can be had for the id of the move");
  }
  return HexText(bytes, sizeof bytes);
}

std::string DurationText(double seconds) {
  const auto whole = static_cast<long long>(seconds + 0.999);
  if (whole < 120) {
    return std::to_string(whole) + " s";
  }
  return whole < 7200 ? std::to_string((whole + 59) / 60) + " minutes"
                      : std::to_string((whole + 3599) / 3600) + " hours";
}

}  // namespace
}  // namespace details

CMoveTarget::CMoveTarget(const MoveOrder& order, const HostOptions& options) {
  OptionTexts texts;
  if (!order.database.empty()) {
    texts["database"] = order.database;
  }
  if (!order.storage.empty()) {
    texts["storage"] = order.storage;
  }
  HostOptions wanted = options;
  ApplyOptions(wanted, texts, "", "--to-", kExitUsage);
  param_ = wanted.database;
  storage_ = wanted.storage;
  database_url_ = order.database;
  moves_rows_ = db_layer::DescribeDatabase(param_) != db_layer::DescribeDatabase(options.database);
  moves_bytes_ = storage_ != options.storage;
  if (!moves_rows_ && !moves_bytes_) {
    throw CMoveFailure("catalogue and bytes are there already");
  }
  if (moves_bytes_ && IsRadosUrl(storage_) && IsRadosUrl(options.storage)) {
    throw CMoveFailure(
        "bytes are not moved from one pool to another; move them to a folder first, or let Ceph copy them");
  }
}

std::string CMoveTarget::Describe() const {
  const std::string database = moves_rows_ ? "database " + db_layer::DescribeDatabase(param_) : "";
  const std::string storage = moves_bytes_ ? DescribeStore() : "";
  return database + (database.empty() || storage.empty() ? "" : " and ") + storage;
}

bool CMoveTarget::IsNewDatabase() {
  if (param_.type == db_layer::kPostgresql) {
    CPostgresDatabase server(param_);
    return server.QueryNumber(
               "SELECT count(*) AS value FROM pg_class WHERE relnamespace = to_regnamespace('platform')") == 0;
  }
  return HostSystem::GetPathKind(param_.database) == HostSystem::EPathKind::kMissing ||
         CSqliteFile(param_.database, CSqliteFile::EAccess::kChange)
                 .QueryNumber("SELECT COUNT(*) AS value FROM platform.sqlite_master") == 0;
}

// A catalogue counts as empty when it was only made, and as this move's when the move has marked it.
void CMoveTarget::ExpectEmptyDatabase(const std::string& id) const {
  const auto database = OpenHostDatabase(param_, EDatabaseUse::kChange);
  const auto value = [&database](const std::string& name) {
    return database->QueryText("SELECT value FROM platform.host_values WHERE name = " + QuotedText(name));
  };
  const std::string from = value(kMoveFrom);
  if (!id.empty() && from == id) {
    return;
  }
  const bool is_empty = from.empty() && value("store_id").empty() && !database->HasGivenIds() &&
                        database->QueryNumber("SELECT COUNT(*) AS value FROM platform.local_bucket") == 0;
  if (!is_empty) {
    throw CMoveFailure("database " + database->GetName() +
                       (from.empty() ? " holds a catalogue already: give an empty one"
                                     : " holds what another move has begun to copy: give an empty one"));
  }
}

void CMoveTarget::OpenDatabase(const HostOptions& options, const std::string& id) {
  std::vector<VolumeRow> volumes = StorageVolumes(storage_);
  const std::vector<VolumeRow> old = StorageVolumes(options.storage);
  volumes.insert(volumes.end(), old.begin(), old.end());
  std::unique_ptr<CPostgresDatabase> held;  // until the pool is there, so that nobody else writes in between
  if (param_.type == db_layer::kPostgresql) {
    held = std::make_unique<CPostgresDatabase>(param_);
    PreparePostgresSchema(*held, PostgresSchemaScripts(), volumes);
  } else {
    PrepareSqliteSchema(param_.database, SqliteSchemaScripts(), volumes);
  }
  database_ = std::make_unique<CMoveDatabase>(param_, "move-target");
  database_->Run({CMoveDatabase::SetValue(kMoveFrom, id)});
}

void CMoveTarget::ExpectEmptyStore(const std::string& id) {
  std::string text;
  const int error = place_->Exists() ? place_->ReadId(text) : ENOENT;
  if (error == 0 && !id.empty() && text.substr(0, id.size()) == id) {
    return;
  }
  if (error == 0) {
    throw CMoveFailure(place_->Describe() + " belongs to a store already: give an empty one");
  }
  if (error != ENOENT) {
    throw CMoveFailure(place_->Describe() + " cannot be read: " + HostSystem::ErrorText(error));
  }
  if (!place_->Exists()) {
    return;
  }
  const auto store = place_->Open(false, EStoreUse::kLook);
  bool is_empty = true;
  const auto look = [&is_empty](const StoredEntry&) { return is_empty = false; };
  const bool complete = store->ForEach(EContent::kObject, look) && store->ForEach(EContent::kPicture, look);
  if (!complete || !is_empty) {
    throw CMoveFailure(place_->Describe() + (is_empty ? " cannot be read, see the log" : " is not empty"));
  }
}

void CMoveTarget::Expect(const std::string& id) {
  if (moves_bytes_) {
    place_ = FindStoragePlace(storage_);
    place_->ExpectFree();
    ExpectEmptyStore(id);
  }
  if (moves_rows_ && param_.type == db_layer::kSqlite) {
    lock_ = std::make_unique<HostSystem::CLockFile>();
    LockDatabase(param_.database, *lock_);
  }
  if (moves_rows_ && !IsNewDatabase()) {
    ExpectEmptyDatabase(id);
  }
}

void CMoveTarget::Open(const HostOptions& options, const std::string& id) {
  if (moves_rows_) {
    OpenDatabase(options, id);
  }
  if (moves_bytes_) {
    if (const int error = place_->WriteId(id + "\n")) {
      throw CMoveFailure(place_->Describe() + " cannot be written: " + HostSystem::ErrorText(error));
    }
    place_->Lock();
    store_ = place_->Open(options.full_durability, EStoreUse::kServe);
  }
}

bool CMoveTarget::Unmark(const std::string& id) noexcept {
  try {
    if (database_ != nullptr) {
      database_->Run({CMoveDatabase::DropValue(kMoveFrom)});
    }
    std::string text;
    const int error = place_ != nullptr && place_->Exists() ? place_->ReadId(text) : ENOENT;
    const bool is_marked = error != ENOENT && (error != 0 || text.substr(0, id.size()) == id);
    return !is_marked || place_->RemoveId() == 0;
  } catch (const std::exception&) {
    return false;
  }
}

std::string CMoveTarget::NewId() {
  return details::NewMoveId();
}

// Gives the seconds that one write takes.
double CMoveTarget::Measure(IObjectStore& store, std::uint32_t size, int count) const {
  const std::string bytes(size, 'm');
  const auto begin = std::chrono::steady_clock::now();
  std::vector<StoredName> names;
  EStoreResult result = EStoreResult::kDone;
  while (result == EStoreResult::kDone && names.size() < static_cast<std::size_t>(count)) {
    result = store.SaveAt(names.emplace_back(), 0, bytes.data(), size);
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  for (const StoredName& name : names) {
    if (!name.id.empty()) {
      store.Remove(name);
    }
  }
  if (result != EStoreResult::kDone) {
    throw CMoveFailure(DescribeStore() +
                       (result == EStoreResult::kNoSpace ? " is full" : " cannot be written, see the log"));
  }
  return taken.count() / count;
}

void CMoveTarget::Try(const MoveTotals& totals, const std::function<void(const std::string& line)>& say) {
  double seconds = static_cast<double>(totals.objects) * details::kSecondsPerRow;
  if (moves_rows_ && !IsNewDatabase()) {
    ExpectEmptyDatabase("");
  }
  if (moves_bytes_) {
    place_ = FindStoragePlace(storage_);
    place_->ExpectFree();
    ExpectEmptyStore("");
    const bool was_there = place_->Exists();
    {
      constexpr std::uint32_t kSmall = 4096;
      constexpr std::uint32_t kLarge = std::uint32_t{4} << 20;
      store_ = place_->Open(true, EStoreUse::kServe);
      const double small = Measure(*store_, kSmall, 16);
      const double large = Measure(*store_, kLarge, 4);
      seconds += static_cast<double>(totals.objects + totals.pictures) * small / details::kCopiers;
      seconds += static_cast<double>(totals.bytes + totals.picture_bytes) * large / kLarge * details::kWorkPerByte;
      store_.reset();
    }
    if (!was_there && !IsRadosUrl(storage_)) {
      std::error_code ignored;
      std::filesystem::remove_all(UrlPath(storage_), ignored);
    }
  }
  say("move: to " + Describe() + " it takes about " + details::DurationText(seconds) +
      ", as busy as everything is now; nothing was moved");
}

HostOptions CMoveTarget::Options(HostOptions options) const {
  options.database = param_;
  options.storage = storage_;
  return options;
}

MovedMark CMoveTarget::Mark(const HostOptions& options, const std::string& id, const std::string& store_id) const {
  MovedMark mark = ReadMovedMark();
  mark.move = id;
  mark.store_id = moves_bytes_ ? id : store_id;
  if (moves_rows_) {
    const std::string left = DatabaseUrlOf(options.database);
    mark.old_databases.insert(left);
    mark.left_databases[left] = store_id;
    const auto is_goal = [this](const std::string& url) {
      db_layer::DBParam old;
      ParseDatabaseUrl(url, old);
      return db_layer::DescribeDatabase(old) == db_layer::DescribeDatabase(param_);
    };
    std::erase_if(mark.old_databases, is_goal);
    std::erase_if(mark.left_databases, [&is_goal](const auto& entry) { return is_goal(entry.first); });
    mark.database = database_url_;
  }
  if (moves_bytes_) {
    mark.old_storages.insert(options.storage);
    mark.left_storages[options.storage] = store_id;
    mark.old_storages.erase(storage_);
    mark.left_storages.erase(storage_);
    mark.storage = storage_;
  }
  return mark;
}

std::vector<std::string> CMoveTarget::VolumeStatements() const {
  std::vector<std::string> statements;
  for (const VolumeRow& row : StorageVolumes(storage_)) {
    statements.push_back("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES (" + QuotedText(row.key) +
                         ", " + QuotedText(row.prefix) + ") ON CONFLICT (encrypt_url) DO NOTHING");
  }
  return statements;
}

}  // namespace Tansy::Host
