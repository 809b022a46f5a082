#include "StorageServer/ObjectServer/ObjectServerInterface.h"

#include <cstdio>
#include <memory>
#include <string>

#include "Boundary.h"
#include "KivPlatform/FactoryInterface.h"
#include "ModuleLog.h"
#include "OSAL/Osal.h"
#include "StorageServer/IInterfaceManager.h"
#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/SignatureDate.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "db_layer/DbLayer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr const char* kConfigOwner = "CloudStorage";
constexpr const char* kConfigName = "Config_LocalConfigManager";

// The pool's bounds; everything else is the host's to say.
constexpr int kMinConnections = 4;
constexpr int kMaxConnections = 16;

constexpr int kInitFailed = -1;

// The host's database settings as they are now. Without an interface to ask, those of a default record.
db_layer::DBParam ReadDatabaseParam() {
  db_layer::DBParam param;
  const std::shared_ptr<KivPlatform::IDatabaseParam> provider = CIInterfaceManager::Instance().GetDatabaseParam();
  if (const auto config = provider ? provider->GetLocalConfig() : nullptr) {
    param.type = config->GetDatabaseType();
    param.host = config->GetDatabaseHost();
    param.port = config->GetDatabasePort();
    param.user = config->GetDatabaseUser();
    param.password = config->GetDatabasePassword();
    param.database = config->GetDatabaseName();
  }
  param.min_connections = kMinConnections;
  param.max_connections = kMaxConnections;
  return param;
}

void OnConfigChanged(const std::string& config_name) {
  if (config_name == kConfigName) {
    CBaseDBLayerConn::Instance().ResetParam(ReadDatabaseParam());
  }
}

template <class Config>
int InitServer(const Config& config, const std::shared_ptr<KivPlatform::IFactoryInterface>& factory) {
  return AtBoundary("InitObjectServer", kInitFailed, [&] {
    CIInterfaceManager::Instance().Init(factory);
    InitDBModule();
    return CObjectServer::Instance().Init(config);
  });
}

}  // namespace
}  // namespace details

bool InitDBModule() {
  const db_layer::DBParam param = details::ReadDatabaseParam();
  while (!CBaseDBLayerConn::Instance().RegisterModule(param)) {
    CLOUD_LOG(logging::kError, "[%s]LocalStorage Init DB Connect... username:%s, port:%d[%s(%d)]", param.user.c_str(),
              param.port);
    // For whoever starts the host by hand and wonders why it does not come up.
    std::puts("Init DB Conn Fail...");
    static_cast<void>(std::fflush(stdout));
    OSAL_Sleep(kDatabaseRetryMs);
  }
  if (const auto manager = CIInterfaceManager::Instance().GetConfigManager()) {
    manager->RegisterConfigListener(details::kConfigOwner, details::kConfigName, [](const std::string& config_name) {
      AtBoundary("OnConfigChanged", 0, [&config_name] {
        details::OnConfigChanged(config_name);
        return 0;
      });
    });
  }
  return true;
}

int InitObjectServer(const StorageServerConfig& config,
                     const std::shared_ptr<KivPlatform::IFactoryInterface>& factory) {
  return details::InitServer(config, factory);
}

int InitObjectServer(const StorageServerConfig_V1& config,
                     const std::shared_ptr<KivPlatform::IFactoryInterface>& factory) {
  return details::InitServer(config, factory);
}

int UninitObjectServer() {
  return 0;
}

int SetObjectServerEnable(bool enable) {
  return AtBoundary("SetObjectServerEnable", details::kInitFailed,
                    [&] { return CObjectServer::Instance().SetObjectServerEnable(enable); });
}

bool GetInternalURLByObjectUrl(std::string& internal_url, const std::string& object_url) {
  return AtBoundary("GetInternalURLByObjectUrl", false,
                    [&] { return CObjectServer::Instance().GetInternalURLByObjectUrl(internal_url, object_url); });
}

int CheckObjectRequestValid(std::string& internal_url, std::string& url, std::string& method, std::string& query,
                            std::map<std::string, std::string>& headers) {
  return AtBoundary("CheckObjectRequestValid", int{kServerInternalError}, [&] {
    return CObjectServer::Instance().CheckObjectRequestValid(internal_url, url, method, query, headers);
  });
}

int SetReadLeaseCallbacks(ReadBeginCallback begin, ReadEndCallback end) {
  return AtBoundary("SetReadLeaseCallbacks", details::kInitFailed, [&] {
    details::SetReadLeaseCallbacks(begin, end);
    return 0;
  });
}

int SetSignatureDateWindow(std::uint32_t minutes) {
  SetDateWindow(minutes);
  return 0;
}

int UpdateLocalServerIp(const std::string& ip) {
  return AtBoundary("UpdateLocalServerIp", 0, [&] {
    CPictureServer::Instance().UpdateLocalServerIp(ip);
    CObjectServer::Instance().UpdateLocalServerIp(ip);
    return 0;
  });
}

int UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t picture_port, std::uint32_t object_port) {
  return AtBoundary("UpdateWanServerInfo", 0, [&] {
    CPictureServer::Instance().UpdateWanServerInfo(enable, wan_ip, picture_port);
    CObjectServer::Instance().UpdateWanServerInfo(enable, wan_ip, object_port);
    return 0;
  });
}

int UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields) {
  return AtBoundary("UpdateWanServerInfoV1", 0, [&] {
    CPictureServer::Instance().UpdateWanServerInfoV1(fields);
    CObjectServer::Instance().UpdateWanServerInfoV1(fields);
    return 0;
  });
}

}  // namespace Tansy::CloudStorage
