// Reading and removing objects, and the two look-ups for hosts that serve downloads themselves.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerBigSend.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/ServerComm.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// A chunk waits this long for room in memory, as long as a chunk waits for its client.
constexpr std::uint32_t kMemoryPatienceMs = 20000;
// This text marks the url of an object whose bytes the picture service keeps.
constexpr std::string_view kPictureMark = "/pic?";
// Offsets of reads have 32 bits. In a larger object, one place could be taken for another.
constexpr std::uint64_t kMaxReadableBytes = std::numeric_limits<std::uint32_t>::max();

bool IsPicture(const ObjectInfo& object) {
  return object.url.find(kPictureMark) != std::string::npos;
}

// Reads a number as strtoul does in automatic base where unsigned long has 32 bits: a number that is too large becomes
// the largest one, and a minus sign counts back from 2^32.
std::uint32_t ToUnsigned32(const std::string& text) {
  constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
  const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
  const bool negative = first != std::string::npos && text[first] == '-';
  errno = 0;
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 0);
  const unsigned long long magnitude = negative ? 0 - value : value;
  if (errno == ERANGE || magnitude > kMax) {
    return kMax;
  }
  return static_cast<std::uint32_t>(value);
}

// Gives the version of an object, which changes whenever other bytes are stored under its name. It is a fingerprint,
// because the url, which names the bytes, is the host's secret.
std::string EntityTag(const ObjectInfo& object) {
  return '"' + Fingerprint(object.url + "\n" + std::to_string(object.size) + "\n" + object.update_time) + '"';
}

void SetBigFileRspHeaders(TansyNet::HttpResponse& response, const char* content_type, const ByteRange& range,
                          std::uint64_t object_size) {
  SetRspHeaders(response, content_type);
  const std::uint64_t end = range.end != 0 ? range.end : object_size;
  // Fixed: docs/compatibility.md, "Ranges".
  response.headers["Content-Range"] =
      "bytes " + std::to_string(range.begin) + "-" + std::to_string(end) + "/" + std::to_string(object_size);
}

// Reads bytes that the picture service keeps: all of them by their url, or a range by what follows the url's first
// path.
int ReadPicture(HostBuffer& buffer, const ObjectRequest& request, const ObjectInfo& object, const ByteRange& range,
                std::uint32_t length) {
  const std::string& url = object.url;
  if (range.begin == 0 && length == object.size) {
    return ReadObject(request.config, buffer, length, LocationText(request.bucket, url));
  }
  const std::string location = LocationText(request.bucket, std::string_view(url).substr(kPictureMark.size()));
  return ReadRange(request.config, buffer, length, range.begin, location);
}

enum class EBytesFate { kStillThere, kReplaced, kRemoved };

// Says what has become of an object whose bytes could not be read; the record of one that was replaced is then the new
// one.
EBytesFate FindFate(ObjectInfo& object) {
  ObjectInfo current;
  if (!CObjectStorageManager::Instance().GetObjectAtRest(current, object.name, object.bucket_name)) {
    return EBytesFate::kRemoved;
  }
  const bool is_replaced = current.url != object.url;
  object = std::move(current);
  return is_replaced ? EBytesFate::kReplaced : EBytesFate::kStillThere;
}

}  // namespace
}  // namespace details

// Fixed: docs/compatibility.md, "Ranges".
int CObjectServer::ParseRangeHeader(const HttpServerRecv& request, ByteRange& range) {
  range = ByteRange{};
  const auto header = request.headers.find("Range");
  if (header == request.headers.end()) {
    return 0;
  }
  const std::string& value = header->second;
  const std::size_t equals = value.find('=');
  if (equals == std::string::npos) {
    return kInvalidHttpContent;
  }
  const std::size_t dash = value.find('-', equals + 1);
  if (dash == std::string::npos || dash == equals + 1) {
    return kInvalidHttpContent;
  }
  range.begin = details::ToUnsigned32(value.substr(equals + 1, dash - equals - 1));
  range.end = details::ToUnsigned32(value.substr(dash + 1));
  const bool backwards = range.end != 0 && range.end <= range.begin;
  return backwards ? kInvalidHttpContent : 0;
}

int CObjectServer::HandleGetOneObiectMetadata(std::int32_t session_id, const ObjectRequest& request) {
  HttpResponse response;
  response.headers["Object-Size"] = std::to_string(request.object.size);
  response.headers["ETag"] = details::EntityTag(request.object);
  SetRspHeaders(response, kXmlContentType);
  return SendObjectMsgRsp(session_id, response, std::string());
}

