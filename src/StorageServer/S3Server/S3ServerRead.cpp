// Reading objects.
#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerBigSend.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/S3Server/S3Body.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Parts.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/HttpDate.h"
#include "TansyBase/TimeUtil.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::CReadLease;
using CloudStorage::details::HostBuffer;
using CloudStorage::details::LocationText;

// Longer answers are sent in chunks on a thread of their own.
constexpr std::uint32_t kLongestWhole = 0xA00000;
constexpr std::uint32_t kMemoryPatienceMs = 20000;
constexpr const char* kDefaultContentType = "binary/octet-stream";

constexpr std::pair<std::string_view, const char*> kStandardHeaders[] = {
    {"cache-control", "Cache-Control"},       {"content-disposition", "Content-Disposition"},
    {"content-encoding", "Content-Encoding"}, {"content-language", "Content-Language"},
    {"content-type", "Content-Type"},         {"expires", "Expires"},
};

// Gives a header of the object as the answer has it: a parameter such as response-content-type goes first.
std::string HeaderOf(const Request& request, const FoundObject& object, std::string_view name) {
  // Most requests have no parameters, and most objects no headers.
  if (request.query.empty() && object.attributes.headers.empty()) {
    return {};
  }
  if (const std::string* const value = FindParameter(request.query, "response-" + std::string(name))) {
    return *value;
  }
  const auto found = object.attributes.headers.find(std::string(name));
  return found != object.attributes.headers.end() ? found->second : std::string();
}

TansyNet::HttpResponse ObjectResponse(const Request& request, const FoundObject& object, const AskedRange& range) {
  const bool is_part = range.kind == ERange::kPart;
  TansyNet::HttpResponse response = MakeResponse(request, is_part ? 206 : 200);
  for (const auto& [name, value] : object.attributes.headers) {
    if (name.starts_with("x-amz-meta-")) {
      response.headers[name] = value;
    }
  }
  for (const auto& [name, header] : kStandardHeaders) {
    if (std::string value = HeaderOf(request, object, name); !value.empty()) {
      response.headers[header] = std::move(value);
    }
  }
  response.headers.try_emplace("Content-Type", kDefaultContentType);
  response.headers["ETag"] = '"' + object.ETag() + '"';
  response.headers["Last-Modified"] = TansyBase::HttpDate::Format(object.modified, '0');
  response.headers["Accept-Ranges"] = "bytes";
  if (is_part) {
    response.headers["Content-Range"] = "bytes " + std::to_string(range.begin) + "-" +
                                        std::to_string(range.begin + range.length - 1) + "/" +
                                        std::to_string(object.info.size);
  }
  if (range.parts > 0) {
    response.headers["x-amz-mp-parts-count"] = std::to_string(range.parts);
  }
  return response;
}

// Says whether the object is the version that If-Range names, if it names one.
bool IsStillVersion(const std::string& if_range, const FoundObject& object) {
  if (if_range.empty()) {
    return true;
  }
  const VersionTags tags = object.Tags();
  return if_range == '"' + tags.etag + '"' || if_range == '"' + tags.stand_in + '"' ||
         TansyBase::HttpDate::Parse(if_range) == object.modified;
}

std::string WithoutBlanks(std::string text) {
  std::erase_if(text, [](char c) { return c == ' ' || c == '\t'; });
  return text;
}

void AnswerNotModified(const Request& request, const FoundObject& object) {
  AnswerEmpty(
      request, 304,
      {{"ETag", '"' + object.ETag() + '"'}, {"Last-Modified", TansyBase::HttpDate::Format(object.modified, '0')}});
}

}  // namespace

std::string FoundObject::ETag() const {
  return attributes.etag.empty() ? StandInTag() : attributes.etag;
}

std::string FoundObject::StandInTag() const {
  return StandInTagOf(info.url, info.size, info.update_time);
}

std::string StandInTagOf(std::string_view url, std::uint64_t size, std::string_view update_time) {
  // The text is different for other bytes, because the url names them; it is hashed, because the url is the host's
  // secret.
  std::string text(url);
  text.append("\n").append(std::to_string(size)).append("\n").append(update_time);
  return ToHex(DigestOf(EDigest::kMd5, text)) + "-1";
}

