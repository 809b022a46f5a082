#include "db_layer/DbLayer.h"

#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>

#include "db_layer/ConnectionPool.h"
#include "db_layer/PostgresDriver.h"
#include "db_layer/SharedDatabase.h"
#include "db_layer/SqliteConnect.h"
#include "db_layer/SqliteDatabase.h"

namespace db_layer {

namespace details {
namespace {

// Stands in for a kind of database that this build cannot use.
class CMissingDriver final : public IDriver {
 public:
  explicit CMissingDriver(std::string error) : error_(std::move(error)) {}
  std::unique_ptr<CConnect> Open(const DBParam&, std::string& error) override {
    error = error_;
    return nullptr;
  }

 private:
  const std::string error_;
};

struct Module {
  std::shared_ptr<CConnectionPool> pool;
  std::string last_error;
};

// A connection in use. It goes back to its pool wherever its loan ends, also when an exception ends it: a pool that
// lost its connections one by one would have none in the end.
class CLoan {
 public:
  CLoan(std::shared_ptr<CConnectionPool> pool, CConnectionPool::Lease lease)
      : pool_(std::move(pool)), lease_(std::move(lease)) {}
  CLoan(CLoan&&) noexcept = default;
  ~CLoan() {
    if (lease_.connection) {
      pool_->Return(std::move(lease_));
    }
  }
  CLoan(const CLoan&) = delete;
  CLoan& operator=(const CLoan&) = delete;
  CLoan& operator=(CLoan&&) = delete;

  CConnect* Connection() const { return lease_.connection.get(); }

 private:
  std::shared_ptr<CConnectionPool> pool_;
  CConnectionPool::Lease lease_;
};

constexpr const char* kOutOfMemory = "out of memory";

// The state lives until the process ends, because threads that end late may still give connections back.
struct State {
  std::mutex mutex;
  std::map<int, std::shared_ptr<IDriver>> drivers;
  std::map<std::string, Module> modules;
  std::unordered_map<CConnect*, CLoan> loans;
};
State& TheState() {
  static auto* state = new State;
  return *state;
}

std::shared_ptr<IDriver> DriverOf(int type) {
  State& state = TheState();
  {
    const std::lock_guard lock(state.mutex);
    const auto found = state.drivers.find(type);
    if (found != state.drivers.end()) {
      return found->second;
    }
  }
  return BuiltInDriver(type);
}

void SetLastError(const std::string& module, const std::string& text) noexcept {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  try {
    state.modules[module].last_error = text;
  } catch (const std::bad_alloc&) {
    return;  // only the reason is lost; the caller reports the failure itself
  }
}

std::shared_ptr<CConnectionPool> PoolOf(const std::string& module) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  const auto found = state.modules.find(module);
  return found == state.modules.end() ? nullptr : found->second.pool;
}

}  // namespace
}  // namespace details

void CConnect::ExecuteLater(std::vector<std::string> statements, WriteDone done) {
  const bool succeeded = statements.size() == 1 ? Execute(statements.front()) : ExecuteAll(statements);
  std::string error;
  const int code = succeeded ? 0 : GetLastError(error);
  done({succeeded, code, error});
}

void SetDriver(int type, std::shared_ptr<IDriver> driver) {
  details::State& state = details::TheState();
  const std::lock_guard lock(state.mutex);
  if (driver) {
    state.drivers[type] = std::move(driver);
  } else {
    state.drivers.erase(type);
  }
}

std::shared_ptr<IDriver> BuiltInDriver(int type) {
  if (type == kSqlite) {
    return std::make_shared<CSqliteDriver>();
  }
  if (type == kPostgresql) {
    const auto driver = MakePostgresDriver();
    return driver ? driver : std::make_shared<details::CMissingDriver>("support for PostgreSQL is not built in");
  }
  return std::make_shared<details::CMissingDriver>("unknown type of database: " + std::to_string(type));
}

namespace details {
namespace {

bool Register(const DBParam& param, const std::string& module) {
  auto pool = std::make_shared<CConnectionPool>(param, DriverOf(param.type));
  std::string error;
  if (!pool->Fill(error)) {
    pool->Close(std::chrono::milliseconds(0));
    SetLastError(module, error);
    return false;
  }
  State& state = TheState();
  {
    const std::lock_guard lock(state.mutex);
    Module& entry = state.modules[module];
    entry.last_error.clear();
    entry.pool.swap(pool);
  }
  if (pool) {
    pool->Close(std::chrono::milliseconds(0));
  }
  return true;
}

CConnect* Apply(const std::string& module) {
  const auto pool = PoolOf(module);
  if (!pool) {
    SetLastError(module, "the module is not registered");
    return nullptr;
  }
  std::string error;
  CLoan loan(pool, pool->Take(CConnectionPool::kWait, error));
  SetLastError(module, error);
  CConnect* connection = loan.Connection();
  if (connection != nullptr) {
    State& state = TheState();
    const std::lock_guard lock(state.mutex);
    state.loans.emplace(connection, std::move(loan));
  }
  return connection;
}

bool ResetPool(CConnectionPool& pool, const DBParam& param, const std::string& module) noexcept {
  try {
    std::string error;
    pool.Reset(param, DriverOf(param.type));
    const bool filled = pool.Fill(error);
    SetLastError(module, error);
    return filled;
  } catch (const std::exception&) {
    SetLastError(module, kOutOfMemory);
    return false;
  }
}

std::map<std::string, std::shared_ptr<CConnectionPool>> AllPools() {
  State& state = TheState();
  std::map<std::string, std::shared_ptr<CConnectionPool>> pools;
  const std::lock_guard lock(state.mutex);
  for (const auto& [name, module] : state.modules) {
    if (module.pool) {
      pools.emplace(name, module.pool);
    }
  }
  return pools;
}

}  // namespace
}  // namespace details

