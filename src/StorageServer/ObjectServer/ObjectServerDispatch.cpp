// Intake and routing: what happens to a request between the HTTP library and its handler, and the way back.
#include <array>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/CatalogueAway.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerTasks.h"
#include "StorageServer/ObjectServer/StreamPieceQueue.h"
#include "StorageServer/ServerComm.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyNet/Operation.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::size_t kMaxKeyBytes = 128;

enum class Match { kAny, kEmpty, kEquals, kContains };
enum class Part { kAny, kSet, kEmpty };

// Says whether the bucket must exist, and in which of three wordings its absence is logged.
enum class BucketCheck { kNone, kName, kNameWithDot, kWithDot };

void LogNoBucket(BucketCheck check, const std::string& bucket, const Caller& caller) {
  if (check == BucketCheck::kName) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]bucket name not exist[%s][%s(%d)]", bucket.c_str());
  } else if (check == BucketCheck::kNameWithDot) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]bucket name not exist[%s].[%s(%d)]", bucket.c_str());
  } else {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]bucket not exist[%s].[%s(%d)]", bucket.c_str());
  }
}

bool Matches(Part part, const std::string& text) {
  return part == Part::kAny || text.empty() == (part == Part::kEmpty);
}

}  // namespace
}  // namespace details

// The conditions that a request must meet before its handler gets it. They are checked in the order of the fields.
// Every route also checks that the request is signed, and does so before the object.
struct CObjectServer::Opening {
  details::BucketCheck bucket = details::BucketCheck::kNone;
  bool short_key = false;      // the key has at most kMaxKeyBytes
  bool logs_unsigned = false;  // a request that is not signed is logged once more, with its bucket
  bool object = false;         // the object exists

  static const Opening kSigned;
  static const Opening kStore;
  static const Opening kPart;
  static const Opening kTask;
  static const Opening kBestNode;
  static const Opening kRead;
  static const Opening kRemove;
};

constexpr CObjectServer::Opening CObjectServer::Opening::kSigned{};
constexpr CObjectServer::Opening CObjectServer::Opening::kStore{.bucket = details::BucketCheck::kNameWithDot,
                                                                .short_key = true};
constexpr CObjectServer::Opening CObjectServer::Opening::kPart{.bucket = details::BucketCheck::kNameWithDot,
                                                               .logs_unsigned = true};
constexpr CObjectServer::Opening CObjectServer::Opening::kTask{.bucket = details::BucketCheck::kNameWithDot};
constexpr CObjectServer::Opening CObjectServer::Opening::kBestNode{.bucket = details::BucketCheck::kWithDot};
constexpr CObjectServer::Opening CObjectServer::Opening::kRead{.bucket = details::BucketCheck::kName, .object = true};
constexpr CObjectServer::Opening CObjectServer::Opening::kRemove{.bucket = details::BucketCheck::kWithDot,
                                                                 .object = true};

// What requests are counted as.
struct CObjectServer::Operations {
  using COperation = TansyNet::COperation;
  static constexpr const char* kService = "object";

  static inline COperation other{kService, "Other"};  // no row of the routing table fits, or none is looked for
  static inline COperation get_metadata{kService, "GetMetadata"};
  static inline COperation create_bucket{kService, "CreateBucket"};
  static inline COperation get_bucket_property{kService, "GetBucketProperty"};
  static inline COperation list_buckets{kService, "ListBuckets"};
  static inline COperation get_best_node{kService, "GetBestNode"};
  static inline COperation put_object{kService, "PutObject"};
  static inline COperation create_upload{kService, "CreateUpload"};
  static inline COperation upload_part{kService, "UploadPart"};
  static inline COperation complete_upload{kService, "CompleteUpload"};
  static inline COperation get_upload{kService, "GetUpload"};
  static inline COperation get_object{kService, "GetObject"};
  static inline COperation remove_file{kService, "RemoveObjectFile"};
  static inline COperation remove_object{kService, "RemoveObject"};
};

