// Intake and routing: what happens to a request between the HTTP library and its handler, and the way back.
#include <array>
#include <exception>
#include <string_view>
#include <utility>

#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerTasks.h"
#include "StorageServer/RequestSignature.h"
#include "StorageServer/ServerMsgLoop.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// The loop's tasks, waiting and running, from which on a request is refused.
constexpr std::size_t kMaxWorkTasks = 20001;
constexpr std::size_t kMaxKeyBytes = 128;

enum class Match { kAny, kEmpty, kEquals, kContains };
enum class Part { kAny, kSet, kEmpty };

bool Matches(Part part, const std::string& text) {
  return part == Part::kAny || text.empty() == (part == Part::kEmpty);
}

}  // namespace
}  // namespace details

// One row of the routing table; it fits when all of its conditions hold.
struct CObjectServer::Route {
  details::Match query = details::Match::kAny;
  std::string_view query_text;
  std::string_view also_in_query;  // a second text that the query must contain
  std::string_view method;
  std::string_view path;  // the whole path, where that is a condition
  details::Part bucket = details::Part::kAny;
  details::Part key = details::Part::kAny;
  int (CObjectServer::*handler)(std::int32_t session_id, const HttpServerRecv& request) = nullptr;

  bool Fits(const HttpServerRecv& msg, const Target& target) const {
    return msg.method == method && FitsQuery(QueryOf(msg)) && (path.empty() || msg.url == path) &&
           details::Matches(bucket, target.bucket) && details::Matches(key, target.key);
  }

  bool FitsQuery(std::string_view text) const {
    switch (query) {
      case details::Match::kEmpty:
        return text.empty();
      case details::Match::kEquals:
        return text == query_text;
      case details::Match::kContains:
        return text.find(query_text) != text.npos && text.find(also_in_query) != text.npos;
      case details::Match::kAny:
        break;
    }
    return true;
  }
};

// The routing table: the first row that fits has the request.
struct CObjectServer::Routes {
  using Server = CObjectServer;
  using Match = details::Match;
  using Part = details::Part;

  // query, its text, a second text, method, path, bucket, key, handler
  static constexpr std::array kTable = {
      Route{Match::kEquals, "metadata", "", "GET", "", Part::kSet, Part::kSet, &Server::HandleGetOneObiectMetadata},
      Route{Match::kEmpty, "", "", "PUT", "", Part::kSet, Part::kEmpty, &Server::HandleCreateBucket},
      Route{Match::kEquals, "property", "", "GET", "", Part::kSet, Part::kAny, &Server::HandleGetBucketProperty},
      Route{Match::kEmpty, "", "", "GET", "/", Part::kAny, Part::kAny, &Server::HandleListBuckets},
      Route{Match::kEquals, "bestnode", "", "GET", "", Part::kSet, Part::kSet, &Server::HandleGetBestNode},
      Route{Match::kEmpty, "", "", "PUT", "", Part::kSet, Part::kSet, &Server::HandleUploadObject},
      Route{Match::kEquals, "uploads", "", "POST", "", Part::kSet, Part::kSet, &Server::HandleMultiUploadTaskCreate},
      Route{Match::kContains, "upload_id", "part_num", "POST", "", Part::kSet, Part::kSet,
            &Server::HandleUploadPartObject},
      Route{Match::kContains, "upload_id", "", "POST", "", Part::kSet, Part::kSet, &Server::HandleFinishMutiUploadTask},
      Route{Match::kContains, "upload_id", "", "GET", "", Part::kSet, Part::kSet, &Server::HandleGetAllObjectTask},
      Route{Match::kAny, "", "", "GET", "", Part::kSet, Part::kSet, &Server::HandleDownloadObject},
      Route{Match::kEquals, "deletefile", "", "DELETE", "", Part::kSet, Part::kSet, &Server::HandleRemoveObjectFile},
      Route{Match::kAny, "", "", "DELETE", "", Part::kSet, Part::kSet, &Server::HandleRemoveObject},
  };
};

const CObjectServer::Route* CObjectServer::FindRoute(const HttpServerRecv& msg, const Target& target) {
  for (const Route& route : Routes::kTable) {
    if (route.Fits(msg, target)) {
      return &route;
    }
  }
  return nullptr;
}

