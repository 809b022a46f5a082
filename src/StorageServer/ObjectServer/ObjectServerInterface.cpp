#include "StorageServer/ObjectServer/ObjectServerInterface.h"

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Boundary.h"
#include "KivPlatform/FactoryInterface.h"
#include "ModuleLog.h"
#include "OSAL/Osal.h"
#include "StorageServer/IInterfaceManager.h"
#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/FirstPartRoom.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "TansyNet/HttpServer.h"
#include "db_layer/DbLayer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr const char* kConfigOwner = "CloudStorage";
constexpr const char* kConfigName = "Config_LocalConfigManager";

// The bounds of the pool; everything else comes from the host. A worker that waits for a commit keeps its connection,
// so there are some for all workers at once, those that compute and those that wait.
constexpr int kMinConnections = 4;
constexpr int kMaxConnections = CServerMsgLoop::kThreads + static_cast<int>(CServerMsgLoop::kMaxBlocked);

constexpr int kInitFailed = -1;

void SetBounds(db_layer::DBParam& param) {
  param.min_connections = kMinConnections;
  param.max_connections = kMaxConnections;
}

// Reads the host's database settings as they are now. When the host has none, it returns false and leaves `param`
// unchanged.
bool ReadDatabaseParam(db_layer::DBParam& param) {
  const std::shared_ptr<KivPlatform::IDatabaseParam> provider = CIInterfaceManager::Instance().GetDatabaseParam();
  const auto config = provider ? provider->GetLocalConfig() : nullptr;
  if (!config) {
    return false;
  }
  db_layer::DBParam fresh;
  fresh.type = config->GetDatabaseType();
  fresh.host = config->GetDatabaseHost();
  fresh.port = config->GetDatabasePort();
  fresh.user = config->GetDatabaseUser();
  fresh.password = config->GetDatabasePassword();
  fresh.database = config->GetDatabaseName();
  SetBounds(fresh);
  param = fresh;
  return true;
}

void OnConfigChanged(const std::string& config_name) {
  if (config_name != kConfigName) {
    return;
  }
  db_layer::DBParam param;
  if (!ReadDatabaseParam(param)) {
    CLOUD_LOG(logging::kError, "[%s]no database settings to be had, the old ones stay.[%s(%d)]");
    return;
  }
  CBaseDBLayerConn::Instance().ResetParam(param);
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
  // The settings are read again for each try, because somebody who sees why it fails may correct them meanwhile. When
  // the host has no settings, a default record is used.
  db_layer::DBParam param;
  details::SetBounds(param);
  details::ReadDatabaseParam(param);
  while (!CBaseDBLayerConn::Instance().RegisterModule(param)) {
    CLOUD_LOG(logging::kError, "[%s]LocalStorage Init DB Connect... username:%s, port:%d[%s(%d)]", param.user.c_str(),
              param.port);
    // This helps somebody who starts the host by hand and wonders why it does not come up.
    // Fixed: docs/compatibility.md, "Failure that leaves something behind".
    std::puts("Init DB Conn Fail...");
    static_cast<void>(std::fflush(stdout));
    CLOUD_LOG(logging::kError, "[%s]database not reached: %s[%s(%d)]",
              CBaseDBLayerConn::Instance().LastError().c_str());
    OSAL_Sleep(kDatabaseRetryMs);
    details::ReadDatabaseParam(param);
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

// Fixed: docs/compatibility.md, "Success that does nothing".
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

bool GetUploadsUnderWay(std::vector<std::string>& locations) {
  return AtBoundary("GetUploadsUnderWay", false, [&] {
    const auto is_open = [](std::uint32_t session_id) {
      return TansyNet::CHttpServer::IsRequestOpen(static_cast<std::int32_t>(session_id));
    };
    for (std::string& location : details::CBigFileStreamMgr::Instance().LocationsUnderWay(is_open)) {
      locations.push_back(std::move(location));
    }
    return true;
  });
}

int SetReadLeaseCallbacks(ReadBeginCallback begin, ReadEndCallback end) {
  return AtBoundary("SetReadLeaseCallbacks", details::kInitFailed, [&] {
    details::CReadLease::SetCallbacks(begin, end);
    return 0;
  });
}

int SetDownloadChunk(std::uint32_t bytes) {
  return AtBoundary("SetDownloadChunk", details::kInitFailed, [&] {
    CObjectServer::Instance().SetDownloadChunk(bytes);
    return 0;
  });
}

int SetFirstPartRoomCallbacks(RoomBeginCallback begin, RoomEndCallback end) {
  return AtBoundary("SetFirstPartRoomCallbacks", details::kInitFailed, [&] {
    details::CFirstPartRoom::SetCallbacks(begin, end);
    return 0;
  });
}

}  // namespace Tansy::CloudStorage
