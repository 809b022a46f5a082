// Storing and removing objects.
#include <cstddef>
#include <cstring>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3Body.h"
#include "StorageServer/S3Server/S3Conditions.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlRequests.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/MessageLoop.h"
#include "TansyBase/TimeUtil.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::CBigFileStreamMgr;
using CloudStorage::details::StreamEnd;

std::uint32_t StreamId(std::int32_t handle) {
  return static_cast<std::uint32_t>(handle);
}

// The record of an upload that arrives in pieces, up to the end of a block. Once it is removed, further pieces are
// ignored.
class CUploadEnd : private TansyBase::CNoncopyable {
 public:
  explicit CUploadEnd(std::int32_t handle) : handle_(handle) {}
  ~CUploadEnd() {
    CUploads::Instance().Remove(handle_);
    CBigFileStreamMgr::Instance().EndStream(StreamId(handle_), StreamEnd::kAnswered);
  }

 private:
  const std::int32_t handle_;
};

// Takes the bytes of a delivery, and gives them without their encoding. Decoded bytes take the place of the encoded
// ones, which are more, so that the threads on which all clients depend need no further memory for them.
Failure TakeBytes(std::string_view& plain, TansyNet::HttpServerRecv& msg, CBody& body) {
  plain = {};
  if (msg.body == nullptr) {
    return {};
  }
  if (!body.IsChunked()) {
    plain = *msg.body;
    return body.Add(plain, [](std::string_view) {});
  }
  std::string& place = *msg.OwnBody();
  std::size_t end = 0;
  Failure failure = body.Add(place, [&](std::string_view decoded) {
    std::memmove(place.data() + end, decoded.data(), decoded.size());
    end += decoded.size();
  });
  plain = std::string_view(place).substr(0, end);
  return failure;
}

EError RemoveKeys(const std::vector<std::string>& names, const std::string& bucket,
                  const CObjectStorageManager::MayAdd& may_remove) {
  using ERemoved = CObjectStorageManager::ERemoved;
  switch (CObjectStorageManager::Instance().RemoveKeys(names, bucket, may_remove)) {
    case ERemoved::kRemoved:
      return EError::kNone;
    case ERemoved::kRefused:
      return EError::kPreconditionFailed;
    case ERemoved::kFailed:
      break;
  }
  return EError::kInternalError;
}

// Removes the keys of a list, many in one commit, and says what became of each.
std::vector<EError> RemoveListed(const std::vector<KeyToDelete>& keys, const std::string& bucket) {
  std::vector<EError> outcomes(keys.size(), EError::kNone);
  std::vector<std::string> group;
  std::vector<std::size_t> places;  // of the group's keys in the list
  const auto remove_group = [&] {
    const EError outcome = group.empty() ? EError::kNone : RemoveKeys(group, bucket, {});
    for (const std::size_t place : places) {
      outcomes[place] = outcome;
    }
    group.clear();
    places.clear();
  };
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const KeyToDelete& key = keys[i];
    if ((!key.version.empty() && key.version != "null") || key.has_other_conditions) {
      outcomes[i] = EError::kNotImplemented;
    } else if (!key.etag.empty()) {
      outcomes[i] = RemoveKeys({NameOfKey(key.key)}, bucket, ConditionsOf({{"if-match", key.etag}}));
    } else {
      group.push_back(NameOfKey(key.key));
      places.push_back(i);
    }
    if (group.size() == CObjectStorageManager::kKeysAtOnce) {
      remove_group();
    }
  }
  remove_group();
  return outcomes;
}

}  // namespace

CObjectStorageManager::MayAdd ConditionsOf(const LowerHeaders& headers) {
  if (headers.find("if-match") == headers.end() && headers.find("if-none-match") == headers.end()) {
    return {};
  }
  return [headers](const ObjectInfo* there, const std::string& attributes) {
    if (there == nullptr) {
      return MayWrite(headers, nullptr);
    }
    const FoundObject object = {*there, FromText(attributes)};
    const VersionTags tags = object.Tags();
    return MayWrite(headers, &tags);
  };
}