bool CObjectServer::ParseUrl(std::string& bucket, std::string& key, const std::string& path) {
  if (path.empty() || path.front() != '/') {
    return false;
  }
  const std::size_t slash = path.find('/', 1);
  if (slash == std::string::npos) {
    bucket.assign(path, 1);
    key.clear();
    return true;
  }
  bucket.assign(path, 1, slash - 1);
  key.assign(path, slash + 1);
  return key.find('/') == std::string::npos;
}

void CObjectServer::RecvMsgCallBack(std::int32_t handle, HttpServerRecv& msg) {
  CLOUD_LOG(logging::kTrace,
            "[%s]Server Callback, server_handle = %d, url = %s, ip = %s, size[%d:%d], error_code[%d][%s(%d)]", handle,
            msg.url.c_str(), msg.ip.c_str(), msg.content_length, msg.body_size, msg.error_code);
  CObjectServer& server = Instance();
  try {
    const std::size_t tasks = CServerMsgLoop::Instance().GetWorkTaskCount();
    if (tasks < details::kMaxWorkTasks) {
      server.TakeMsg(handle, msg);
      return;
    }
    if (msg.error_code != TansyNet::kWholeRequest && !EndRefusedStream(handle)) {
      return;
    }
    server.AnswerError(handle, kServerInternalError);
    CLOUD_LOG(logging::kError, "[%s]message loop exceed[%d], server_handle = %d, url = %s, ip = %s[%s(%d)]",
              static_cast<int>(tasks), handle, msg.url.c_str(), msg.ip.c_str());
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]take msg failed[%s], server_handle = %d, url = %s[%s(%d)]", error.what(), handle,
              msg.url.c_str());
    server.AnswerError(handle, kServerInternalError);
  }
}

// Leaves nothing of an upload behind whose piece is refused. False when the request has its answer already.
bool CObjectServer::EndRefusedStream(std::int32_t handle) {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto session_id = static_cast<std::uint32_t>(handle);
  if (streams.EndOf(session_id) == details::StreamEnd::kAnswered) {
    return false;
  }
  streams.EndStream(session_id, details::StreamEnd::kAnswered);
  return true;
}

void CObjectServer::TakeMsg(std::int32_t handle, HttpServerRecv& msg) {
  const bool is_piece = msg.error_code == TansyNet::kBodyPiece || msg.error_code == TansyNet::kLastBodyPiece;
  if (is_piece && !TakeBodyPiece(handle, msg)) {
    return;
  }
  CServerMsgLoop::Instance().PostTask(new CObjectMsgTask(handle, std::move(msg)));
}

// True when the request is to be handled now: after its last piece, or because its further pieces would be in vain.
bool CObjectServer::TakeBodyPiece(std::int32_t handle, HttpServerRecv& msg) {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto session_id = static_cast<std::uint32_t>(handle);
  const details::StreamEnd end = streams.EndOf(session_id);
  if (end == details::StreamEnd::kAnswered) {
    return false;
  }
  const bool last = msg.error_code == TansyNet::kLastBodyPiece;
  if (end == details::StreamEnd::kFailed) {
    // The handler finds no record of the stream and says so to the client.
    streams.EndStream(session_id, details::StreamEnd::kAnswered);
    msg.body.reset();
    return true;
  }
  if (streams.IsStreamAbsent(session_id) && !TakeFirstPiece(handle, msg)) {
    streams.EndStream(session_id, details::StreamEnd::kAnswered);
    return msg.error_code == TansyNet::kWholeRequest;
  }
  if (last) {
    streams.NoteLastPiece(session_id);
  }
  CServerMsgLoop::Instance().PostTask(new CObjectStreamTask(handle, msg));
  msg.body.reset();  // with the stream task; the handler only waits for it
  return last;
}

// Registers a streamed upload; false when it is not to be stored. An upload that its handler would refuse in the end is
// refused here, before a byte of it is stored: otherwise anybody without a key could fill the disk. A body that belongs
// to no upload is dropped, and the message becomes an ordinary one whose handler answers it.
bool CObjectServer::TakeFirstPiece(std::int32_t handle, HttpServerRecv& msg) {
  Target target;
  const Route* route = ParseUrl(target.bucket, target.key, msg.url) ? FindRoute(msg, target) : nullptr;
  if (route == nullptr || route->handler != &CObjectServer::HandleUploadObject) {
    msg.error_code = TansyNet::kWholeRequest;
    msg.body.reset();
    msg.body_size = 0;
    return false;
  }
  if (const int error = OpenRequest(target, msg, *conf_.Load(), Opening::kStore, OBJECT_SERVER_CALLER); error != 0) {
    AnswerError(handle, error);
    return false;
  }
  details::CBigFileStreamMgr::Instance().RegisterStream(static_cast<std::uint32_t>(handle));
  return true;
}