// One row of the routing table. It matches when all of its conditions are true.
struct CObjectServer::Route {
  using Handler = int (CObjectServer::*)(std::int32_t session_id, const ObjectRequest& request);

  details::Match query = details::Match::kAny;
  std::string_view query_text;
  std::string_view also_in_query;  // a second text that the query must contain
  std::string_view method;
  std::string_view path;  // the whole path, where that is a condition
  details::Part bucket = details::Part::kAny;
  details::Part key = details::Part::kAny;
  const Opening& opening;
  TansyNet::COperation& operation;
  Handler handler;
  details::Caller caller;  // the handler, in the log lines of its opening

  bool Fits(const ObjectRequest& request) const {
    return request.msg.method == method && FitsQuery(request.query) && (path.empty() || request.msg.url == path) &&
           details::Matches(bucket, request.bucket) && details::Matches(key, request.key);
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

// Makes a handler and its name out of one word, which only a macro can do.
#define OBJECT_HANDLER(name)                                         \
  &CObjectServer::name, {                                            \
    "Tansy::CloudStorage::CObjectServer::" #name, __FILE__, __LINE__ \
  }

// The routing table: the first row that matches handles the request.
struct CObjectServer::Routes {
  using Match = details::Match;
  using Part = details::Part;

  // query, its text, a second text, method, path, bucket, key, opening, operation, handler
  static constexpr std::array kTable = {
      Route{Match::kEquals, "metadata", "", "GET", "", Part::kSet, Part::kSet, Opening::kRead, Operations::get_metadata,
            OBJECT_HANDLER(HandleGetOneObiectMetadata)},
      Route{Match::kEmpty, "", "", "PUT", "", Part::kSet, Part::kEmpty, Opening::kSigned, Operations::create_bucket,
            OBJECT_HANDLER(HandleCreateBucket)},
      Route{Match::kEquals, "property", "", "GET", "", Part::kSet, Part::kAny, Opening::kSigned,
            Operations::get_bucket_property, OBJECT_HANDLER(HandleGetBucketProperty)},
      Route{Match::kEmpty, "", "", "GET", "/", Part::kAny, Part::kAny, Opening::kSigned, Operations::list_buckets,
            OBJECT_HANDLER(HandleListBuckets)},
      Route{Match::kEquals, "bestnode", "", "GET", "", Part::kSet, Part::kSet, Opening::kBestNode,
            Operations::get_best_node, OBJECT_HANDLER(HandleGetBestNode)},
      Route{Match::kEmpty, "", "", "PUT", "", Part::kSet, Part::kSet, Opening::kStore, Operations::put_object,
            OBJECT_HANDLER(HandleUploadObject)},
      Route{Match::kEquals, "uploads", "", "POST", "", Part::kSet, Part::kSet, Opening::kStore,
            Operations::create_upload, OBJECT_HANDLER(HandleMultiUploadTaskCreate)},
      Route{Match::kContains, "upload_id", "part_num", "POST", "", Part::kSet, Part::kSet, Opening::kPart,
            Operations::upload_part, OBJECT_HANDLER(HandleUploadPartObject)},
      Route{Match::kContains, "upload_id", "", "POST", "", Part::kSet, Part::kSet, Opening::kTask,
            Operations::complete_upload, OBJECT_HANDLER(HandleFinishMutiUploadTask)},
      Route{Match::kContains, "upload_id", "", "GET", "", Part::kSet, Part::kSet, Opening::kTask,
            Operations::get_upload, OBJECT_HANDLER(HandleGetAllObjectTask)},
      Route{Match::kAny, "", "", "GET", "", Part::kSet, Part::kSet, Opening::kRead, Operations::get_object,
            OBJECT_HANDLER(HandleDownloadObject)},
      Route{Match::kEquals, "deletefile", "", "DELETE", "", Part::kSet, Part::kSet, Opening::kRemove,
            Operations::remove_file, OBJECT_HANDLER(HandleRemoveObjectFile)},
      Route{Match::kAny, "", "", "DELETE", "", Part::kSet, Part::kSet, Opening::kRemove, Operations::remove_object,
            OBJECT_HANDLER(HandleRemoveObject)},
  };
};

#undef OBJECT_HANDLER

const CObjectServer::Route* CObjectServer::FindRoute(const ObjectRequest& request) {
  for (const Route& route : Routes::kTable) {
    if (route.Fits(request)) {
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
    if (tasks < CServerMsgLoop::kMaxWorkTasks) {
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

// Leaves nothing behind of an upload whose piece is refused. Returns false when the request has its answer already.
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
  if (is_piece && TakeBodyPiece(handle, msg) == Next::kNothing) {
    return;
  }
  const bool is_read = msg.method == "GET";
  CServerMsgLoop::Instance().Take(std::make_unique<CObjectMsgTask>(handle, std::move(msg)), is_read);
}

CObjectServer::Next CObjectServer::TakeBodyPiece(std::int32_t handle, HttpServerRecv& msg) {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto session_id = static_cast<std::uint32_t>(handle);
  const details::StreamEnd end = streams.EndOf(session_id);
  if (end == details::StreamEnd::kAnswered) {
    return Next::kNothing;
  }
  if (end == details::StreamEnd::kFailed) {
    // The handler finds no record of the stream and says so to the client.
    streams.EndStream(session_id, details::StreamEnd::kAnswered);
    msg.body.reset();
    return Next::kHandle;
  }
  if (streams.IsStreamAbsent(session_id)) {
    return TakeFirstPiece(handle, msg);
  }
  StorePiece(handle, msg);
  return Next::kNothing;
}

// An upload that its handler would refuse in the end is refused here, before a byte of it is stored; otherwise anybody
// without a key could fill the disk. A body that belongs to no upload is dropped, and its request is handled without
// it.
CObjectServer::Next CObjectServer::TakeFirstPiece(std::int32_t handle, HttpServerRecv& msg) {
  auto& streams = details::CBigFileStreamMgr::Instance();
  const auto session_id = static_cast<std::uint32_t>(handle);
  const ConfigPointer config = conf_.Load();
  ObjectRequest request(msg, *config);
  const Route* route = ParseUrl(request.bucket, request.key, msg.url) ? FindRoute(request) : nullptr;
  if (route == nullptr || route->handler != &CObjectServer::HandleUploadObject) {
    streams.EndStream(session_id, details::StreamEnd::kAnswered);
    DropBody(msg);
    return Next::kHandle;
  }
  TansyNet::NameOperation(msg.note, route->operation);
  if (const int error = Open(request, *route); error != 0) {
    streams.EndStream(session_id, details::StreamEnd::kAnswered);
    AnswerError(handle, error);
    return Next::kNothing;
  }
  streams.RegisterStream(session_id);
  StorePiece(handle, msg);
  return Next::kNothing;
}

// The handler of the upload runs after its last piece is stored: before that it would only wait, and occupy a thread
// that others need.
void CObjectServer::StorePiece(std::int32_t handle, HttpServerRecv& msg) {
  auto piece = std::make_unique<CObjectStreamTask>(handle, msg);
  if (msg.error_code == TansyNet::kLastBodyPiece) {
    details::CBigFileStreamMgr::Instance().NoteLastPiece(static_cast<std::uint32_t>(handle));
    msg.body.reset();  // the stream task has the body
    piece->HandleAfterwards(std::make_unique<CObjectMsgTask>(handle, std::move(msg)));
  }
  details::CStreamPieceQueue::Instance().Post(std::move(piece));
}

void CObjectServer::DropBody(HttpServerRecv& msg) {
  msg.error_code = TansyNet::kWholeRequest;
  msg.body.reset();
  msg.body_size = 0;
}

int CObjectServer::HandleObjectMsg(std::int32_t handle, const HttpServerRecv& msg) {
  try {
    return HandleRequest(handle, msg);
  } catch (const CCatalogueAway&) {
    details::CBigFileStreamMgr::Instance().RemoveStream(static_cast<std::uint32_t>(handle));
    return AnswerError(handle, kServiceUnavailable);
  }
}

int CObjectServer::HandleRequest(std::int32_t handle, const HttpServerRecv& msg) {
  TansyNet::BeginOperation(msg.note, Operations::other);
  const ConfigPointer config = conf_.Load();
  ObjectRequest request(msg, *config);
  request.opened_before = msg.error_code != TansyNet::kWholeRequest;
  if (!ParseUrl(request.bucket, request.key, msg.url)) {
    return AnswerUnsupported(handle, logging::kError, CLOUD_LOG_CALLER);
  }
  CLOUD_LOG(logging::kTrace, "[%s]ParseUrl bucket_name[%s], object_name[%s], http_url[%s].[%s(%d)]",
            request.bucket.c_str(), request.key.c_str(), msg.url.c_str());
  const Route* route = FindRoute(request);
  if (route == nullptr) {
    return AnswerUnsupported(handle, logging::kTrace, CLOUD_LOG_CALLER);
  }
  TansyNet::NameOperation(msg.note, route->operation);
  if (const int error = Open(request, *route); error != 0) {
    // When a streamed upload is refused in the end, nobody will ask for the pieces that came before.
    details::CBigFileStreamMgr::Instance().RemoveStream(static_cast<std::uint32_t>(handle));
    return AnswerError(handle, error);
  }
  return (this->*route->handler)(handle, request);
}

int CObjectServer::AnswerUnsupported(std::int32_t handle, int level, const details::Caller& caller) {
  HttpResponse response;
  std::string str_resp;
  BuildErrorRsp(response, str_resp, kUrlNotSupport);
  CLOUD_LOG_FOR(caller, level, "[%s]HandleObjectMsg str_resp[%s].[%s(%d)]", str_resp.c_str());
  return SendObjectMsgRsp(handle, response, str_resp);
}

int CObjectServer::Open(ObjectRequest& request, const Route& route) {
  request.caller = route.caller;
  return Open(request, route.opening);
}

int CObjectServer::OpenToRead(ObjectRequest& request) {
  return Open(request, Opening::kRead);
}

int CObjectServer::Open(ObjectRequest& request, const Opening& opening) {
  try {
    CObjectStorageManager::Instance().ExpectFresh();
    return Check(request, opening);
  } catch (const CCatalogueAway& error) {
    CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]%s, url[%s].[%s(%d)]", error.what(), request.msg.url.c_str());
    return kServiceUnavailable;
  }
}

int CObjectServer::Check(ObjectRequest& request, const Opening& opening) {
  auto& catalogue = CObjectStorageManager::Instance();
  if (opening.bucket != details::BucketCheck::kNone && !catalogue.IsBucketExist(request.bucket)) {
    details::LogNoBucket(opening.bucket, request.bucket, request.caller);
    return kNoSuchBucket;
  }
  if (opening.short_key && request.key.size() > details::kMaxKeyBytes) {
    CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]object key is too long, objectkey[%s].[%s(%d)]",
                  request.key.c_str());
    return kKeyTooLong;
  }
  const DateRule date_rule = request.opened_before ? DateRule::kAny : DateRule::kInWindow;
  if (const int error = CheckAuth(request.msg, request.config, date_rule); error != 0) {
    if (opening.logs_unsigned) {
      CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]CheckAuth fail, bucket_name[%s].[%s(%d)]",
                    request.bucket.c_str());
    }
    return error;
  }
  if (opening.object && !catalogue.GetObjectByName(request.object, request.key, request.bucket)) {
    CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]object name not exist[%s][%s(%d)]", request.key.c_str());
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
