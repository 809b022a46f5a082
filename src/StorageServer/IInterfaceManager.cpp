#include "StorageServer/IInterfaceManager.h"

#include <utility>

#include "KivPlatform/FactoryInterface.h"
#include "ModuleLog.h"

namespace Tansy::CloudStorage {

CIInterfaceManager& CIInterfaceManager::Instance() {
  return CSingleton<CIInterfaceManager>::Instance();
}

bool CIInterfaceManager::Init(const std::shared_ptr<KivPlatform::IFactoryInterface>& factory) {
  if (!factory) {
    CLOUD_LOG(logging::kError, "[%s]i_factory_interface id nullptr[%s(%d)]");
    return false;
  }
  // The host is asked outside the lock, because nobody here knows what its function does or waits for.
  std::shared_ptr<KivPlatform::IDatabaseParam> database_param = factory->GetDatabaseParam();
  std::shared_ptr<KivPlatform::IConfigManager> config_manager = factory->GetConfigManager();
  const std::lock_guard<std::mutex> lock(mutex_);
  database_param_ = std::move(database_param);
  config_manager_ = std::move(config_manager);
  return true;
}

std::shared_ptr<KivPlatform::IDatabaseParam> CIInterfaceManager::GetDatabaseParam() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return database_param_;
}

std::shared_ptr<KivPlatform::IConfigManager> CIInterfaceManager::GetConfigManager() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return config_manager_;
}

}  // namespace Tansy::CloudStorage