CObjectStorageManager::EAdded AddAndWait(const ObjectInfo& object, const Attributes& attributes,
                                         const CObjectStorageManager::MayAdd& may_add) {
  using EAdded = CObjectStorageManager::EAdded;
  const auto result = std::make_shared<std::promise<EAdded>>();
  std::future<EAdded> added = result->get_future();
  CObjectStorageManager::Instance().AddObject(object, {{}, ToText(attributes)}, may_add,
                                              [result](EAdded value) { result->set_value(value); });
  const TansyBase::CBlockingScope blocking;
  return added.get();
}

Failure StorageFailure(int result) {
  return result == CloudStorage::details::kStorageFull ? EError::kNotEnoughSpace : EError::kInternalError;
}

std::string NowText() {
  return TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
}

Failure CS3Server::ReadBody(std::string_view& body, const Request& request, const LowerHeaders& headers) {
  CBody decoder;
  Failure failure = decoder.Begin(request.signature, headers);
  if (!failure) {
    failure = TakeBytes(body, request.msg, decoder);
  }
  return failure ? failure : decoder.End();
}

Failure CS3Server::CheckPut(const Request& request) {
  if (!CObjectStorageManager::Instance().IsBucketExist(request.bucket)) {
    return EError::kNoSuchBucket;
  }
  if (request.key.size() > kMaxKeyBytes) {
    return EError::kKeyTooLong;
  }
  Attributes attributes;
  Failure failure = TakeHeaders(attributes, request.headers);
  return failure ? failure : CheckUnsupportedHeaders(request.headers);
}

void CS3Server::PutObject(const Request& request) {
  StoredBody body;
  Failure failure = CheckPut(request);
  if (!failure) {
    failure = ReceiveWhole(body, request);
  }
  if (!failure) {
    failure = AddObject(body, request, nullptr);
  }
  if (failure) {
    AnswerFailure(request, failure);
  }
}

Failure CS3Server::ReceiveWhole(StoredBody& body, const Request& request) {
  CBody decoder;
  std::string_view bytes;
  Failure failure = decoder.Begin(request.signature, request.headers);
  if (!failure) {
    failure = TakeBytes(bytes, request.msg, decoder);
  }
  if (!failure) {
    failure = decoder.End();
  }
  if (failure) {
    return failure;
  }
  body.url = CloudStorage::details::LocationText(request.bucket);
  if (const int result = CloudStorage::details::SaveObject(request.config, body.url, bytes); result != 0) {
    CLOUD_LOG(logging::kError, "[%s]upload failed[%s], result = %d.[%s(%d)]", request.msg.url.c_str(), result);
    return StorageFailure(result);
  }
  body.size = bytes.size();
  body.md5 = decoder.Md5();
  body.checksum = decoder.NamedChecksum();
  return {};
}

Failure CS3Server::StoreBytes(TansyNet::HttpServerRecv& msg, std::int32_t handle, Upload& upload,
                              const std::string& bucket) {
  std::string_view bytes;
  if (Failure failure = TakeBytes(bytes, msg, upload.body)) {
    return failure;
  }
  int result = CloudStorage::details::kStorageOk;
  const bool is_stored =
      bytes.empty() || CBigFileStreamMgr::Instance().UploadStream(
                           StreamId(handle), bytes.data(), static_cast<std::uint32_t>(bytes.size()), bucket, &result);
  return is_stored ? Failure() : StorageFailure(result);
}

void CS3Server::StorePiece(std::int32_t handle, TansyNet::HttpServerRecv& msg) {
  const std::shared_ptr<Upload> upload = CUploads::Instance().Find(handle);
  if (upload == nullptr) {
    return;
  }
  const auto config = conf_.Load();
  Request request(handle, msg, *config);
  request.id = upload->request_id;
  StoredBody body;
  Failure failure = StoreBytes(msg, handle, *upload, request.bucket);
  if (!failure && msg.error_code != TansyNet::kLastBodyPiece) {
    return;
  }
  // Until the row is there, the record says that the bytes belong to an upload.
  auto end = std::make_shared<const CUploadEnd>(handle);
  if (!failure) {
    failure = ReceiveStream(body, *upload, request);
  }
  const bool is_part = IsPart(request);
  if (!failure) {
    failure = is_part ? AddPart(body, request) : AddObject(body, request, std::move(end));
  }
  end.reset();
  if (failure) {
    AnswerFailure(request, failure);
  } else if (is_part) {
    AnswerPart(request, body);
  }
}

