#include "db_layer/DbLayer.h"

#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "db_layer/ConnectionPool.h"
#include "db_layer/SqliteConnect.h"
#include "db_layer/SqliteDatabase.h"

namespace db_layer {

namespace details {
namespace {

// Stands in for a kind of database that this build cannot talk to.
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

struct Loan {
  std::shared_ptr<CConnectionPool> pool;
  CConnectionPool::Lease lease;
};

// Lives until the process ends: threads that end late may still give connections back.
struct State {
  std::mutex mutex;
  std::map<int, std::shared_ptr<IDriver>> drivers;
  std::map<std::string, Module> modules;
  std::unordered_map<CConnect*, Loan> loans;
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

void SetLastError(const std::string& module, std::string text) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.modules[module].last_error = std::move(text);
}

std::shared_ptr<CConnectionPool> PoolOf(const std::string& module) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  const auto found = state.modules.find(module);
  return found == state.modules.end() ? nullptr : found->second.pool;
}

}  // namespace
}  // namespace details

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
    return std::make_shared<details::CMissingDriver>("support for PostgreSQL is not built in");
  }
  return std::make_shared<details::CMissingDriver>("unknown type of database: " + std::to_string(type));
}

bool Module_Register(const DBParam& param, const std::string& module) {
  auto pool = std::make_shared<CConnectionPool>(param, details::DriverOf(param.type));
  std::string error;
  if (!pool->Fill(error)) {
    pool->Close(std::chrono::milliseconds(0));
    details::SetLastError(module, error);
    return false;
  }
  details::State& state = details::TheState();
  {
    const std::lock_guard lock(state.mutex);
    details::Module& entry = state.modules[module];
    entry.last_error.clear();
    entry.pool.swap(pool);
  }
  if (pool) {
    pool->Close(std::chrono::milliseconds(0));
  }
  return true;
}

std::string LastRegisterError(const std::string& module) {
  details::State& state = details::TheState();
  const std::lock_guard lock(state.mutex);
  const auto found = state.modules.find(module);
  return found == state.modules.end() ? std::string() : found->second.last_error;
}

CConnect* DBLayer_ApplyConn(const std::string& module) {
  const auto pool = details::PoolOf(module);
  if (!pool) {
    details::SetLastError(module, "the module is not registered");
    return nullptr;
  }
  std::string error;
  auto lease = pool->Take(CConnectionPool::kWait, error);
  CConnect* connection = lease.connection.get();
  details::State& state = details::TheState();
  const std::lock_guard lock(state.mutex);
  state.modules[module].last_error = error;
  if (connection != nullptr) {
    state.loans.emplace(connection, details::Loan{pool, std::move(lease)});
  }
  return connection;
}

void DBLayer_FreeConn(CConnect* connection) {
  details::State& state = details::TheState();
  details::Loan loan;
  {
    const std::lock_guard lock(state.mutex);
    auto found = state.loans.extract(connection);
    if (found.empty()) {
      return;
    }
    loan = std::move(found.mapped());
  }
  loan.pool->Return(std::move(loan.lease));
}

bool DBLayer_ResetParam(const DBParam& param) {
  details::State& state = details::TheState();
  std::map<std::string, std::shared_ptr<CConnectionPool>> pools;
  {
    const std::lock_guard lock(state.mutex);
    for (const auto& [name, module] : state.modules) {
      if (module.pool) {
        pools.emplace(name, module.pool);
      }
    }
  }
  bool accepted = true;
  for (const auto& [name, pool] : pools) {
    std::string error;
    pool->Reset(param, details::DriverOf(param.type));
    const bool filled = pool->Fill(error);
    details::SetLastError(name, error);
    accepted = accepted && filled;
  }
  return accepted;
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

bool SetSqliteFullDurability(bool full) {
  return SetSqliteDefaultDurability(full);
}

int SetSqliteBusyTimeout(int milliseconds) {
  return SetSqliteDefaultBusyTimeout(milliseconds);
}

}  // namespace db_layer
