#ifndef TANSY_SRC_STORAGE_SERVER_I_INTERFACE_MANAGER_H
#define TANSY_SRC_STORAGE_SERVER_I_INTERFACE_MANAGER_H

#include <memory>
#include <mutex>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"

namespace KivPlatform {
class IConfigManager;
class IDatabaseParam;
class IFactoryInterface;
}  // namespace KivPlatform

namespace Tansy::CloudStorage {

// Keeps the two interfaces that the module takes from its host, for the life of the process. Threads: any.
class CIInterfaceManager : private TansyBase::CNoncopyable {
 public:
  static CIInterfaceManager& Instance();

  // Asks the factory for both interfaces. Returns false and keeps nothing when there is no factory.
  bool Init(const std::shared_ptr<KivPlatform::IFactoryInterface>& factory);

  // Both return null before Init, and when the host has no such interface.
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() const;
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() const;

 private:
  friend class CSingleton<CIInterfaceManager>;
  CIInterfaceManager() = default;
  ~CIInterfaceManager() = default;

  mutable std::mutex mutex_;  // guards both pointers
  std::shared_ptr<KivPlatform::IDatabaseParam> database_param_;
  std::shared_ptr<KivPlatform::IConfigManager> config_manager_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_I_INTERFACE_MANAGER_H