int CObjectServer::HandleDownloadObject(std::int32_t session_id, const ObjectRequest& request) {
  ByteRange range;
  if (const int error = ParseRangeHeader(request.msg, range); error != 0) {
    return AnswerError(session_id, error);
  }
  // An object that was replaced after it was looked up may have lost its bytes; then the bytes of its successor are
  // sent. One that was removed meanwhile is answered as one that was never there.
  ObjectInfo object = request.object;
  details::EBytesFate fate{};
  do {
    if (const std::optional<int> sent = SendObject(session_id, request, object, range)) {
      return *sent;
    }
    fate = details::FindFate(object);
  } while (fate == details::EBytesFate::kReplaced);
  if (fate == details::EBytesFate::kRemoved) {
    CLOUD_LOG(logging::kError, "[%s]object name not exist[%s][%s(%d)]", request.key.c_str());
    return AnswerError(session_id, kNoSuchKey);
  }
  CLOUD_LOG(logging::kError, "[%s]download failed[%s][%s(%d)]", request.key.c_str());
  return AnswerError(session_id, kServerInternalError);
}

// Returns nothing when the first byte could not be read; the request must then still be answered.
std::optional<int> CObjectServer::SendObject(std::int32_t session_id, const ObjectRequest& request,
                                             const ObjectInfo& object, ByteRange range) {
  if (range.begin >= object.size) {
    CLOUD_LOG_FOR(request.caller, logging::kError,
                  "[%s]download failed[%s], range_begin_value is greater than file size[%s(%d)]", request.key.c_str());
    return AnswerError(session_id, kInvalidHttpContent);
  }
  if (object.size > details::kMaxReadableBytes) {
    CLOUD_LOG_FOR(request.caller, logging::kError, "[%s]download failed[%s], file size is beyond 32 bits[%s(%d)]",
                  request.key.c_str());
    return AnswerError(session_id, kServerInternalError);
  }
  const auto size = static_cast<std::uint32_t>(object.size);
  range.end = range.end != 0 ? std::min(range.end, size) : size;
  const std::uint32_t length = range.end - range.begin;
  const bool picture = details::IsPicture(object);
  if (!picture && length > kLargestDownloadChunk) {
    return StartBigFileSend(session_id, object, range, length);
  }
  // Before the bytes are read: many clients that cannot be answered must not keep the storage busy.
  if (const int error = TansyNet::CHttpServer::ClaimAnswer(session_id, length); error != 0) {
    return error;
  }
  details::HostBuffer buffer;
  const int result = picture ? details::ReadPicture(buffer, request, object, range, length)
                             : details::ReadRange(request.config, buffer, length, range.begin,
                                                  details::LocationText(request.bucket, object.url));
  if (result != details::kStorageOk) {
    return std::nullopt;
  }
  if (!buffer.data) {
    return -1;  // not answered at all; the client's request times out
  }
  HttpResponse response;
  SetRspHeaders(response, kBytesContentType);
  response.headers["ETag"] = details::EntityTag(object);
  CLOUD_LOG_FOR(request.caller, logging::kNotable, "[%s]download file[%s:%s] success.[%s(%d)]", request.bucket.c_str(),
                request.key.c_str());
  return SendObjectMsgRsp(session_id, response, buffer.data.get(), buffer.size);
}

std::optional<int> CObjectServer::StartBigFileSend(std::int32_t session_id, const ObjectInfo& object,
                                                   const ByteRange& range, std::uint32_t length) {
  const std::shared_ptr<details::CReadLease> lease =
      details::CReadLease::Begin(details::LocationText(object.bucket_name, object.url), length, range.begin);
  if (!lease) {
    return std::nullopt;
  }
  const std::uint32_t chunk_size = details::CBigFileSendThreads::Instance().GetChunk();
  const std::uint32_t chunk_count = length / chunk_size + (length % chunk_size != 0 ? 1 : 0);
  const bool started = details::CBigFileSendThreads::Instance().Run([=, this] {
    try {
      HandleBigFileSend(chunk_count, chunk_size, session_id, object, range, length, *lease);
    } catch (const std::exception& error) {
      // Most likely memory ran out. The client gets an error answer or, once the head has been sent, its connection is
      // closed.
      CLOUD_LOG(logging::kError, "[%s]big file send failed[%s], object[%s].[%s(%d)]", error.what(),
                object.name.c_str());
      AnswerError(session_id, kServerInternalError);
    }
  });
  return started ? 0 : AnswerError(session_id, kServerInternalError);
}

void CObjectServer::SetDownloadChunk(std::uint32_t bytes) {
  details::CBigFileSendThreads::Instance().SetChunk(bytes);
}

