#include "Factory.h"

#include <utility>

namespace Tansy::Host {
namespace details {
namespace {

static_assert(KivPlatform::kDatabaseSqlite == db_layer::kSqlite);
static_assert(KivPlatform::kDatabasePostgresql == db_layer::kPostgresql);

class CDatabaseConfig final : public KivPlatform::ILocalConfig {
 public:
  explicit CDatabaseConfig(db_layer::DBParam database) : database_(std::move(database)) {}
  int GetDatabaseType() override { return database_.type; }
  std::string GetDatabaseHost() override { return database_.host; }
  int GetDatabasePort() override { return database_.port; }
  std::string GetDatabaseUser() override { return database_.user; }
  std::string GetDatabasePassword() override { return database_.password; }
  std::string GetDatabaseName() override { return database_.database; }

 private:
  const db_layer::DBParam database_;
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
  explicit CFactory(const db_layer::DBParam& database)
      : database_(std::make_shared<CDatabaseParam>(std::make_shared<CDatabaseConfig>(database))),
        config_(std::make_shared<CConfigManager>()) {}
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() override { return database_; }
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() override { return config_; }

 private:
  std::shared_ptr<KivPlatform::IDatabaseParam> database_;
  std::shared_ptr<KivPlatform::IConfigManager> config_;
};

}  // namespace
}  // namespace details

std::shared_ptr<KivPlatform::IFactoryInterface> MakeFactory(const db_layer::DBParam& database) {
  return std::make_shared<details::CFactory>(database);
}

}  // namespace Tansy::Host
