#include "StorageServer/ObjectServer/BaseDBConn.h"

#include "ModuleLog.h"
#include "db_layer/DbLayer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// The name under which the host's database library knows the module; it stands for the database of the platform itself.
constexpr const char* kDatabaseModule = "platform";

}  // namespace
}  // namespace details

CBaseDBLayerConn& CBaseDBLayerConn::Instance() {
  return CSingleton<CBaseDBLayerConn>::Instance();
}

bool CBaseDBLayerConn::RegisterModule(const db_layer::DBParam& param) {
  return db_layer::Module_Register(param, details::kDatabaseModule);
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
  const auto text = [&statements] {
    std::string all;
    for (const std::string& sql : statements) {
      all += (all.empty() ? "" : "; ") + sql;
    }
    return all;
  };
  const std::shared_ptr<db_layer::CConnect> connection = ApplyConn();
  if (!connection) {
    CLOUD_LOG(logging::kDatabase, "[%s]apply conn failed, sql = %s[%s(%d)]", text().c_str());
    return false;
  }
  const bool one = statements.size() == 1;
  if (!(one ? connection->Execute(statements.front()) : connection->ExecuteAll(statements))) {
    std::string error;
    const int code = connection->GetLastError(error);
    CLOUD_LOG(logging::kDatabase, "[%s]Execute failed, errorcode:%d, errorinfo:%s, sql:%s[%s(%d)]", code, error.c_str(),
              text().c_str());
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
