#include "db_layer/postgresql/PostgresDatabase.h"

#include <atomic>
#include <chrono>
#include <map>
#include <tuple>
#include <utility>

#include "TansyBase/MessageLoop.h"
#include "db_layer/PostgresDriver.h"

namespace db_layer {

namespace details {
namespace {

// To open a connection costs the server a process and the caller some milliseconds, and the server has a limited number
// of them. So this many are kept, and callers wait for one of them. Who has waited for so long gets one more: those who
// have the others may be waiting for a server that is silent.
constexpr std::size_t kMostReaders = 8;
constexpr std::chrono::seconds kPatience{3};

std::atomic<bool> g_full_durability{true};
std::atomic<int> g_timeout_ms{30000};

// The prelude of databases that are opened from now on.
struct Prelude {
  std::mutex mutex;
  TransactionPrelude statement;
};
Prelude& ThePrelude() {
  static auto* prelude = new Prelude;
  return *prelude;
}

PostgresOptions DefaultOptions() {
  Prelude& prelude = ThePrelude();
  const std::lock_guard lock(prelude.mutex);
  return {g_full_durability, g_timeout_ms, prelude.statement};
}

using Address = std::tuple<std::string, int, std::string, std::string, std::string>;

// The registry lives until the process ends, because connections may be given back very late.
struct Registry {
  std::mutex mutex;
  std::map<Address, std::weak_ptr<CPostgresDatabase>> databases;
};
Registry& TheRegistry() {
  static auto* registry = new Registry;
  return *registry;
}

}  // namespace
}  // namespace details

bool SetPostgresDefaultDurability(bool full_durability) {
  return details::g_full_durability.exchange(full_durability);
}

int SetPostgresDefaultTimeout(int milliseconds) {
  return details::g_timeout_ms.exchange(milliseconds);
}

void SetPostgresDefaultPrelude(TransactionPrelude prelude) {
  details::Prelude& current = details::ThePrelude();
  const std::lock_guard lock(current.mutex);
  current.statement = std::move(prelude);
}

std::shared_ptr<CPostgresDatabase> CPostgresDatabase::Acquire(const DBParam& param, SqlError& error) {
  const details::Address address{param.host, param.port, param.user, param.password, param.database};
  auto& registry = details::TheRegistry();
  {
    const std::lock_guard lock(registry.mutex);
    std::erase_if(registry.databases, [](const auto& entry) { return entry.second.expired(); });
    if (auto database = registry.databases[address].lock()) {
      return database;
    }
  }
  // Nobody waits for the lock while the server is asked.
  auto database = std::make_shared<CPostgresDatabase>(param, details::DefaultOptions());
  Handle reader = database->OpenReader(error);
  if (!reader) {
    return nullptr;
  }
  database->GiveBack(std::move(reader));
  const std::lock_guard lock(registry.mutex);
  auto& entry = registry.databases[address];
  if (auto other = entry.lock()) {
    return other;
  }
  entry = database;
  return database;
}

CPostgresDatabase::CPostgresDatabase(const DBParam& param, const PostgresOptions& options)
    : param_(param),
      options_(options),
      sequences_(
          [this](const std::string& sql, CRowBuffer& rows, SqlError& error) { return Write({sql}, &rows, error); }),
      writer_(param, options, [this] { sequences_.Forget(); }),
      group_commit_([this](const std::vector<SqlWrite*>& batch) { writer_.RunBatch(batch); }) {}

bool CPostgresDatabase::Write(const std::vector<std::string>& statements, CRowBuffer* rows, SqlError& error) {
  SqlWrite write;
  write.statements = &statements;
  write.rows = rows;
  {
    // The caller does nothing but wait for the server, so another thread of its message loop may work meanwhile, and
    // hand in a write of its own for the next commit.
    const TansyBase::CBlockingScope blocking;
    group_commit_.Run(write);
  }
  if (!write.succeeded) {
    error = std::move(write.error);
  }
  return write.succeeded;
}

bool CPostgresDatabase::NextValue(const std::string& sequence, std::int64_t& value, SqlError& error) {
  return sequences_.NextValue(sequence, value, error);
}

bool CPostgresDatabase::Read(const Use& use, SqlError& error) {
  const TansyBase::CBlockingScope blocking;
  const CTurn turn(*this);
  CPostgresHandle::EResult result = CPostgresHandle::EResult::kLost;
  if (Handle idle = TakeIdle()) {
    result = use(*idle);
    GiveBack(std::move(idle));
  }
  if (result == CPostgresHandle::EResult::kLost) {
    Handle fresh = OpenReader(error);
    if (!fresh) {
      return false;
    }
    result = use(*fresh);
    GiveBack(std::move(fresh));
  }
  return result == CPostgresHandle::EResult::kDone;
}

CPostgresDatabase::CTurn::CTurn(CPostgresDatabase& database) : database_(database) {
  std::unique_lock lock(database_.readers_mutex_);
  database_.reader_free_.wait_for(lock, details::kPatience,
                                  [this] { return database_.reading_ < details::kMostReaders; });
  ++database_.reading_;
}

CPostgresDatabase::CTurn::~CTurn() {
  {
    const std::lock_guard lock(database_.readers_mutex_);
    --database_.reading_;
  }
  database_.reader_free_.notify_one();
}

CPostgresDatabase::Handle CPostgresDatabase::TakeIdle() {
  const std::lock_guard lock(readers_mutex_);
  if (readers_.empty()) {
    return nullptr;
  }
  Handle reader = std::move(readers_.back());
  readers_.pop_back();
  return reader;
}

CPostgresDatabase::Handle CPostgresDatabase::OpenReader(SqlError& error) {
  auto reader = std::make_unique<CPostgresHandle>();
  return reader->Open(param_, CPostgresHandle::EUse::kRead, options_, error) ? std::move(reader) : nullptr;
}

// When one connection was lost, the others most likely were too: each is found so when it is used next.
void CPostgresDatabase::GiveBack(Handle reader) {
  const std::lock_guard lock(readers_mutex_);
  if (reader->IsOpen() && readers_.size() < details::kMostReaders) {
    readers_.push_back(std::move(reader));
  }
}

}  // namespace db_layer
