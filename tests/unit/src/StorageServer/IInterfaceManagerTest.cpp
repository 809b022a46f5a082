#include "StorageServer/IInterfaceManager.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "KivPlatform/FactoryInterface.h"
#include "fakes/CapturingLogSink.h"

namespace Tansy::CloudStorage {
namespace {

class CDatabaseParam : public KivPlatform::IDatabaseParam {
 public:
  std::shared_ptr<KivPlatform::ILocalConfig> GetLocalConfig() override { return nullptr; }
};

class CConfigManager : public KivPlatform::IConfigManager {
 public:
  bool RegisterConfigListener(const std::string&, const std::string&, Listener) override { return true; }
};

class CFactory : public KivPlatform::IFactoryInterface {
 public:
  std::shared_ptr<KivPlatform::IDatabaseParam> GetDatabaseParam() override { return database_param; }
  std::shared_ptr<KivPlatform::IConfigManager> GetConfigManager() override { return config_manager; }

  std::shared_ptr<KivPlatform::IDatabaseParam> database_param = std::make_shared<CDatabaseParam>();
  std::shared_ptr<KivPlatform::IConfigManager> config_manager = std::make_shared<CConfigManager>();
};

TEST(IInterfaceManager, KeepsBothInterfacesOfTheFactory) {
  auto factory = std::make_shared<CFactory>();
  CIInterfaceManager& manager = CIInterfaceManager::Instance();
  ASSERT_TRUE(manager.Init(factory));
  EXPECT_EQ(manager.GetDatabaseParam(), factory->database_param);
  EXPECT_EQ(manager.GetConfigManager(), factory->config_manager);

  const std::weak_ptr<KivPlatform::IDatabaseParam> kept = factory->database_param;
  factory.reset();
  EXPECT_FALSE(kept.expired()) << "the factory itself may go";
}

TEST(IInterfaceManager, LogsAMissingFactoryAndKeepsWhatItHas) {
  CIInterfaceManager& manager = CIInterfaceManager::Instance();
  const auto factory = std::make_shared<CFactory>();
  ASSERT_TRUE(manager.Init(factory));
  const Tests::CLogCapture log;
  EXPECT_FALSE(manager.Init(nullptr));
  EXPECT_EQ(log->Count("[%s]i_factory_interface id nullptr[%s(%d)]", logging::kError), 1U);
  EXPECT_EQ(log->Lines().at(0).module, "platform.LocalStorage");
  EXPECT_TRUE(log->Lines().at(0).text.starts_with(
      "[Tansy::CloudStorage::CIInterfaceManager::Init]i_factory_interface id nullptr["))
      << log->Lines().at(0).text;
  EXPECT_EQ(manager.GetDatabaseParam(), factory->database_param);
}

TEST(IInterfaceManager, TakesAFactoryWithoutInterfaces) {
  const auto factory = std::make_shared<CFactory>();
  factory->database_param = nullptr;
  factory->config_manager = nullptr;
  ASSERT_TRUE(CIInterfaceManager::Instance().Init(factory));
  EXPECT_EQ(CIInterfaceManager::Instance().GetDatabaseParam(), nullptr);
  EXPECT_EQ(CIInterfaceManager::Instance().GetConfigManager(), nullptr);
}

}  // namespace
}  // namespace Tansy::CloudStorage
