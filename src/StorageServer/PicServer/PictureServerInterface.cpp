// The exported functions of the picture server.
#include "Boundary.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyCloudStorage/PictureServer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr int kFailed = -1;
// The loop's threads: at least, at most, and the seconds after which one too many leaves.
constexpr int kMinThreads = 4;
constexpr int kMaxThreads = 4;
constexpr int kIdleSeconds = 5;

template <class Config>
int InitServer(const Config& config) {
  return AtBoundary("InitPicServer", kFailed, [&config] {
    if (!CServerMsgLoop::Instance().Start(kMinThreads, kMaxThreads, kIdleSeconds)) {
      CLOUD_LOG(logging::kNotable, "[%s]message loop not started, it runs already.[%s(%d)]");
    }
    return CPictureServer::Instance().Init(config);
  });
}

}  // namespace
}  // namespace details

int InitPicServer(const StorageServerConfig& config) {
  return details::InitServer(config);
}

int InitPicServer(const StorageServerConfig_V1& config) {
  return details::InitServer(config);
}

int UninitPicServer() {
  return AtBoundary("UninitPicServer", details::kFailed, [] {
    const int result = CPictureServer::Instance().SetPicServerEnable(false);
    CServerMsgLoop::Instance().Stop(false);
    return result;
  });
}

int SetPicServerEnable(bool enable) {
  return AtBoundary("SetPicServerEnable", details::kFailed,
                    [enable] { return CPictureServer::Instance().SetPicServerEnable(enable); });
}

}  // namespace Tansy::CloudStorage
