// Lifecycle: start, listeners, address updates.
#include "StorageServer/PicServer/PictureServer.h"

#include "ModuleLog.h"
#include "StorageServer/AddressUpdates.h"
#include "StorageServer/ServerListeners.h"

namespace Tansy::CloudStorage {

CPictureServer& CPictureServer::Instance() {
  return CSingleton<CPictureServer>::Instance();
}

int CPictureServer::Init(const StorageServerConfig& config) {
  Config copy;
  static_cast<StorageServerConfig&>(copy) = config;
  return Init(copy, Schemes::kHttp);
}

int CPictureServer::Init(const StorageServerConfig_V1& config) {
  return Init(config, Schemes::kHttpAndHttps);
}

int CPictureServer::Init(const Config& config, Schemes schemes) {
  conf_.Store(config);
  const std::lock_guard lock(mutex_);
  started_ = true;
  if (const auto [error, v6] = StartHttp(config); error != 0) {
    CLOUD_LOG(
        logging::kError,
        v6 ? "[%s]StartHttpServer v6 error, revalue = %d[%s(%d)]" : "[%s]StartHttpServer error, revalue = %d[%s(%d)]",
        error);
    return error;
  }
  if (config.download_port != config.upload_port) {
    // Fixed: docs/compatibility.md, "Failure that leaves something behind".
    CLOUD_LOG(logging::kError, "[%s]unsupport different download port[%d] and upload port[%d][%s(%d)]",
              static_cast<int>(config.download_port), static_cast<int>(config.upload_port));
    return -1;
  }
  if (schemes == Schemes::kHttp) {
    return 0;
  }
  const auto [error, v6] = StartHttps(config);
  if (error != 0) {
    CLOUD_LOG(
        logging::kError,
        v6 ? "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]" : "[%s]StartHttpsServer error, revalue = %d[%s(%d)]",
        error);
  }
  return error;
}

int CPictureServer::SetPicServerEnable(bool enable) {
  const std::lock_guard lock(mutex_);
  if (enable == started_) {
    CLOUD_LOG(logging::kNotable, enable ? "[%s]SetPicServerEnable, already started.[%s(%d)]"
                                        : "[%s]SetPicServerEnable, already stoped.[%s(%d)]");
    return 0;
  }
  const auto config = conf_.Load();
  if (!enable) {
    if (const auto [error, v6] = StopListeners(); error != 0) {
      CLOUD_LOG(logging::kError,
                v6 ? "[%s]SetPicServerEnable, StopServer v6 error, revalue = %d[%s(%d)]"
                   : "[%s]SetPicServerEnable, StopServer error, revalue = %d[%s(%d)]",
                error);
      return error;
    }
  } else if (const auto [error, v6] = StartHttp(*config); error != 0) {
    CLOUD_LOG(logging::kError,
              v6 ? "[%s]SetPicServerEnable, StartHttpServer v6 error, revalue = %d[%s(%d)]"
                 : "[%s]SetPicServerEnable, StartHttpServer error, revalue = %d[%s(%d)]",
              error);
    return error;
  } else if (const auto [tls_error, tls_v6] = StartHttps(*config); tls_error != 0) {
    CLOUD_LOG(logging::kError,
              tls_v6 ? "[%s]StartHttpsServer v6 error, revalue = %d[%s(%d)]"
                     : "[%s]StartHttpsServer error, revalue = %d[%s(%d)]",
              tls_error);
    return tls_error;
  }
  started_ = enable;
  return 0;
}

CPictureServer::ListenerResult CPictureServer::StartHttp(const Config& config) {
  using details::StartListener;
  if (const int error = StartListener(http_listener_, details::kAnyIpv4, config.download_port, &RecvMsgCallBack);
      error != 0) {
    return {error, false};
  }
  return {StartListener(http_v6_listener_, details::kAnyIpv6, config.download_port, &RecvMsgCallBack), true};
}

CPictureServer::ListenerResult CPictureServer::StartHttps(const Config& config) {
  using details::StartTlsListener;
  const std::uint32_t port = config.https_download_port;
  if (port == 0) {
    return {0, false};  // the host wants no HTTPS
  }
  if (const int error = StartTlsListener(https_listener_, details::kAnyIpv4, port, &RecvMsgCallBack); error != 0) {
    return {error, false};
  }
  return {StartTlsListener(https_v6_listener_, details::kAnyIpv6, port, &RecvMsgCallBack), true};
}

CPictureServer::ListenerResult CPictureServer::StopListeners() {
  if (const int error = details::StopListener(http_listener_); error != 0) {
    return {error, false};
  }
  if (const int error = details::StopListener(http_v6_listener_); error != 0) {
    return {error, true};
  }
  if (https_listener_.handle != 0) {
    if (const int error = details::StopListener(https_listener_); error != 0) {
      return {error, false};
    }
  }
  return {https_v6_listener_.handle != 0 ? details::StopListener(https_v6_listener_) : 0, true};
}

void CPictureServer::UpdateLocalServerIp(const std::string& ip) {
  conf_.Update([&ip](Config& config) { config.ip = ip; });
}

void CPictureServer::UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t port) {
  conf_.Update([&](Config& config) { details::SetWanAddress(config, enable, wan_ip, port); });
}

void CPictureServer::UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields) {
  conf_.Update([&fields](Config& config) {
    details::SetWanFields(config, fields, {WAN_PIC_PORT, WAN_PIC_HTTPS_PORT});
  });
}

}  // namespace Tansy::CloudStorage
