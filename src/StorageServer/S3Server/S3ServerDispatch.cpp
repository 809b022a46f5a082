// Intake and routing: what happens to a request between the HTTP library and its handler, and the way back.
#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/CatalogueAway.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/StreamPieceQueue.h"
#include "StorageServer/S3Server/S3AbsentFeatures.h"
#include "StorageServer/S3Server/S3CopySource.h"
#include "StorageServer/S3Server/S3Cors.h"
#include "StorageServer/S3Server/S3Keys.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3ServerTasks.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyNet/Operation.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::CBigFileStreamMgr;
using CloudStorage::details::StreamEnd;

constexpr const char* kXmlType = "application/xml";
// This header makes an upload a copy of another object.
constexpr std::string_view kCopySource = kCopySourceHeader;

// Parameters that make a request one about something else than the bucket or the object itself.
constexpr std::array<std::string_view, 35> kSubresources = {
    "accelerate",   "acl",
    "analytics",    "attributes",
    "cors",         "delete",
    "encryption",   "intelligent-tiering",
    "inventory",    "legal-hold",
    "lifecycle",    "list-type",
    "location",     "logging",
    "metrics",      "notification",
    "object-lock",  "ownershipControls",
    "partNumber",   "policy",
    "policyStatus", "publicAccessBlock",
    "replication",  "requestPayment",
    "restore",      "retention",
    "select",       "tagging",
    "torrent",      "uploadId",
    "uploads",      "versionId",
    "versioning",   "versions",
    "website",
};

// Gives the name of what a request is about; it is empty when that is the bucket or the object itself.
std::string_view SubresourceOf(const Request& request) {
  if (request.headers.find(kCopySource) != request.headers.end()) {
    return kCopySource;
  }
  for (const QueryParameter& parameter : request.query) {
    const auto found = std::find(kSubresources.begin(), kSubresources.end(), parameter.name);
    // An object without versions has the version "null"; some libraries send the name without a value.
    const bool is_version = parameter.name == "versionId" && (parameter.value == "null" || parameter.value.empty());
    if (found != kSubresources.end() && !is_version) {
      return *found;
    }
  }
  return {};
}

enum class ETarget { kService, kBucket, kObject };

ETarget TargetOf(const Request& request) {
  if (request.bucket.empty()) {
    return ETarget::kService;
  }
  return request.key.empty() ? ETarget::kBucket : ETarget::kObject;
}

std::uint32_t StreamId(std::int32_t handle) {
  return static_cast<std::uint32_t>(handle);
}

// Users name the id of their request when they ask what became of it.
void LogRequest(const Request& request) {
  CLOUD_LOG(logging::kTrace, "[%s]request %s, handle = %d[%s(%d)]", request.id.c_str(), request.handle);
}

}  // namespace

// What requests are counted as.
struct CS3Server::Operations {
  using COperation = TansyNet::COperation;
  static constexpr const char* kService = "s3";

  static inline COperation other{kService, "Other"};  // refused before it was known what they ask for
  static inline COperation list_buckets{kService, "ListBuckets"};
  static inline COperation create_bucket{kService, "CreateBucket"};
  static inline COperation head_bucket{kService, "HeadBucket"};
  static inline COperation delete_bucket{kService, "DeleteBucket"};
  static inline COperation get_bucket_location{kService, "GetBucketLocation"};
  static inline COperation list_objects{kService, "ListObjects"};
  static inline COperation list_objects_v2{kService, "ListObjectsV2"};
  static inline COperation delete_objects{kService, "DeleteObjects"};
  static inline COperation put_object{kService, "PutObject"};
  static inline COperation get_object{kService, "GetObject"};
  static inline COperation head_object{kService, "HeadObject"};
  static inline COperation delete_object{kService, "DeleteObject"};
  static inline COperation get_acl{kService, "GetAcl"};
  static inline COperation put_acl{kService, "PutAcl"};
  static inline COperation copy_object{kService, "CopyObject"};
  static inline COperation create_multipart_upload{kService, "CreateMultipartUpload"};
  static inline COperation upload_part{kService, "UploadPart"};
  static inline COperation list_parts{kService, "ListParts"};
  static inline COperation list_multipart_uploads{kService, "ListMultipartUploads"};
  static inline COperation complete_multipart_upload{kService, "CompleteMultipartUpload"};
  static inline COperation abort_multipart_upload{kService, "AbortMultipartUpload"};
  static inline COperation get_object_attributes{kService, "GetObjectAttributes"};
  static inline COperation list_object_versions{kService, "ListObjectVersions"};
  static inline COperation post_object{kService, "PostObject"};
  static inline COperation preflight{kService, "Preflight"};
  static inline COperation get_absent{kService, "GetAbsent"};
  static inline COperation delete_absent{kService, "DeleteAbsent"};
};