Failure CS3Server::ReceiveStream(StoredBody& body, Upload& upload, const Request& request) {
  if (Failure failure = upload.body.End()) {
    return failure;
  }
  ObjectInfo stored;
  if (!CBigFileStreamMgr::Instance().GetStreamInfo(stored, StreamId(request.handle)) ||
      stored.size != upload.body.Size() || stored.url.empty()) {
    return EError::kInternalError;
  }
  body.url = stored.url;
  body.size = stored.size;
  body.md5 = upload.body.Md5();
  body.checksum = upload.body.NamedChecksum();
  return {};
}

Failure CS3Server::AddObject(const StoredBody& body, const Request& request, std::shared_ptr<const void> upload) {
  Attributes attributes;
  attributes.etag = body.md5;
  if (Failure failure = TakeHeaders(attributes, request.headers)) {
    return failure;
  }
  ObjectInfo object;
  object.bucket_name = request.bucket;
  object.name = NameOfKey(request.key);
  object.size = body.size;
  object.url = body.url;
  object.update_time = NowText();
  // While the database commits, this thread goes on with other requests, whose rows make up the next commit.
  CObjectStorageManager::Instance().AddObject(
      object, {{}, ToText(attributes)}, ConditionsOf(request.headers),
      [to = Recipient(request), bucket = request.bucket, etag = body.md5,
       upload = std::move(upload)](CObjectStorageManager::EAdded result) mutable {
        upload.reset();
        AnswerPut(to, bucket, etag, result);
      });
  return {};
}

void CS3Server::AnswerPut(const Recipient& to, const std::string& bucket, const std::string& etag,
                          CObjectStorageManager::EAdded result) noexcept {
  using EAdded = CObjectStorageManager::EAdded;
  try {
    if (result == EAdded::kAdded) {
      AnswerEmpty(to, 200, {{"ETag", '"' + etag + '"'}});
    } else if (result == EAdded::kRefused) {
      AnswerFailure(to, EError::kPreconditionFailed);
    } else {
      const bool has_bucket = CObjectStorageManager::Instance().IsBucketExist(bucket);
      AnswerFailure(to, has_bucket ? EError::kInternalError : EError::kNoSuchBucket);
    }
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]answer failed[%s], handle = %d[%s(%d)]", error.what(), to.handle);
    Instance().EndRequest(to.handle, ErrorOf(error));
  }
}

void CS3Server::DeleteObject(const Request& request) {
  EError outcome = EError::kNone;
  if (request.headers.contains("x-amz-if-match-last-modified-time") ||
      request.headers.contains("x-amz-if-match-size")) {
    outcome = EError::kNotImplemented;  // not asking would remove what the client wants to keep
  } else {
    outcome = RemoveKeys({NameOfKey(request.key)}, request.bucket, ConditionsOf(request.headers));
  }
  if (outcome != EError::kNone) {
    AnswerFailure(request, outcome);
    return;
  }
  AnswerEmpty(request, 204);
}

void CS3Server::DeleteObjects(const Request& request) {
  std::string_view body;
  DeleteRequest list;
  Failure failure = ReadBody(body, request, request.headers);
  if (!failure) {
    failure = ReadDeleteRequest(list, body);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  const std::vector<EError> outcomes = RemoveListed(list.keys, request.bucket);
  CXmlWriter xml;
  xml.OpenAnswer("DeleteResult");
  for (std::size_t i = 0; i < list.keys.size(); ++i) {
    const bool is_gone = outcomes[i] == EError::kNone;
    if (is_gone && list.is_quiet) {
      continue;
    }
    xml.Open(is_gone ? "Deleted" : "Error");
    xml.Element("Key", list.keys[i].key);
    if (!is_gone) {
      xml.Element("Code", NameOf(outcomes[i]));
      xml.Element("Message", MessageOf(outcomes[i]));
    }
    xml.Close(is_gone ? "Deleted" : "Error");
  }
  xml.Close("DeleteResult");
  AnswerXml(request, xml.Take());
}

}  // namespace Tansy::CloudStorage::S3
