// Lifecycle: start, listeners, address updates.
#include "StorageServer/PicServer/PictureServer.h"

#include "ModuleLog.h"
#include "OSAL/Osal.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr const char* kAnyIpv4 = "0.0.0.0";
constexpr const char* kAnyIpv6 = "::";
// The default certificate, below the executable's folder.
constexpr const char* kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server";

TansyNet::HttpsServer DefaultCertificate() {
  TansyNet::HttpsServer tls;
  tls.certificate_path = TansyBase::FileUtil::GetCurExeDirUtf8() + kCertificate;
  tls.private_key_path = tls.certificate_path;
  return tls;
}

// A listener that is open already stays as it is, so that a start that failed half-way can be tried again.
int StartListener(std::int32_t& handle, const char* address, std::uint32_t port) {
  if (handle != 0) {
    return 0;
  }
  return TansyNet::CHttpServer::StartHttpServer(handle, address, static_cast<std::uint16_t>(port),
                                                &CPictureServer::RecvMsgCallBack, true);
}

// A port of 0 means that the host wants no HTTPS.
int StartTlsListener(std::int32_t& handle, const char* address, std::uint32_t port) {
  if (handle != 0 || port == 0) {
    return 0;
  }
  return TansyNet::CHttpServer::StartHttpsServer(handle, address, static_cast<std::uint16_t>(port),
                                                 DefaultCertificate(), &CPictureServer::RecvMsgCallBack);
}

// A stopped listener is forgotten, so that a stop that failed half-way can be tried again.
int StopListener(std::int32_t& handle) {
  const int error = TansyNet::CHttpServer::StopServer(handle);
  if (error == 0) {
    handle = 0;
  }
  return error;
}

std::uint32_t PortOf(const std::string& text) {
  return static_cast<std::uint32_t>(OSAL_StrToi32(text.c_str()));
}

}  // namespace
}  // namespace details

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
  if (const int error = details::StartListener(http_handle_, details::kAnyIpv4, config.download_port); error != 0) {
    return {error, false};
  }
  return {details::StartListener(http_v6_handle_, details::kAnyIpv6, config.download_port), true};
}

CPictureServer::ListenerResult CPictureServer::StartHttps(const Config& config) {
  const std::uint32_t port = config.https_download_port;
  if (const int error = details::StartTlsListener(https_handle_, details::kAnyIpv4, port); error != 0) {
    return {error, false};
  }
  return {details::StartTlsListener(https_v6_handle_, details::kAnyIpv6, port), true};
}

CPictureServer::ListenerResult CPictureServer::StopListeners() {
  if (const int error = details::StopListener(http_handle_); error != 0) {
    return {error, false};
  }
  if (const int error = details::StopListener(http_v6_handle_); error != 0) {
    return {error, true};
  }
  if (https_handle_ != 0) {
    if (const int error = details::StopListener(https_handle_); error != 0) {
      return {error, false};
    }
  }
  return {https_v6_handle_ != 0 ? details::StopListener(https_v6_handle_) : 0, true};
}

void CPictureServer::UpdateLocalServerIp(const std::string& ip) {
  conf_.Update([&ip](Config& config) { config.ip = ip; });
}

void CPictureServer::UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t port) {
  conf_.Update([&](Config& config) {
    config.wan_enable = enable;
    config.wan_ip = wan_ip;
    config.wan_port = port;
    config.wan_download_port = port;
  });
}

void CPictureServer::UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields) {
  conf_.Update([&fields](Config& config) {
    for (const auto& [field, value] : fields) {
      if (field == WAN_ENABLE) {
        config.wan_enable = value == "true";
      } else if (field == WAN_IP) {
        config.wan_ip = value;
      } else if (field == WAN_PIC_PORT) {
        config.wan_port = details::PortOf(value);
        config.wan_download_port = config.wan_port;
      } else if (field == WAN_PIC_HTTPS_PORT) {
        config.https_wan_port = details::PortOf(value);
        config.https_wan_download_port = config.https_wan_port;
      }
    }
  });
}

}  // namespace Tansy::CloudStorage
