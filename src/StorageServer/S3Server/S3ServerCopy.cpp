// Copies: of whole objects, and of ranges of objects as parts of an upload.
#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/HostBuffer.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3Conditions.h"
#include "StorageServer/S3Server/S3CopySource.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Parts.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3SlowAnswer.h"
#include "StorageServer/S3Server/S3Threads.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/Encrypt.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::CReadLease;
using CloudStorage::details::HostBuffer;
using CloudStorage::details::LocationText;
using EAdded = CObjectStorageManager::EAdded;

// What is longer is copied in chunks of this size.
constexpr std::uint32_t kChunkBytes = 4 * 1024 * 1024;
constexpr std::uint32_t kMemoryPatienceMs = 20000;
// A source or a target that other requests replace meanwhile is looked up again so often.
constexpr int kTries = 3;

// The bytes that are copied, and those of them that have been written.
class CCopy {
 public:
  CCopy(const S3ServerConfig& config, std::string bucket, std::optional<EDigest> checksum, CSlowAnswer& answer)
      : config_(config), bucket_(std::move(bucket)), answer_(answer) {
    if (checksum) {
      checksum_.emplace(*checksum);
    }
  }

  // kGivenUp: the servers are going down, or the client is gone, so that it is in vain to try again.
  enum class EOutcome { kDone, kFailed, kGivenUp };

  EOutcome Run(const FoundObject& source, std::uint32_t begin, std::uint32_t length) {
    const std::shared_ptr<CReadLease> lease =
        CReadLease::Begin(LocationText(source.info.bucket_name, source.info.url), length, begin);
    if (!lease) {
      return EOutcome::kFailed;
    }
    bool is_done = true;
    do {
      if (!answer_.GoOn()) {
        return EOutcome::kGivenUp;
      }
      is_done = CopyChunk(*lease, begin + done_, std::min(kChunkBytes, length - done_), length);
    } while (is_done && done_ < length);
    if (is_done) {
      return EOutcome::kDone;
    }
    return lease->Run([] {}) ? EOutcome::kFailed : EOutcome::kGivenUp;
  }

  // What the storage said when it refused bytes; 0 when it did not.
  int WriteResult() const { return write_result_; }

  StoredBody Take() {
    StoredBody body;
    body.url = url_;
    body.size = done_;
    body.md5 = ToHex(md5_.Finish());
    if (checksum_) {
      body.checksum = Checksum{checksum_->Kind(), TansyBase::Encrypt::Base64Encode(checksum_->Finish())};
    }
    return body;
  }

 private:
  bool CopyChunk(CReadLease& lease, std::uint32_t at, std::uint32_t wanted, std::uint32_t length) {
    TansyNet::CMemoryShare memory;
    HostBuffer chunk;
    if (wanted > 0 && (!memory.ResizeWithin(wanted, kMemoryPatienceMs) || lease.Read(config_, chunk, wanted, at) != 0 ||
                       !chunk.data || chunk.size != wanted)) {
      return false;
    }
    const std::string_view bytes(chunk.data.get(), wanted);
    md5_.Add(bytes);
    if (checksum_) {
      checksum_->Add(bytes);
    }
    bool is_written = false;
    return lease.Run([&] { is_written = Write(bytes, length); }) && is_written;
  }

  // What comes in one chunk is stored as a small body is.
  bool Write(std::string_view bytes, std::uint32_t length) {
    std::string location = LocationText(bucket_, url_);
    const int result = bytes.size() == length
                           ? CloudStorage::details::SaveObject(config_, location, bytes)
                           : CloudStorage::details::StreamSave(config_.stream_save, bytes, done_, location);
    if (result != 0) {
      write_result_ = result;
      return false;
    }
    url_ = std::move(location);
    done_ += static_cast<std::uint32_t>(bytes.size());
    return true;
  }

  const S3ServerConfig& config_;
  const std::string bucket_;
  CSlowAnswer& answer_;
  CDigest md5_{EDigest::kMd5};
  std::optional<CDigest> checksum_;
  std::string url_;
  std::uint32_t done_ = 0;
  int write_result_ = 0;
};

struct CopyRange {
  std::uint32_t begin = 0;
  std::uint32_t length = 0;
};

Failure FindRange(CopyRange& range, const FoundObject& source, const LowerHeaders& headers) {
  if (source.info.size > kMaxObjectBytes) {
    return EError::kInternalError;
  }
  std::uint64_t begin = 0;
  std::uint64_t length = source.info.size;
  Failure failure = ReadCopyRange(begin, length, ValueOf(headers, "x-amz-copy-source-range"), source.info.size);
  range.begin = static_cast<std::uint32_t>(begin);
  range.length = static_cast<std::uint32_t>(length);
  return failure;
}

