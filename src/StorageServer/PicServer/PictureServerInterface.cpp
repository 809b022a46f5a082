// The exported functions of the picture server.
#include "Boundary.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyCloudStorage/PictureServer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr int kFailed = -1;

template <class Config>
int InitServer(const Config& config) {
  return AtBoundary("InitPicServer", kFailed, [&config] {
    if (!CServerMsgLoop::Instance().Start(CServerMsgLoop::kThreads, CServerMsgLoop::kThreads,
                                          CServerMsgLoop::kIdleSeconds)) {
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

int SetPicServerEnable(bool enable) {
  return AtBoundary("SetPicServerEnable", details::kFailed,
                    [enable] { return CPictureServer::Instance().SetPicServerEnable(enable); });
}

}  // namespace Tansy::CloudStorage
