// The interfaces that a host gives to the module at start: where its database is, and how to hear of configuration
// changes.
//
// Ownership: the module keeps the shared pointers for the life of the process. Threads: the module may call any method
// from any of its threads. Errors: an exception that leaves a method fails the module's function that called it, and is
// logged.
#ifndef TANSY_KIV_PLATFORM_FACTORY_INTERFACE_H
#define TANSY_KIV_PLATFORM_FACTORY_INTERFACE_H

#include <functional>
#include <memory>
#include <string>

namespace KivPlatform {

// The kinds of database that GetDatabaseType may name.
inline constexpr int kDatabaseSqlite = 0;      // GetDatabaseName is the path of the file
inline constexpr int kDatabasePostgresql = 1;  // the other getters give address and user

// The host's local configuration: the database settings. The module reads all of them when it connects, again before
// each new try, and when it is told of a change of "Config_LocalConfigManager"; texts are UTF-8.
class ILocalConfig {
 public:
  virtual ~ILocalConfig() = default;
  virtual int GetDatabaseType() = 0;
  virtual std::string GetDatabaseHost() = 0;
  virtual int GetDatabasePort() = 0;
  virtual std::string GetDatabaseUser() = 0;
  virtual std::string GetDatabasePassword() = 0;
  virtual std::string GetDatabaseName() = 0;
};

class IDatabaseParam {
 public:
  virtual ~IDatabaseParam() = default;
  virtual std::shared_ptr<ILocalConfig> GetLocalConfig() = 0;
};

class IConfigManager {
 public:
  virtual ~IConfigManager() = default;
  // `listener` is called with the name of a configuration that changed, on any thread, for the life of the process.
  using Listener = std::function<void(const std::string& config_name)>;
  // The module registers one listener, with the owner "CloudStorage". The method returns true when the listener will be
  // called.
  virtual bool RegisterConfigListener(const std::string& owner, const std::string& config_name, Listener listener) = 0;
};

// The module asks for both interfaces once; either may be null.
class IFactoryInterface {
 public:
  virtual ~IFactoryInterface() = default;
  virtual std::shared_ptr<IDatabaseParam> GetDatabaseParam() = 0;
  virtual std::shared_ptr<IConfigManager> GetConfigManager() = 0;
};

}  // namespace KivPlatform

#endif  // TANSY_KIV_PLATFORM_FACTORY_INTERFACE_H
