#include "StorageServer/ServerListeners.h"

#include "TansyBase/FileUtil.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

namespace {

TansyNet::HttpsServer DefaultCertificate() {
  TansyNet::HttpsServer tls;
  tls.certificate_path = TansyBase::FileUtil::GetCurExeDirUtf8() + kDefaultCertificatePath;
  tls.private_key_path = tls.certificate_path;
  return tls;
}

// Opens a listener with `start(handle, port)` and puts it in the place of the listener that is open.
template <class Start>
int Replace(Listener& listener, std::uint32_t port, const Start& start) {
  Listener fresh;
  fresh.port = static_cast<std::uint16_t>(port);
  if (listener.handle != 0 && listener.port == fresh.port) {
    return 0;
  }
  if (const int error = start(fresh.handle, fresh.port); error != 0) {
    return error;
  }
  const std::int32_t before = listener.handle;
  listener = fresh;
  return before != 0 ? TansyNet::CHttpServer::StopServer(before) : 0;
}

}  // namespace

int StartListener(Listener& listener, const char* address, std::uint32_t port,
                  TansyNet::CHttpServer::RecvCallback callback, const TansyNet::ListenerStyle& style) {
  return Replace(listener, port, [&](std::int32_t& handle, std::uint16_t wanted) {
    return TansyNet::CHttpServer::StartHttpServer(handle, address, wanted, callback, true, style);
  });
}

int StartTlsListener(Listener& listener, const char* address, std::uint32_t port,
                     TansyNet::CHttpServer::RecvCallback callback, const TansyNet::ListenerStyle& style) {
  return Replace(listener, port, [&](std::int32_t& handle, std::uint16_t wanted) {
    return TansyNet::CHttpServer::StartHttpsServer(handle, address, wanted, DefaultCertificate(), callback, style);
  });
}

int StopListener(Listener& listener) {
  const int error = TansyNet::CHttpServer::StopServer(listener.handle);
  if (error == 0) {
    listener = Listener{};
  }
  return error;
}

}  // namespace Tansy::CloudStorage::details