void AnswerCopied(CSlowAnswer& answer, const char* element, const StoredBody& body, const std::string& time) {
  CXmlWriter xml;
  xml.OpenAnswer(element);
  xml.Element("LastModified", ListedTime(time));
  xml.Element("ETag", '"' + body.md5 + '"');
  if (body.checksum) {
    xml.Element(NamesOf(body.checksum->kind).element, body.checksum->value);
  }
  xml.Close(element);
  answer.SendXml(xml.Take());
}

Failure FailureOf(EAdded result, const Request& request) {
  switch (result) {
    case EAdded::kAdded:
      return {};
    case EAdded::kRefused:
      return EError::kPreconditionFailed;
    case EAdded::kFailed:
      break;
  }
  return CObjectStorageManager::Instance().IsBucketExist(request.bucket) ? EError::kInternalError
                                                                         : EError::kNoSuchBucket;
}

// The key has to be one that may read the source, too.
Failure CheckSourceAccess(const Request& request) {
  CopySource asked;
  const Failure failure = ReadCopySource(asked, ValueOf(request.headers, kCopySourceHeader));
  return failure ? failure : CheckAccess(request.signer, EAccess::kRead, asked.bucket);
}

}  // namespace

void CS3Server::CopyObject(const Request& request) {
  const bool is_part = IsPart(request);
  FoundObject source;
  CopyRange range;
  Failure failure = CheckUpload(request);
  if (!failure) {
    failure = CheckSourceAccess(request);
  }
  if (!failure) {
    failure = FindSource(source, request);
  }
  if (!failure && is_part) {
    failure = FindRange(range, source, request.headers);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  if (!RunApart(request, &CS3Server::CopyNow)) {
    AnswerFailure(request, EError::kSlowDown);
  }
}

// Copies wait for memory and for the storage, so they do it on threads on which no other client depends. Everything
// that the request refers to is copied.
bool CS3Server::RunApart(const Request& request, void (*handler)(const Request&)) {
  const auto run = [handler, msg = std::make_shared<TansyNet::HttpServerRecv>(request.msg),
                    config = Instance().conf_.Load(), handle = request.handle, id = request.id] {
    try {
      Request apart(handle, *msg, *config);
      apart.id = id;
      handler(apart);
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]copy failed[%s].[%s(%d)]", error.what());
      Instance().EndRequest(handle, EError::kInternalError);
    }
  };
  return CCopyThreads::Instance().Run(run);
}

void CS3Server::CopyNow(const Request& request) {
  const bool is_part = IsPart(request);
  StoredBody body;
  std::string time = NowText();
  CSlowAnswer answer(request);
  const Failure failure = is_part ? CopyToPart(body, request, answer) : CopyToObject(body, time, request, answer);
  if (failure) {
    answer.SendFailure(failure);
    return;
  }
  AnswerCopied(answer, is_part ? "CopyPartResult" : "CopyObjectResult", body, time);
}

Failure CS3Server::FindSource(FoundObject& source, const Request& request) {
  CopySource asked;
  if (Failure failure = ReadCopySource(asked, ValueOf(request.headers, kCopySourceHeader))) {
    return failure;
  }
  if (!CObjectStorageManager::Instance().IsBucketExist(asked.bucket)) {
    Failure failure = EError::kNoSuchBucket;
    failure.details.emplace_back("BucketName", asked.bucket);
    return failure;
  }
  if (Failure failure = FindObject(source, asked.bucket, asked.key)) {
    return failure;
  }
  const bool is_wanted =
      CheckConditions(SourceConditions(request.headers), source.Tags(), source.modified) == ECondition::kMet;
  return is_wanted ? Failure() : EError::kPreconditionFailed;
}

