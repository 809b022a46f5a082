#include "StorageServer/ObjectServer/BaseDBConn.h"

#include <new>
#include <utility>

#include "ModuleLog.h"
#include "db_layer/DbLayer.h"
#include "db_layer/SharedDatabase.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// The name under which the host's database library knows the module; it stands for the database of the platform itself.
constexpr const char* kDatabaseModule = "platform";

std::string Joined(const std::vector<std::string>& statements) {
  std::string all;
  for (const std::string& sql : statements) {
    all += (all.empty() ? "" : "; ") + sql;
  }
  return all;
}

void LogFailure(const Caller& caller, const db_layer::WriteResult& result,
                const std::vector<std::string>& statements) noexcept {
  try {
    CLOUD_LOG_FOR(caller, logging::kDatabase, "[%s]Execute failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]",
                  result.code, result.error.c_str(), Joined(statements).c_str());
  } catch (const std::bad_alloc&) {
    return;  // the caller learns of the failure all the same
  }
}

}  // namespace
}  // namespace details

CBaseDBLayerConn& CBaseDBLayerConn::Instance() {
  return CSingleton<CBaseDBLayerConn>::Instance();
}

bool CBaseDBLayerConn::RegisterModule(const db_layer::DBParam& param) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    param_ = param;
  }
  return db_layer::Module_Register(param, details::kDatabaseModule);
}

std::unique_ptr<db_layer::IDatabaseEar> CBaseDBLayerConn::MakeEar(int timeout_ms) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return db_layer::MakeDatabaseEar(param_, timeout_ms);
}

std::string CBaseDBLayerConn::LastError() const {
  return db_layer::LastRegisterError(details::kDatabaseModule);
}

bool CBaseDBLayerConn::ResetParam(const db_layer::DBParam& param) {
  return db_layer::DBLayer_ResetParam(param);
}

std::shared_ptr<db_layer::CConnect> CBaseDBLayerConn::ApplyConn() {
  db_layer::CConnect* connection = db_layer::DBLayer_ApplyConn(details::kDatabaseModule);
  if (connection == nullptr) {
    CLOUD_LOG(logging::kError, "[%s]apply conn failed[%s(%d)]");
    return nullptr;
  }
  return {connection, &db_layer::DBLayer_FreeConn};
}

bool CBaseDBLayerConn::Execute(const std::string& sql) {
  return Execute(std::vector<std::string>{sql});
}

bool CBaseDBLayerConn::Execute(const std::vector<std::string>& statements) {
  const std::shared_ptr<db_layer::CConnect> connection = ApplyConn();
  if (!connection) {
    CLOUD_LOG(logging::kDatabase, "[%s]apply conn failed, sql = %s[%s(%d)]", details::Joined(statements).c_str());
    return false;
  }
  const bool one = statements.size() == 1;
  if (!(one ? connection->Execute(statements.front()) : connection->ExecuteAll(statements))) {
    std::string error;
    const int code = connection->GetLastError(error);
    CLOUD_LOG(logging::kDatabase, "[%s]Execute failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]", code, error.c_str(),
              details::Joined(statements).c_str());
    return false;
  }
  return true;
}

void CBaseDBLayerConn::Execute(const std::vector<std::string>& statements, Done done) {
  const std::shared_ptr<db_layer::CConnect> connection = ApplyConn();
  if (!connection) {
    CLOUD_LOG(logging::kDatabase, "[%s]apply conn failed, sql = %s[%s(%d)]", details::Joined(statements).c_str());
    done(false);
    return;
  }
  const auto report = [statements, done = std::move(done),
                       caller = CLOUD_LOG_CALLER](const db_layer::WriteResult& result) {
    if (!result.succeeded) {
      details::LogFailure(caller, result, statements);
    }
    done(result.succeeded);
  };
  connection->ExecuteLater(statements, report);
}

}  // namespace Tansy::CloudStorage