// One row of the routing table.
struct CS3Server::Route {
  using Handler = void (*)(const Request& request);

  std::string_view method;
  ETarget target;
  std::string_view subresource;
  EAccess access;  // what it does with its bucket
  Handler handler;
  TansyNet::COperation& operation;
  bool takes_pieces = false;  // its body may arrive in pieces
};

struct CS3Server::Routes {
  using Server = CS3Server;

  static constexpr std::array kTable = {
      Route{"GET", ETarget::kService, "", EAccess::kRead, &Server::ListBuckets, Operations::list_buckets},
      Route{"PUT", ETarget::kBucket, "", EAccess::kWrite, &Server::CreateBucket, Operations::create_bucket},
      Route{"HEAD", ETarget::kBucket, "", EAccess::kRead, &Server::HeadBucket, Operations::head_bucket},
      Route{"DELETE", ETarget::kBucket, "", EAccess::kWrite, &Server::DeleteBucket, Operations::delete_bucket},
      Route{"GET", ETarget::kBucket, "location", EAccess::kRead, &Server::GetBucketLocation,
            Operations::get_bucket_location},
      Route{"GET", ETarget::kBucket, "", EAccess::kRead, &Server::ListObjects, Operations::list_objects},
      Route{"GET", ETarget::kBucket, "list-type", EAccess::kRead, &Server::ListObjectsV2, Operations::list_objects_v2},
      Route{"GET", ETarget::kBucket, "versions", EAccess::kRead, &Server::ListObjectVersions,
            Operations::list_object_versions},
      Route{"POST", ETarget::kBucket, "delete", EAccess::kWrite, &Server::DeleteObjects, Operations::delete_objects},
      Route{"PUT", ETarget::kObject, "", EAccess::kWrite, &Server::PutObject, Operations::put_object, true},
      Route{"GET", ETarget::kObject, "", EAccess::kRead, &Server::GetObject, Operations::get_object},
      Route{"HEAD", ETarget::kObject, "", EAccess::kRead, &Server::GetObject, Operations::head_object},
      Route{"GET", ETarget::kObject, "partNumber", EAccess::kRead, &Server::GetObject, Operations::get_object},
      Route{"HEAD", ETarget::kObject, "partNumber", EAccess::kRead, &Server::GetObject, Operations::head_object},
      Route{"GET", ETarget::kObject, "attributes", EAccess::kRead, &Server::GetObjectAttributes,
            Operations::get_object_attributes},
      Route{"DELETE", ETarget::kObject, "", EAccess::kWrite, &Server::DeleteObject, Operations::delete_object},
      Route{"GET", ETarget::kBucket, "acl", EAccess::kRead, &Server::GetAcl, Operations::get_acl},
      Route{"PUT", ETarget::kBucket, "acl", EAccess::kWrite, &Server::PutAcl, Operations::put_acl},
      Route{"GET", ETarget::kObject, "acl", EAccess::kRead, &Server::GetAcl, Operations::get_acl},
      Route{"PUT", ETarget::kObject, "acl", EAccess::kWrite, &Server::PutAcl, Operations::put_acl},
      Route{"PUT", ETarget::kObject, kCopySource, EAccess::kWrite, &Server::CopyObject, Operations::copy_object},
      Route{"POST", ETarget::kObject, "uploads", EAccess::kWrite, &Server::CreateMultipartUpload,
            Operations::create_multipart_upload},
      Route{"PUT", ETarget::kObject, "partNumber", EAccess::kWrite, &Server::UploadPart, Operations::upload_part, true},
      Route{"PUT", ETarget::kObject, "uploadId", EAccess::kWrite, &Server::UploadPart, Operations::upload_part, true},
      Route{"GET", ETarget::kObject, "uploadId", EAccess::kRead, &Server::ListParts, Operations::list_parts},
      Route{"GET", ETarget::kBucket, "uploads", EAccess::kRead, &Server::ListMultipartUploads,
            Operations::list_multipart_uploads},
      Route{"POST", ETarget::kObject, "uploadId", EAccess::kWrite, &Server::CompleteMultipartUpload,
            Operations::complete_multipart_upload},
      Route{"DELETE", ETarget::kObject, "uploadId", EAccess::kWrite, &Server::AbortMultipartUpload,
            Operations::abort_multipart_upload},
  };

  // For features that this server does not have.
  static constexpr Route kGetAbsent = {"GET",          ETarget::kBucket,   "",
                                       EAccess::kRead, &Server::GetAbsent, Operations::get_absent};
  static constexpr Route kDeleteAbsent = {"DELETE",        ETarget::kBucket,      "",
                                          EAccess::kWrite, &Server::DeleteAbsent, Operations::delete_absent};
};