// A source that is replaced while it is read may have lost its bytes; then its successor is copied.
Failure CS3Server::CopyBytes(StoredBody& body, FoundObject& source, const Request& request,
                             std::optional<EDigest> checksum, CSlowAnswer& answer) {
  for (std::string failed_url;;) {
    CopyRange range;
    Failure failure = FindSource(source, request);
    if (!failure) {
      failure = FindRange(range, source, request.headers);
    }
    if (failure) {
      return failure;
    }
    CCopy copy(request.config, request.bucket, checksum, answer);
    const auto outcome =
        source.info.url != failed_url ? copy.Run(source, range.begin, range.length) : CCopy::EOutcome::kGivenUp;
    if (outcome == CCopy::EOutcome::kDone) {
      body = copy.Take();
      return {};
    }
    if (outcome == CCopy::EOutcome::kGivenUp || copy.WriteResult() != 0) {
      CLOUD_LOG(logging::kError, "[%s]copy failed[%s][%s(%d)]", request.msg.url.c_str());
      return copy.WriteResult() != 0 ? StorageFailure(copy.WriteResult()) : Failure(EError::kInternalError);
    }
    failed_url = source.info.url;
    // A removal frees the bytes before the object is gone.
    ObjectInfo at_rest;
    CObjectStorageManager::Instance().GetObjectAtRest(at_rest, source.info.name, source.info.bucket_name);
  }
}

Failure CS3Server::CopyToPart(StoredBody& body, const Request& request, CSlowAnswer& answer) {
  PartUpload upload;
  if (Failure failure = FindUpload(upload, request)) {
    return failure;
  }
  const Attributes attributes = FromText(upload.attributes);
  const auto algorithm = attributes.headers.find(kChecksumAlgorithm);
  FoundObject source;
  Failure failure = CopyBytes(
      body, source, request,
      algorithm != attributes.headers.end() ? ChecksumOfAlgorithm(algorithm->second) : std::optional<EDigest>(),
      answer);
  return failure ? failure : AddPart(body, request);
}

Failure CS3Server::CopyToObject(StoredBody& body, std::string& time, const Request& request, CSlowAnswer& answer) {
  FoundObject source;
  Failure failure = FindSource(source, request);
  EMetadata metadata{};
  if (!failure) {
    failure = ReadMetadataDirective(metadata, request.headers);
  }
  if (failure) {
    return failure;
  }
  const bool is_itself = source.info.bucket_name == request.bucket && KeyOfName(source.info.name) == request.key;
  if (is_itself) {
    // There is one class of storage, so that a copy to another one changes nothing.
    const bool has_purpose = metadata == EMetadata::kReplace || request.headers.contains("x-amz-storage-class");
    return has_purpose
               ? ReplaceAttributes(body, time, metadata, request)
               : Failure(EError::kInvalidRequest, "An object can be copied to itself only to replace its metadata.");
  }
  failure = CopyBytes(body, source, request, std::nullopt, answer);
  Attributes attributes = source.attributes;
  if (!failure && metadata == EMetadata::kReplace) {
    attributes = {};
    failure = TakeHeaders(attributes, request.headers);
  }
  if (failure) {
    return failure;
  }
  attributes.headers.erase(kChecksumType);  // it was about the parts of the source
  attributes.etag = body.md5;
  time = NowText();
  ObjectInfo object;
  object.bucket_name = request.bucket;
  object.name = NameOfKey(request.key);
  object.size = body.size;
  object.url = body.url;
  object.update_time = time;
  return FailureOf(AddAndWait(object, attributes, ConditionsOf(request.headers)), request);
}

// The bytes stay where they are. They must be those of the object that was looked at.
Failure CS3Server::ReplaceAttributes(StoredBody& body, std::string& time, EMetadata metadata, const Request& request) {
  Attributes attributes;
  if (Failure failure = TakeHeaders(attributes, request.headers)) {
    return failure;
  }
  bool is_unread = false;
  for (int left = kTries; left > 0; --left) {
    FoundObject source;
    if (Failure failure = FindSource(source, request)) {
      return failure;
    }
    if (metadata == EMetadata::kCopy) {
      attributes = source.attributes;
    }
    // A tag that is kept has to be the digest of the bytes, and not what stands for it until it is known.
    body.md5 = source.attributes.etag.empty() ? Md5OfBytes(request.config, source.info) : source.attributes.etag;
    is_unread = body.md5.empty();
    if (is_unread) {
      continue;  // it may be another one by now
    }
    attributes.etag = body.md5;
    time = NowText();
    ObjectInfo object = source.info;
    object.name = NameOfKey(request.key);
    object.update_time = time;
    bool is_changed = false;
    const auto may_add = [&, conditions = ConditionsOf(request.headers)](const ObjectInfo* there,
                                                                         const std::string& text) {
      is_changed = there == nullptr || there->url != source.info.url;
      return !is_changed && (!conditions || conditions(there, text));
    };
    const EAdded result = AddAndWait(object, attributes, may_add);
    if (!is_changed) {
      return FailureOf(result, request);
    }
  }
  return is_unread ? EError::kInternalError : EError::kSlowDown;
}

}  // namespace Tansy::CloudStorage::S3