bool Module_Register(const DBParam& param, const std::string& module) {
  try {
    return details::Register(param, module);
  } catch (const std::exception&) {
    details::SetLastError(module, details::kOutOfMemory);
    return false;
  }
}

std::string LastRegisterError(const std::string& module) {
  details::State& state = details::TheState();
  const std::lock_guard lock(state.mutex);
  const auto found = state.modules.find(module);
  try {
    return found == state.modules.end() ? std::string() : found->second.last_error;
  } catch (const std::bad_alloc&) {
    return details::kOutOfMemory;  // short enough for every string to hold it without memory of its own
  }
}

CConnect* DBLayer_ApplyConn(const std::string& module) {
  try {
    return details::Apply(module);
  } catch (const std::exception&) {
    details::SetLastError(module, details::kOutOfMemory);
    return nullptr;
  }
}

void DBLayer_FreeConn(CConnect* connection) {
  details::State& state = details::TheState();
  decltype(state.loans)::node_type loan;  // ends after the lock
  const std::lock_guard lock(state.mutex);
  loan = state.loans.extract(connection);
}

bool DBLayer_ResetParam(const DBParam& param) {
  try {
    bool accepted = true;
    for (const auto& [name, pool] : details::AllPools()) {
      accepted = details::ResetPool(*pool, param, name) && accepted;
    }
    return accepted;
  } catch (const std::exception&) {
    return false;
  }
}

bool Module_Hold(const std::string& module, int milliseconds) {
  const auto pool = details::PoolOf(module);
  return pool && pool->Hold(std::chrono::milliseconds(milliseconds));
}

bool Module_Switch(const DBParam& param, const std::string& module) {
  const auto pool = details::PoolOf(module);
  if (!pool) {
    return false;
  }
  const DBParam before = pool->GetParam();
  if (details::ResetPool(*pool, param, module)) {
    return true;
  }
  const std::string reason = LastRegisterError(module);
  details::ResetPool(*pool, before, module);
  details::SetLastError(module, reason);
  return false;
}

void Module_Release(const std::string& module) {
  if (const auto pool = details::PoolOf(module)) {
    pool->Release();
  }
}

void Module_Unregister(const std::string& module) {
  details::State& state = details::TheState();
  std::shared_ptr<CConnectionPool> pool;
  {
    const std::lock_guard lock(state.mutex);
    auto found = state.modules.extract(module);
    if (!found.empty()) {
      pool = found.mapped().pool;
    }
  }
  if (pool) {
    pool->Close(CConnectionPool::kWait);
  }
}

void SetPostgresPrelude(TransactionPrelude prelude) {
  SetPostgresDefaultPrelude(std::move(prelude));
}

std::unique_ptr<IDatabaseEar> MakeDatabaseEar(const DBParam& param, int timeout_ms) {
  return param.type == kPostgresql ? MakePostgresEar(param, timeout_ms) : nullptr;
}

std::string DescribeDatabase(const DBParam& param) {
  if (param.type != kPostgresql) {
    return param.database;
  }
  const std::string user = param.user.empty() ? "" : param.user + "@";
  const bool is_ipv6 = param.host.find(':') != std::string::npos;
  const std::string host = is_ipv6 ? "[" + param.host + "]" : param.host;
  const std::string port = param.port == 0 ? "" : ":" + std::to_string(param.port);
  return "postgresql://" + user + host + port + "/" + param.database.substr(0, param.database.find('?'));
}

bool SetSqliteFullDurability(bool full) {
  return SetSqliteDefaultDurability(full);
}

int SetSqliteBusyTimeout(int milliseconds) {
  return SetSqliteDefaultBusyTimeout(milliseconds);
}

bool SetPostgresFullDurability(bool full) {
  return SetPostgresDefaultDurability(full);
}

int SetPostgresTimeout(int milliseconds) {
  return SetPostgresDefaultTimeout(milliseconds);
}

}  // namespace db_layer
