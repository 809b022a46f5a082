// The exported functions of the S3 server.
#include "Boundary.h"
#include "StorageServer/S3Server/S3Keys.h"
#include "StorageServer/S3Server/S3Server.h"
#include "TansyCloudStorage/S3Server.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr int kFailed = -1;

}  // namespace
}  // namespace details

int InitS3Server(const S3ServerConfig& config) {
  return AtBoundary("InitS3Server", details::kFailed, [&config] { return S3::CS3Server::Instance().Init(config); });
}

int SetS3Keys(const std::vector<S3Key>& keys) {
  return AtBoundary("SetS3Keys", details::kFailed,
                    [&keys] { return S3::CS3Keys::Instance().Replace(keys) ? 0 : details::kFailed; });
}

int UninitS3Server() {
  return SetS3ServerEnable(false);
}

int SetS3ServerEnable(bool enable) {
  return AtBoundary("SetS3ServerEnable", details::kFailed,
                    [enable] { return S3::CS3Server::Instance().SetEnable(enable); });
}

int SetS3PagePort(std::uint16_t port) {
  return AtBoundary("SetS3PagePort", details::kFailed, [port] {
    S3::CS3Server::Instance().SetPagePort(port);
    return 0;
  });
}

}  // namespace Tansy::CloudStorage
