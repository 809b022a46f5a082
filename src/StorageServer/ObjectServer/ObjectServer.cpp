// Lifecycle: start, listeners, address updates.
#include "StorageServer/ObjectServer/ObjectServer.h"

#include <utility>

#include "OSAL/Osal.h"
#include "StorageServer/AddressUpdates.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/ServerListeners.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::uint32_t kCleanPeriodMs = 3600000;
constexpr int kMaxAdapters = 17;
constexpr std::size_t kAddressTextBytes = 130;

void AddAddresses(AdapterAddresses& addresses, const OSAL_AdapterInfo& adapter, const Caller& caller) {
  for (const OSAL_Ipv4Address* address = adapter.ipv4; address != nullptr; address = address->next) {
    addresses.ipv4.insert(address->text);
  }
  for (const OSAL_Ipv6Address* address = adapter.ipv6; address != nullptr; address = address->next) {
    char text[kAddressTextBytes] = {};
    if (OSAL_InetNtop(OSAL_AF_INET6, address->bytes, text, sizeof(text)) == 0) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]OSAL_InetNtop error![%s(%d)]");
      continue;
    }
    addresses.ipv6.insert(text);
  }
}

}  // namespace
}  // namespace details

CObjectServer& CObjectServer::Instance() {
  return CSingleton<CObjectServer>::Instance();
}

int CObjectServer::Init(const StorageServerConfig& config) {
  CObjectStorageManager::Instance().Init();
  conf_.Update([&config](Config& copy) { static_cast<StorageServerConfig&>(copy) = config; });
  const ConfigPointer current = conf_.Load();

  if (const int error = StartHttp(http_listener_, details::kAnyIpv4, *current); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]StartHttpServer error, revalue = %d[%s(%d)]", error);
    return error;
  }
  if (const int error = StartHttp(http_v6_listener_, details::kAnyIpv6, *current); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]StartHttpServer v6 error, revalue = %d[%s(%d)]", error);
    return error;
  }
  if (config.download_port != config.upload_port) {
    // Fixed: docs/compatibility.md, "Failure that leaves something behind".
    CLOUD_LOG(logging::kError, "[%s]unsupport different download port[%d] and upload port[%d][%s(%d)]",
              config.download_port, config.upload_port);
    return -1;
  }
  CPartUploadSweep::Instance().SetWhenStarted([] { CCleanExpiredTaskThread::Instance().Wake(); });
  CCleanExpiredTaskThread::Instance().Start(details::kCleanPeriodMs);
  details::CBigFileStreamMgr::Instance().SetSaveCallback(config.stream_save);
  return 0;
}

int CObjectServer::Init(const StorageServerConfig_V1& config) {
  if (const int error = Init(static_cast<const StorageServerConfig&>(config)); error != 0) {
    return error;
  }
  conf_.Update([&config](Config& copy) {
    copy.https_port = config.https_port;
    copy.https_download_port = config.https_download_port;
    copy.https_wan_port = config.https_wan_port;
    copy.https_wan_download_port = config.https_wan_download_port;
  });
  return StartHttpsListeners(*conf_.Load(), CLOUD_LOG_CALLER);
}

int CObjectServer::SetObjectServerEnable(bool enable) {
  const std::lock_guard<std::mutex> lock(enable_mutex_);
  if (enable && started_) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG(logging::kNotable, "[%s]SetPicServerEnable, already started.[%s(%d)]");
    return 0;
  }
  if (!enable && !started_) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG(logging::kNotable, "[%s]SetPicServerEnable, already stoped.[%s(%d)]");
    return 0;
  }
  const details::Caller caller = CLOUD_LOG_CALLER;
  if (const int error = enable ? StartListeners(*conf_.Load(), caller) : StopListeners(caller); error != 0) {
    return error;
  }
  started_ = enable;
  return 0;
}

void CObjectServer::EndDownloadsIfDisabled() {
  const std::lock_guard<std::mutex> lock(enable_mutex_);
  if (!started_) {
    details::CReadLease::EndAll();
  }
}

int CObjectServer::StartListeners(const Config& config, const details::Caller& caller) {
  if (const int error = StartHttp(http_listener_, details::kAnyIpv4, config); error != 0) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]SetObjectServerEnable, StartHttpServer error, revalue = %d[%s(%d)]",
                  error);
    return error;
  }
  if (const int error = StartHttp(http_v6_listener_, details::kAnyIpv6, config); error != 0) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]SetObjectServerEnable, StartHttpServer v6 error, revalue = %d[%s(%d)]",
                  error);
    return error;
  }
  return StartHttpsListeners(config, caller);
}

int CObjectServer::StartHttpsListeners(const Config& config, const details::Caller& caller) {
  if (const int error = StartHttps(https_listener_, details::kAnyIpv4, config); error != 0) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]StartHttpsServer error, revalue = %d[%s(%d)]", error);
    return error;
  }
  if (const int error = StartHttps(https_v6_listener_, details::kAnyIpv6, config); error != 0) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]", error);
    return error;
  }
  return 0;
}

int CObjectServer::StopListeners(const details::Caller& caller) {
  const std::pair<details::Listener*, details::Listener*> schemes[] = {{&http_listener_, &http_v6_listener_},
                                                                       {&https_listener_, &https_v6_listener_}};
  for (const auto& [v4, v6] : schemes) {
    if (const int error = details::StopListener(*v4); error != 0) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]SetObjectServerEnable, StopServer error, revalue = %d[%s(%d)]",
                    error);
      return error;
    }
    if (const int error = details::StopListener(*v6); error != 0) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]SetObjectServerEnable, StopServer v6 error, revalue = %d[%s(%d)]",
                    error);
      return error;
    }
  }
  return 0;
}

int CObjectServer::StartHttp(details::Listener& listener, const char* address, const Config& config) {
  return details::StartListener(listener, address, config.download_port, &RecvMsgCallBack);
}

int CObjectServer::StartHttps(details::Listener& listener, const char* address, const Config& config) {
  return details::StartTlsListener(listener, address, config.https_download_port, &RecvMsgCallBack);
}

void CObjectServer::UpdateLocalServerIp(const std::string& ip) {
  conf_.Update([&ip](Config& config) { config.ip = ip; });
}

void CObjectServer::UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t port) {
  conf_.Update([&](Config& config) { details::SetWanAddress(config, enable, wan_ip, port); });
}

void CObjectServer::UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields) {
  conf_.Update([&fields](Config& config) {
    details::SetWanFields(config, fields, {WAN_OBJECT_PORT, WAN_OBJECT_HTTPS_PORT});
  });
}

bool CObjectServer::GetAdapterInfo(AdapterAddresses& addresses) {
  OSAL_AdapterInfo* adapters = nullptr;
  if (const int error = OSAL_GetAdapterInfo(&adapters); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]OSAL_GetAdapterInfo failed. Error code[%d].[%s(%d)]", error);
    return false;
  }
  int count = 0;
  for (const OSAL_AdapterInfo* adapter = adapters; adapter != nullptr && count < details::kMaxAdapters;
       adapter = adapter->next, ++count) {
    if (adapter->type == OSAL_IF_TYPE_SOFTWARE_LOOPBACK || adapter->type == OSAL_IF_TYPE_TUNNEL) {
      CLOUD_LOG(logging::kNotable, "[%s]adapter type[%d] is not support[%s(%d)]", adapter->type);
      continue;
    }
    details::AddAddresses(addresses, *adapter, CLOUD_LOG_CALLER);
  }
  OSAL_FreeAdapterInfo(adapters);
  return true;
}

}  // namespace Tansy::CloudStorage
