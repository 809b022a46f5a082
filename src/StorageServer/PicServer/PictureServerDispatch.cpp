// Intake and routing: what happens to a request between the HTTP library and its handler, and the way back.
#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/PicServer/PictureMsgTask.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/PicServer/PictureServerErrors.h"
#include "StorageServer/ServerComm.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyNet/Operation.h"

namespace Tansy::CloudStorage {

// What requests are counted as.
struct CPictureServer::Operations {
  using COperation = TansyNet::COperation;
  static constexpr const char* kService = "picture";

  static inline COperation other{kService, "Other"};
  static inline COperation get_best_node{kService, "GetBestNode"};
  static inline COperation get_picture{kService, "GetPicture"};
  static inline COperation put_picture{kService, "PutPicture"};
  static inline COperation list_pools{kService, "ListPools"};
  static inline COperation get_version{kService, "GetVersion"};
};

// One row of the routing table; both texts must equal the request's, with the same case.
struct CPictureServer::Route {
  std::string_view method;
  std::string_view path;
  int (CPictureServer::*handler)(std::int32_t handle, const HttpServerRecv& request);
  TansyNet::COperation& operation;
};

// The routing table: the first row that matches handles the request.
struct CPictureServer::Routes {
  using Server = CPictureServer;

  static constexpr std::array kTable = {
      Route{"GET", "/Quorvane/BestNode", &Server::HandleGetBestNode, Operations::get_best_node},
      Route{"GET", "/pic", &Server::HandleDownloadPicture, Operations::get_picture},
      Route{"POST", "/Quorvane/Picture/Write", &Server::HandleUploadPicture, Operations::put_picture},
      Route{"GET", "/Quorvane/PoolList", &Server::HandleGetPoolList, Operations::list_pools},
      Route{"GET", "/Quorvane/Version", &Server::HandleGetVersion, Operations::get_version},
  };
};

void CPictureServer::RecvMsgCallBack(std::int32_t handle, HttpServerRecv& msg) {
  CLOUD_LOG(logging::kTrace, "[%s]Server Callback, server_handle = %d, url = %s, ip = %s[%s(%d)]", handle,
            msg.url.c_str(), msg.ip.c_str());
  try {
    if (CServerMsgLoop::Instance().GetWorkTaskCount() < CServerMsgLoop::kMaxWorkTasks) {
      const bool is_read = msg.method == "GET";
      CServerMsgLoop::Instance().Take(std::make_unique<CPictureMsgTask>(handle, std::move(msg)), is_read);
      return;
    }
    CLOUD_LOG(logging::kError, "[%s]RecvMsgCallBack, msg loop exceed.[%s(%d)]");
    Instance().AnswerError(handle, kPicServerInternal);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]take msg failed[%s], server_handle = %d[%s(%d)]", error.what(), handle);
    Instance().AnswerError(handle, kPicServerInternal);
  }
}

int CPictureServer::HandlePicMsg(std::int32_t handle, const HttpServerRecv& msg) {
  TansyNet::BeginOperation(msg.note, Operations::other);
  const auto route = std::find_if(Routes::kTable.begin(), Routes::kTable.end(),
                                  [&msg](const Route& row) { return row.method == msg.method && row.path == msg.url; });
  if (route == Routes::kTable.end()) {
    return AnswerError(handle, kPicHttpProtocol);
  }
  TansyNet::NameOperation(msg.note, route->operation);
  return (this->*route->handler)(handle, msg);
}

int CPictureServer::SendPicMsgRsp(std::int32_t handle, const HttpResponse& response, std::string_view body) {
  const int error =
      TansyNet::CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(body.size()), body.data());
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]HttpServerSynSend error, revalue = %d, handle = %d[%s(%d)]", error, handle);
  }
  return error;
}

int CPictureServer::AnswerJson(std::int32_t handle, const std::string& body) {
  HttpResponse response;
  SetRspHeaders(response, kJsonContentType);
  return SendPicMsgRsp(handle, response, body);
}

int CPictureServer::AnswerError(std::int32_t handle, int code) {
  HttpResponse response;
  std::string body;
  BuildPicErrorRsp(response, body, code);
  return SendPicMsgRsp(handle, response, body);
}

}  // namespace Tansy::CloudStorage
