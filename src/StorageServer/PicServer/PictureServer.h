// The picture server: listeners, request intake, routing, and one handler for each request of the picture protocol.
//
// The bodies stand in files named after their theme: PictureServer.cpp (lifecycle), PictureServerDispatch.cpp (intake,
// routing, answers), PictureServerAuth.cpp, PictureServerPictures.cpp (upload and download), PictureServerInfo.cpp
// (best node, pool list, version); the error table is PictureServerErrors.h.
//
// Threads: every member may be called from any thread. Handlers run in parallel on the threads of the message loop that
// both servers share. The protocol's error codes are those of PictureServerErrors.h.
#ifndef TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_SERVER_H
#define TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_SERVER_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "Singleton.h"
#include "StorageServer/ConfigSnapshot.h"
#include "StorageServer/ServerListeners.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

class CPictureServer : private TansyBase::CNoncopyable {
 public:
  static CPictureServer& Instance();

  // Opens the listeners; the second form opens HTTPS listeners too, unless their port is 0. Returns 0, the HTTP
  // library's error (what is open stays open), or -1 when upload and download port differ (the HTTP listeners are open
  // all the same).
  int Init(const StorageServerConfig& config);
  int Init(const StorageServerConfig_V1& config);
  // Stops or starts the listeners; calls are serialised. Returns 0 or the first error of the HTTP library; the same
  // call can then be repeated and goes on where it failed.
  int SetPicServerEnable(bool enable);

  // Update addresses. The next request sees the new ones; requests under way keep those they started with.
  void UpdateLocalServerIp(const std::string& ip);
  void UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t port);
  void UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields);

  // Receives every request on the HTTP library's threads; queues it or refuses it.
  static void RecvMsgCallBack(std::int32_t handle, TansyNet::HttpServerRecv& msg);
  // Routes a request to its handler, which answers it. The result is the result of sending that answer.
  int HandlePicMsg(std::int32_t handle, const TansyNet::HttpServerRecv& msg);
  // Answers with the error body of `code`.
  int AnswerError(std::int32_t handle, int code);

 private:
  friend class CSingleton<CPictureServer>;
  using HttpServerRecv = TansyNet::HttpServerRecv;
  using HttpResponse = TansyNet::HttpResponse;
  using Config = StorageServerConfig_V1;
  struct Operations;
  struct Route;
  struct Routes;

  enum class Schemes { kHttp, kHttpAndHttps };
  // The result of opening or closing listeners one after another.
  struct ListenerResult {
    int error = 0;    // 0, or the HTTP library's
    bool v6 = false;  // the listener that failed: the IPv6 one, or else the IPv4 one
  };

  CPictureServer() = default;
  ~CPictureServer() = default;

  // Lifecycle. The three functions that concern listeners are called with mutex_ held.
  int Init(const Config& config, Schemes schemes);
  ListenerResult StartHttp(const Config& config);
  ListenerResult StartHttps(const Config& config);
  ListenerResult StopListeners();

  // Answers.
  static int SendPicMsgRsp(std::int32_t handle, const HttpResponse& response, std::string_view body);
  static int AnswerJson(std::int32_t handle, const std::string& body);

  // Returns 0 or the error code to answer.
  static int CheckAuth(const HttpServerRecv& request, const Config& config);
  static int CheckUrlAuth(const HttpServerRecv& request, const Config& config);

  // Handlers, in the order of the routing table. Each answers its request and returns the result of the sending.
  int HandleGetBestNode(std::int32_t handle, const HttpServerRecv& request);
  int HandleDownloadPicture(std::int32_t handle, const HttpServerRecv& request);
  int HandleUploadPicture(std::int32_t handle, const HttpServerRecv& request);
  int HandleGetPoolList(std::int32_t handle, const HttpServerRecv& request);
  int HandleGetVersion(std::int32_t handle, const HttpServerRecv& request);

  CConfigSnapshot<Config> conf_;

  std::mutex mutex_;
  // Everything below is guarded by mutex_.
  details::Listener http_listener_;
  details::Listener http_v6_listener_;
  details::Listener https_listener_;
  details::Listener https_v6_listener_;
  bool started_ = true;  // the listeners should be open
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_SERVER_H