Failure CS3Server::FindRoute(const Route*& route, const Request& request) {
  const ETarget target = TargetOf(request);
  const std::string_view subresource = SubresourceOf(request);
  for (const Route& row : Routes::kTable) {
    if (row.method == request.method && row.target == target && row.subresource == subresource) {
      route = &row;
      return {};
    }
  }
  const AbsentFeature* const absent = FindAbsentFeature(request);
  if (absent != nullptr && request.method == "GET") {
    route = &Routes::kGetAbsent;
  } else if (absent != nullptr && absent->is_removable && request.method == "DELETE") {
    route = &Routes::kDeleteAbsent;
  } else {
    return EError::kNotImplemented;
  }
  return {};
}

void CS3Server::RecvMsgCallBack(std::int32_t handle, TansyNet::HttpServerRecv& msg) {
  CLOUD_LOG(logging::kTrace, "[%s]handle = %d, method = %s, url = %s, ip = %s, size[%d:%d], error_code[%d][%s(%d)]",
            handle, msg.method.c_str(), msg.url.c_str(), msg.ip.c_str(), msg.content_length, msg.body_size,
            msg.error_code);
  CS3Server& server = Instance();
  try {
    if (CServerMsgLoop::Instance().GetWorkTaskCount() < CServerMsgLoop::kMaxWorkTasks) {
      server.TakeMsg(handle, msg);
      return;
    }
    CLOUD_LOG(logging::kError, "[%s]msg loop exceed, handle = %d[%s(%d)]", handle);
    server.EndRequest(handle, EError::kSlowDown);
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]take msg failed[%s], handle = %d[%s(%d)]", error.what(), handle);
    server.EndRequest(handle, ErrorOf(error));
  }
}

void CS3Server::TakeMsg(std::int32_t handle, TansyNet::HttpServerRecv& msg) {
  if (msg.error_code != TansyNet::kWholeRequest) {
    TakePiece(handle, msg);
    return;
  }
  const bool is_read = msg.method == "GET" || msg.method == "HEAD";
  CServerMsgLoop::Instance().Take(std::make_unique<CMsgTask>(handle, std::move(msg)), is_read);
}

void CS3Server::TakePiece(std::int32_t handle, TansyNet::HttpServerRecv& msg) {
  if (CBigFileStreamMgr::Instance().EndOf(StreamId(handle)) != StreamEnd::kNone) {
    return;  // it is answered
  }
  if (CUploads::Instance().Find(handle) == nullptr && !TakeFirstPiece(handle, msg)) {
    return;
  }
  if (msg.error_code == TansyNet::kLastBodyPiece) {
    CBigFileStreamMgr::Instance().NoteLastPiece(StreamId(handle));
  }
  CloudStorage::details::CStreamPieceQueue::Instance().Post(std::make_unique<CPieceTask>(handle, std::move(msg)));
}

// An upload that its handler would refuse in the end is refused here, before a byte of it is stored; otherwise anybody
// without a key could fill the disk.
bool CS3Server::TakeFirstPiece(std::int32_t handle, TansyNet::HttpServerRecv& msg) {
  const auto config = conf_.Load();
  Request request(handle, msg, *config);
  LogRequest(request);
  const Route* route = nullptr;
  Failure failure = request.Check();
  if (!failure) {
    failure = FindRoute(route, request);
  }
  TansyNet::BeginOperation(msg.note, route == nullptr ? Operations::other : route->operation);
  if (!failure) {
    failure = CheckAccess(request.signer, route->access, request.bucket);
  }
  if (!failure && !route->takes_pieces) {
    failure = {EError::kInvalidRequest, "The body is too long for this request."};
  }
  if (!failure) {
    failure = CheckUpload(request);
  }
  auto upload = std::make_shared<Upload>();
  upload->request_id = request.id;
  if (!failure) {
    failure = upload->body.Begin(request.signature, request.headers);
  }
  if (failure) {
    CBigFileStreamMgr::Instance().EndStream(StreamId(handle), StreamEnd::kAnswered);
    AnswerFailure(request, failure);
    return false;
  }
  CBigFileStreamMgr::Instance().RegisterStream(StreamId(handle));
  CUploads::Instance().Add(handle, std::move(upload));
  return true;
}

