#include "StorageServer/ServerListeners.h"

#include "TansyBase/FileUtil.h"

namespace Tansy::CloudStorage::details {

namespace {

constexpr const char* kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server";

TansyNet::HttpsServer DefaultCertificate() {
  TansyNet::HttpsServer tls;
  tls.certificate_path = TansyBase::FileUtil::GetCurExeDirUtf8() + kCertificate;
  tls.private_key_path = tls.certificate_path;
  return tls;
}

}  // namespace

int StartListener(std::int32_t& handle, const char* address, std::uint32_t port,
                  TansyNet::CHttpServer::RecvCallback callback) {
  if (handle != 0) {
    return 0;
  }
  return TansyNet::CHttpServer::StartHttpServer(handle, address, static_cast<std::uint16_t>(port), callback, true);
}

int StartTlsListener(std::int32_t& handle, const char* address, std::uint32_t port,
                     TansyNet::CHttpServer::RecvCallback callback) {
  if (handle != 0) {
    return 0;
  }
  return TansyNet::CHttpServer::StartHttpsServer(handle, address, static_cast<std::uint16_t>(port),
                                                 DefaultCertificate(), callback);
}

int StopListener(std::int32_t& handle) {
  const int error = TansyNet::CHttpServer::StopServer(handle);
  if (error == 0) {
    handle = 0;
  }
  return error;
}

}  // namespace Tansy::CloudStorage::details
