// Lifecycle: start, switching on and off.
#include "StorageServer/S3Server/S3Server.h"

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PartUploads.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::Listener;

constexpr TansyNet::ListenerStyle kStyle = {TansyNet::EUnknownLength::kInPieces, &CS3Server::MakeRefusal};

int Start(Listener& listener, const char* address, std::uint32_t port) {
  using CloudStorage::details::StartListener;
  return port == 0 ? 0 : StartListener(listener, address, port, &CS3Server::RecvMsgCallBack, kStyle);
}

int StartTls(Listener& listener, const char* address, std::uint32_t port) {
  using CloudStorage::details::StartTlsListener;
  return port == 0 ? 0 : StartTlsListener(listener, address, port, &CS3Server::RecvMsgCallBack, kStyle);
}

}  // namespace

CS3Server& CS3Server::Instance() {
  return CSingleton<CS3Server>::Instance();
}

int CS3Server::Init(const S3ServerConfig& config) {
  if (!CObjectStorageManager::Instance().LoadAttributes()) {
    CLOUD_LOG(logging::kError, "[%s]the attributes of objects cannot be read.[%s(%d)]");
    return -1;
  }
  CPartUploadSweep::Instance().Start();
  conf_.Store(config);
  const std::lock_guard<std::mutex> lock(enable_mutex_);
  started_ = true;
  return StartListeners(config);
}

int CS3Server::SetEnable(bool enable) {
  const std::lock_guard<std::mutex> lock(enable_mutex_);
  if (enable == started_) {
    return 0;
  }
  if (const int error = enable ? StartListeners(*conf_.Load()) : StopListeners(); error != 0) {
    return error;
  }
  started_ = enable;
  return 0;
}

int CS3Server::StartListeners(const S3ServerConfig& config) {
  using CloudStorage::details::kAnyIpv4;
  using CloudStorage::details::kAnyIpv6;
  int error = Start(http_, kAnyIpv4, config.download_port);
  error = error != 0 ? error : Start(http_v6_, kAnyIpv6, config.download_port);
  error = error != 0 ? error : StartTls(https_, kAnyIpv4, config.https_download_port);
  error = error != 0 ? error : StartTls(https_v6_, kAnyIpv6, config.https_download_port);
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]a listener cannot be opened, revalue = %d[%s(%d)]", error);
  }
  return error;
}

int CS3Server::StopListeners() {
  for (Listener* const listener : {&http_, &http_v6_, &https_, &https_v6_}) {
    if (const int error = listener->handle != 0 ? CloudStorage::details::StopListener(*listener) : 0; error != 0) {
      CLOUD_LOG(logging::kError, "[%s]a listener cannot be closed, revalue = %d[%s(%d)]", error);
      return error;
    }
  }
  return 0;
}

}  // namespace Tansy::CloudStorage::S3
