#include "Factory.h"

#include <utility>

namespace Tansy::Host {
namespace details {
namespace {

class CSqliteConfig final : public KivPlatform::ILocalConfig {
 public:
  explicit CSqliteConfig(std::string file) : file_(std::move(file)) {}
  int GetDatabaseType() override { return KivPlatform::kDatabaseSqlite; }
  std::string GetDatabaseHost() override { return ""; }
  int GetDatabasePort() override { return 0; }
  std::string GetDatabaseUser() override { return ""; }
  std::string GetDatabasePassword() override { return ""; }
  std::string GetDatabaseName() override { return file_; }

 private:
  std::string file_;
};

class CDatabaseParam final : public KivPlatform::IDatabaseParam {
 public:
  explicit CDatabaseParam(std::shared_ptr<KivPlatform::ILocalConfig> config) : config_(std::move(config)) {}
  std::shared_ptr<KivPlatform::ILocalConfig> GetLocalConfig() override { return config_; }

 private:
  std::shared_ptr<KivPlatform::ILocalConfig> config_;
};

class CConfigManager final : public KivPlatform::IConfigManager {
 public:
  bool RegisterConfigListener(const std::string& /*owner*/, const std::string& /*config_name*/,
                              Listener listener) override {
    return listener != nullptr;
  }
};

class CFactory final : public KivPlatform::IFactoryInterface {
 public:
  explicit CFactory(const std::string& file)
      : database_(std::make_shared<CDatabaseParam>(std::make_shared<CSqliteConfig>(file))),
        config_(std::make_shared<CConfigManager>()) {}
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() override { return database_; }
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() override { return config_; }

 private:
  std::shared_ptr<KivPlatform::IDatabaseParam> database_;
  std::shared_ptr<KivPlatform::IConfigManager> config_;
};

}  // namespace
}  // namespace details

std::shared_ptr<KivPlatform::IFactoryInterface> MakeFactory(const std::string& file) {
  return std::make_shared<details::CFactory>(file);
}

}  // namespace Tansy::Host