Failure CS3Server::FindObject(FoundObject& object, const std::string& bucket, const std::string& key) {
  auto& catalogue = CObjectStorageManager::Instance();
  const std::string name = NameOfKey(key);
  std::string attributes;
  const auto find = [&] { return catalogue.FindObjectOfKey(object.info, attributes, name, bucket); };
  if (!find() && !(catalogue.CatchUp() && find())) {
    Failure failure = EError::kNoSuchKey;
    failure.details.emplace_back("Key", key);
    return failure;
  }
  object.attributes = FromText(attributes);
  object.modified = TansyBase::TimeUtil::StrUTCDatetime2TimeT(object.info.update_time);
  return {};
}

Failure CS3Server::FindObject(FoundObject& object, const Request& request) {
  return FindObject(object, request.bucket, request.key);
}

// An object that was stored as a whole is its own first part.
Failure CS3Server::ReadAskedPart(AskedRange& range, const FoundObject& object, const Request& request) {
  std::uint32_t number = 0;
  if (Failure failure = ReadPartNumber(number, request.query)) {
    return failure;
  }
  if (!ValueOf(request.headers, "range").empty()) {
    return {EError::kInvalidRequest, "A request asks for a range or for a part, not for both."};
  }
  const CloudStorage::details::PieceList pieces = CloudStorage::details::ReadPieceList(object.info.url);
  if (number > std::max<std::size_t>(pieces.size(), 1)) {
    return EError::kInvalidPartNumber;
  }
  range.kind = object.info.size > 0 ? ERange::kPart : ERange::kWhole;
  range.parts = pieces.size();
  for (std::uint32_t i = 0; i + 1 < number; ++i) {
    range.begin += pieces[i].size;
  }
  range.length = pieces.empty() ? object.info.size : pieces[number - 1].size;
  const bool is_empty_part = range.length == 0 && object.info.size > 0;
  return is_empty_part ? Failure(EError::kInvalidPartNumber) : Failure();
}

Failure CS3Server::ReadAskedRange(AskedRange& range, const FoundObject& object, const Request& request) {
  if (FindParameter(request.query, "partNumber") != nullptr) {
    return ReadAskedPart(range, object, request);
  }
  range = IsStillVersion(ValueOf(request.headers, "if-range"), object)
              ? ReadRange(ValueOf(request.headers, "range"), object.info.size)
              : AskedRange{};
  if (range.kind == ERange::kUnsatisfied) {
    Failure failure = EError::kInvalidRange;
    failure.details.emplace_back("ActualObjectSize", std::to_string(object.info.size));
    return failure;
  }
  if (range.kind == ERange::kWhole) {
    range.begin = 0;
    range.length = object.info.size;
  }
  return {};
}

bool CS3Server::FindToSend(FoundObject& object, AskedRange& range, const Request& request) {
  Failure failure = FindObject(object, request);
  if (!failure && object.info.size > kMaxObjectBytes) {
    failure = EError::kInternalError;
  }
  if (!failure && object.attributes.etag.empty() && !FillInETag(object, request)) {
    return false;
  }
  const ECondition condition = failure || !HasConditions(request.headers)
                                   ? ECondition::kMet
                                   : CheckConditions(request.headers, object.Tags(), object.modified);
  if (condition == ECondition::kNotModified) {
    AnswerNotModified(request, object);
    return false;
  }
  if (condition == ECondition::kFailed) {
    failure = EError::kPreconditionFailed;
  }
  if (!failure) {
    failure = ReadAskedRange(range, object, request);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return false;
  }
  return true;
}