int CObjectServer::HandleObjectMsg(std::int32_t handle, const HttpServerRecv& msg) {
  Target target;
  if (!ParseUrl(target.bucket, target.key, msg.url)) {
    HttpResponse response;
    std::string str_resp;
    BuildErrorRsp(response, str_resp, kUrlNotSupport);
    CLOUD_LOG(logging::kError, "[%s]HandleObjectMsg str_resp[%s].[%s(%d)]", str_resp.c_str());
    return SendObjectMsgRsp(handle, response, str_resp);
  }
  CLOUD_LOG(logging::kTrace, "[%s]ParseUrl bucket_name[%s], object_name[%s], http_url[%s].[%s(%d)]",
            target.bucket.c_str(), target.key.c_str(), msg.url.c_str());
  if (const Route* route = FindRoute(msg, target); route != nullptr) {
    return (this->*route->handler)(handle, msg);
  }
  HttpResponse response;
  std::string str_resp;
  BuildErrorRsp(response, str_resp, kUrlNotSupport);
  CLOUD_LOG(logging::kTrace, "[%s]HandleObjectMsg str_resp[%s].[%s(%d)]", str_resp.c_str());
  return SendObjectMsgRsp(handle, response, str_resp);
}

int CObjectServer::OpenRequest(Target& target, const HttpServerRecv& request, const Config& config, Opening opening,
                               const details::Caller& caller) {
  const bool remove = opening == Opening::kRemove;
  const bool read = opening == Opening::kRead;
  if (!ParseUrl(target.bucket, target.key, request.url)) {
    if (read) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]invalid url[%s][%s(%d)]", request.url.c_str());
    } else {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]invalid url[%s].[%s(%d)]", request.url.c_str());
    }
    return kInvalidHttpContent;
  }
  if (!CObjectStorageManager::Instance().IsBucketExist(target.bucket)) {
    if (read) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]bucket name not exist[%s][%s(%d)]", target.bucket.c_str());
    } else if (remove) {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]bucket not exist[%s].[%s(%d)]", target.bucket.c_str());
    } else {
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]bucket name not exist[%s].[%s(%d)]", target.bucket.c_str());
    }
    return kNoSuchBucket;
  }
  if (opening == Opening::kStore && target.key.size() > details::kMaxKeyBytes) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]object key is too long, objectkey[%s].[%s(%d)]", target.key.c_str());
    return kKeyTooLong;
  }
  return CheckAuth(request, config);
}

int CObjectServer::OpenObject(Target& target, ObjectInfo& object, const HttpServerRecv& request, const Config& config,
                              Opening opening, const details::Caller& caller) {
  if (const int error = OpenRequest(target, request, config, opening, caller); error != 0) {
    return error;
  }
  if (!CObjectStorageManager::Instance().GetObjectByName(object, target.key, target.bucket)) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]object name not exist[%s][%s(%d)]", target.key.c_str());
    return kNoSuchKey;
  }
  return 0;
}

int CObjectServer::SendObjectMsgRsp(std::int32_t session_id, const HttpResponse& response, const char* data,
                                    std::size_t size) {
  const int error =
      TansyNet::CHttpServer::HttpServerSyncSend(session_id, response, static_cast<std::uint32_t>(size), data);
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]HttpServerSynSend error, revalue = %d, handle = %d[%s(%d)]", error, session_id);
  }
  return error;
}

int CObjectServer::SendObjectMsgRsp(std::int32_t session_id, const HttpResponse& response, const std::string& body) {
  return SendObjectMsgRsp(session_id, response, body.data(), body.size());
}

int CObjectServer::AnswerError(std::int32_t session_id, int code) {
  HttpResponse response;
  std::string body;
  BuildErrorRsp(response, body, code);
  return SendObjectMsgRsp(session_id, response, body);
}

int CObjectServer::AnswerXml(std::int32_t session_id, const std::string& body) {
  HttpResponse response;
  SetRspHeaders(response, kXmlContentType);
  return SendObjectMsgRsp(session_id, response, body);
}

}  // namespace Tansy::CloudStorage