void CS3Server::Handle(std::int32_t handle, TansyNet::HttpServerRecv& msg) {
  const auto config = conf_.Load();
  Request request(handle, msg, *config);
  LogRequest(request);
  TansyNet::BeginOperation(msg.note, Operations::other);
  if (request.method == "OPTIONS") {
    TansyNet::NameOperation(msg.note, Operations::preflight);
    AnswerPreflight(request);
    return;
  }
  CObjectStorageManager::Instance().ExpectFresh();
  if (IsForm(request)) {
    TansyNet::NameOperation(msg.note, Operations::post_object);
    PostObject(request);
    return;
  }
  const Route* route = nullptr;
  Failure failure = request.Check();
  if (!failure) {
    failure = FindRoute(route, request);
  }
  if (route != nullptr) {
    TansyNet::NameOperation(msg.note, route->operation);
  }
  if (!failure) {
    failure = CheckAccess(request.signer, route->access, request.bucket);
  }
  if (!failure && TargetOf(request) != ETarget::kService && route->handler != &CS3Server::CreateBucket &&
      !CObjectStorageManager::Instance().IsBucketExist(request.bucket)) {
    failure = EError::kNoSuchBucket;
    failure.details.emplace_back("BucketName", request.bucket);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  route->handler(request);
}

// Nobody signs such a question. The request itself is signed like any other.
void CS3Server::AnswerPreflight(const Request& request) {
  if (request.readers.empty() || ValueOf(request.headers, "access-control-request-method").empty()) {
    AnswerFailure(request, {EError::kAccessDenied, "Pages of this origin may not use this server."});
    return;
  }
  AnswerEmpty(request, 200, PreflightHeaders(request.headers));
}

EError CS3Server::ErrorOf(const std::exception& error) {
  const bool is_away = dynamic_cast<const CCatalogueAway*>(&error) != nullptr;
  return is_away ? EError::kServiceUnavailable : EError::kInternalError;
}

void CS3Server::EndRequest(std::int32_t handle, EError error) noexcept {
  try {
    CUploads::Instance().Remove(handle);
    CBigFileStreamMgr::Instance().EndStream(StreamId(handle), StreamEnd::kAnswered);
    AnswerFailure({handle, MakeRequestId(), {}, {}, {}}, error);
  } catch (const std::exception& problem) {
    CLOUD_LOG(logging::kError, "[%s]answer failed[%s], handle = %d[%s(%d)]", problem.what(), handle);
  }
}

TansyNet::HttpResponse MakeResponse(const Recipient& to, std::int32_t status) {
  TansyNet::HttpResponse response;
  response.status = status;
  response.content_type.clear();
  response.cache_control.clear();
  response.headers["x-amz-request-id"] = to.id;
  AddCorsHeaders(response.headers, to.readers);
  return response;
}

TansyNet::HttpResponse MakeXmlResponse(const Recipient& to, std::int32_t status) {
  TansyNet::HttpResponse response = MakeResponse(to, status);
  response.content_type = kXmlType;
  return response;
}

void LogFailure(const Recipient& to, const Failure& failure) {
  CLOUD_LOG(logging::kNotable, "[%s]request %s, %s %s: %s, %s[%s(%d)]", to.id.c_str(), to.method.c_str(),
            to.url.c_str(), std::string(NameOf(failure.error)).c_str(), std::string(MessageOf(failure)).c_str());
}

void AnswerFailure(const Recipient& to, const Failure& failure) {
  LogFailure(to, failure);
  const std::string body = ErrorXml(failure, PercentDecode(to.url), to.id);
  TansyNet::HttpResponse response = MakeXmlResponse(to, StatusOf(failure.error));
  for (const auto& [name, value] : failure.details) {
    if (name == "Region") {
      response.headers["x-amz-bucket-region"] = value;  // the answer to a HEAD has no body that could say it
    }
  }
  TansyNet::CHttpServer::HttpServerSyncSend(to.handle, response, static_cast<std::uint32_t>(body.size()), body.data());
}

void AnswerXml(const Recipient& to, const std::string& xml, const TansyNet::Headers& headers) {
  TansyNet::HttpResponse response = MakeXmlResponse(to, 200);
  response.headers.insert(headers.begin(), headers.end());
  TansyNet::CHttpServer::HttpServerSyncSend(to.handle, response, static_cast<std::uint32_t>(xml.size()), xml.data());
}

void AnswerEmpty(const Recipient& to, std::int32_t status, const TansyNet::Headers& headers) {
  TansyNet::HttpResponse response = MakeResponse(to, status);
  response.headers.insert(headers.begin(), headers.end());
  TansyNet::CHttpServer::HttpServerSyncSend(to.handle, response, 0, "");
}

std::string ListedTime(const std::string& update_time) {
  // Rows of buckets have milliseconds, those of objects have none.
  std::string text = update_time.substr(0, update_time.find('.'));
  std::replace(text.begin(), text.end(), ' ', 'T');
  return text + ".000Z";
}

}  // namespace Tansy::CloudStorage::S3