// What is known beside the bytes. The tag is the one of listings: nothing is read to make a better one.
void CS3Server::GetObjectAttributes(const Request& request) {
  FoundObject object;
  const std::string& asked = ValueOf(request.headers, "x-amz-object-attributes");
  Failure failure = FindObject(object, request);
  if (!failure && asked.empty()) {
    failure = {EError::kInvalidArgument, "The header x-amz-object-attributes must name what is asked for."};
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  const auto is_asked = [list = "," + WithoutBlanks(asked) + ","](const std::string& name) {
    return list.find("," + name + ",") != std::string::npos;
  };
  const std::size_t parts = CloudStorage::details::ReadPieceList(object.info.url).size();
  CXmlWriter xml;
  xml.OpenAnswer("GetObjectAttributesResponse");
  if (is_asked("ETag")) {
    xml.Element("ETag", object.ETag());
  }
  if (is_asked("ObjectParts") && parts > 0) {
    xml.Open("ObjectParts");
    xml.Element("PartsCount", std::uint64_t{parts});
    xml.Close("ObjectParts");
  }
  if (is_asked("StorageClass")) {
    xml.Element("StorageClass", "STANDARD");
  }
  if (is_asked("ObjectSize")) {
    xml.Element("ObjectSize", object.info.size);
  }
  xml.Close("GetObjectAttributesResponse");
  AnswerXml(request, xml.Take(), {{"Last-Modified", TansyBase::HttpDate::Format(object.modified, '0')}});
}

void CS3Server::GetObject(const Request& request) {
  request.method == "HEAD" ? SendHead(request) : SendBody(request);
}

void CS3Server::SendHead(const Request& request) {
  FoundObject object;
  AskedRange range;
  if (FindToSend(object, range, request)) {
    const TansyNet::HttpResponse response = ObjectResponse(request, object, range);
    TansyNet::CHttpServer::HttpServerSendHead(request.handle, response, range.length);
  }
}

// An object that was replaced after it was looked up may have lost its bytes; then its successor is sent.
void CS3Server::SendBody(const Request& request) {
  std::string failed_url;
  for (;;) {
    FoundObject object;
    AskedRange range;
    if (!FindToSend(object, range, request)) {
      return;
    }
    if (object.info.url == failed_url) {
      CLOUD_LOG(logging::kError, "[%s]download failed[%s][%s(%d)]", request.msg.url.c_str());
      AnswerFailure(request, EError::kInternalError);
      return;
    }
    if (Send(request, object, range)) {
      return;
    }
    failed_url = object.info.url;
    // A removal frees the bytes before the object is gone.
    ObjectInfo at_rest;
    CObjectStorageManager::Instance().GetObjectAtRest(at_rest, object.info.name, request.bucket);
  }
}

// Returns false when the first byte could not be read; the request must then still be answered.
bool CS3Server::Send(const Request& request, const FoundObject& object, const AskedRange& range) {
  const auto begin = static_cast<std::uint32_t>(range.begin);
  const auto length = static_cast<std::uint32_t>(range.length);
  const TansyNet::HttpResponse response = ObjectResponse(request, object, range);
  if (length > kLongestWhole) {
    return SendInChunks(request, object, response, begin, length);
  }
  if (length == 0) {
    TansyNet::CHttpServer::HttpServerSyncSend(request.handle, response, 0, "");
    return true;
  }
  if (TansyNet::CHttpServer::ClaimAnswer(request.handle, length) != 0) {
    return true;  // it is answered
  }
  HostBuffer buffer;
  const int result = CloudStorage::details::ReadRange(request.config, buffer, length, begin,
                                                      LocationText(request.bucket, object.info.url));
  if (result != 0 || !buffer.data || buffer.size != length) {
    return false;
  }
  TansyNet::CHttpServer::HttpServerSyncSend(request.handle, response, length, buffer.data.get());
  return true;
}

bool CS3Server::SendInChunks(const Request& request, const FoundObject& object, const TansyNet::HttpResponse& response,
                             std::uint32_t begin, std::uint32_t length) {
  const std::shared_ptr<CReadLease> lease =
      CReadLease::Begin(LocationText(request.bucket, object.info.url), length, begin);
  if (!lease) {
    return false;
  }
  const auto config = Instance().conf_.Load();
  const auto send = [=, handle = request.handle, url = request.msg.url] {
    const std::uint32_t chunk_size = CloudStorage::details::CBigFileSendThreads::Instance().GetChunk();
    for (std::uint32_t done = 0; done < length; done += std::min(chunk_size, length - done)) {
      const std::uint32_t wanted = std::min(chunk_size, length - done);
      TansyNet::CMemoryShare memory;
      HostBuffer chunk;
      const bool is_read = memory.ResizeWithin(wanted, kMemoryPatienceMs) &&
                           lease->Read(*config, chunk, wanted, begin + done) == 0 && chunk.data && chunk.size == wanted;
      if (!is_read) {
        // Once the head is out, this second answer makes the HTTP library close the connection, so that the client can
        // tell.
        CLOUD_LOG(logging::kError, "[%s]download failed[%s][%s(%d)]", url.c_str());
        Instance().EndRequest(handle, EError::kInternalError);
        return;
      }
      if (TansyNet::CHttpServer::HttpServerSyncSendBigRsp(handle, response, wanted, chunk.data.get(), length) != 0) {
        return;
      }
    }
  };
  const auto guarded = [send, handle = request.handle] {
    try {
      send();
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]big send failed[%s].[%s(%d)]", error.what());
      Instance().EndRequest(handle, EError::kInternalError);
    }
  };
  if (!CloudStorage::details::CBigFileSendThreads::Instance().Run(guarded)) {
    AnswerFailure(request, EError::kSlowDown);
  }
  return true;
}

}  // namespace Tansy::CloudStorage::S3