bool CObjectServer::HandleBigFileSend(std::uint32_t chunk_count, std::uint32_t chunk_size, std::int32_t session_id,
                                      const ObjectInfo& object, const ByteRange& range, std::uint32_t total_length,
                                      details::CReadLease& lease) {
  const ConfigPointer config = conf_.Load();
  HttpResponse response;
  details::SetBigFileRspHeaders(response, kBytesContentType, range, object.size);
  response.headers["ETag"] = details::EntityTag(object);
  for (std::uint32_t i = 0; i < chunk_count; ++i) {
    const std::uint32_t done = i * chunk_size;
    const std::uint32_t wanted = std::min(chunk_size, total_length - done);
    TansyNet::CMemoryShare memory;
    details::HostBuffer chunk;
    const bool read = memory.ResizeWithin(wanted, details::kMemoryPatienceMs) &&
                      lease.Read(*config, chunk, wanted, range.begin + done) == details::kStorageOk;
    if (!read || !chunk.data || chunk.size < wanted) {
      // Fewer bytes than announced would leave the client waiting for the rest. Once the head is out, this second
      // answer makes the HTTP library close the connection, so that the client can tell.
      CLOUD_LOG(logging::kError, "[%s]download failed[%s][%s(%d)]", object.name.c_str());
      return AnswerError(session_id, kServerInternalError) == 0;
    }
    const int error =
        TansyNet::CHttpServer::HttpServerSyncSendBigRsp(session_id, response, wanted, chunk.data.get(), total_length);
    if (error != 0) {
      CLOUD_LOG(logging::kError, "[%s]HttpServerSynSend error, revalue = %d, handle = %d[%s(%d)]", error, session_id);
      return false;
    }
  }
  return true;
}

int CObjectServer::HandleRemoveObject(std::int32_t session_id, const ObjectRequest& request) {
  if (!CObjectStorageManager::Instance().RemoveObject(request.key, request.bucket)) {
    CLOUD_LOG(logging::kError, "[%s]object name not exist[%s][%s(%d)]", request.key.c_str());
    return AnswerError(session_id, kServerInternalError);
  }
  return AnswerXml(session_id, {});
}

int CObjectServer::HandleRemoveObjectFile(std::int32_t session_id, const ObjectRequest& request) {
  int file_error = 0;
  const auto remove_file = [&](const std::string& location) {
    file_error = details::RemoveStored(request.config, location);
    return file_error == 0;
  };
  if (CObjectStorageManager::Instance().RemoveObject(request.key, request.bucket, remove_file)) {
    return AnswerXml(session_id, {});
  }
  if (file_error != 0) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG(logging::kError, "[%s]download failed[%s][%s(%d)]", request.key.c_str());
    return AnswerError(session_id, file_error);
  }
  CLOUD_LOG(logging::kError, "[%s]object name not exist[%s][%s(%d)]", request.key.c_str());
  return AnswerError(session_id, kServerInternalError);
}

bool CObjectServer::GetInternalURLByObjectUrl(std::string& internal_url, const std::string& object_url) {
  std::string bucket;
  std::string key;
  if (!ParseUrl(bucket, key, object_url)) {
    CLOUD_LOG(logging::kError, "[%s]GetInternalURLByObjectUrl, parse url[%s] error[%s(%d)]", object_url.c_str());
    return false;
  }
  ObjectInfo object;
  if (!CObjectStorageManager::Instance().GetObjectByName(object, key, bucket)) {
    CLOUD_LOG(logging::kError, "[%s]GetInternalURLByObjectUrl, bucket[%s] or object[%s] not exist.[%s(%d)]",
              bucket.c_str(), key.c_str());
    return false;
  }
  if (details::IsPieceList(object.url)) {
    CLOUD_LOG(logging::kError, "[%s]object[%s] has no single location.[%s(%d)]", object_url.c_str());
    return false;
  }
  internal_url = object.url;
  return true;
}

int CObjectServer::CheckObjectRequestValid(std::string& internal_url, std::string& url, std::string& method,
                                           std::string& query, std::map<std::string, std::string>& headers) {
  HttpServerRecv msg;
  msg.url = url;
  msg.method = method;
  msg.query = query;
  msg.headers = headers;
  const ConfigPointer config = conf_.Load();
  ObjectRequest request(msg, *config);
  request.caller = CLOUD_LOG_CALLER;
  if (!ParseUrl(request.bucket, request.key, url)) {
    CLOUD_LOG(logging::kError, "[%s]invalid url[%s][%s(%d)]", url.c_str());
    return kInvalidHttpContent;
  }
  if (const int error = OpenToRead(request); error != 0) {
    return error;
  }
  if (details::IsPicture(request.object) || details::IsPieceList(request.object.url)) {
    return kUrlNotSupport;
  }
  internal_url = details::LocationText(request.bucket, request.object.url);
  CLOUD_LOG(logging::kNotable, "[%s]download file[%s:%s] success.[%s(%d)]", request.bucket.c_str(),
            request.key.c_str());
  return 0;
}

}  // namespace Tansy::CloudStorage
