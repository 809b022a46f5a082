// Uploads in parts. A part is stored once and its row is written; the completed object refers to its parts.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3ChecksumNames.h"
#include "StorageServer/S3Server/S3Listing.h"
#include "StorageServer/S3Server/S3Parts.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlRequests.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using EAdded = CObjectStorageManager::EAdded;
using EFound = CPartUploads::EFound;

constexpr std::uint64_t kMostListed = 1000;
// Behind a common prefix there is often another one, which needs one upload only.
constexpr std::size_t kUploadsBehindAPrefix = 8;
// A completion is tried again so often when its parts change while it is under way.
constexpr int kTries = 3;

std::string UploadId(const Request& request) {
  return ParameterOrEmpty(request.query, "uploadId");
}

Failure NoSuchUpload(const Request& request) {
  Failure failure = EError::kNoSuchUpload;
  failure.details.emplace_back("UploadId", UploadId(request));
  return failure;
}

std::string NewUploadId() {
  std::string id = TansyBase::GuidUtil::CreateGuid();
  std::erase(id, '-');
  return id;
}

Failure TakeAlgorithm(Attributes& attributes, const LowerHeaders& headers) {
  const std::string& type = ValueOf(headers, kChecksumType);
  const std::string& algorithm = ValueOf(headers, kChecksumAlgorithm);
  if (algorithm.empty()) {
    return type.empty() ? Failure() : Failure(EError::kInvalidRequest, "x-amz-checksum-type needs an algorithm.");
  }
  const std::optional<EDigest> kind = ChecksumOfAlgorithm(algorithm);
  if (!kind) {
    return {EError::kInvalidRequest, "Checksum algorithm provided is unsupported."};
  }
  const bool is_digest = kind == EDigest::kSha1 || kind == EDigest::kSha256;
  const bool is_type =
      type.empty() || (type == kOfAllBytes && !is_digest) || (type == kOfParts && kind != EDigest::kCrc64Nvme);
  if (!is_type) {
    return {EError::kInvalidRequest,
            "The " + type + " checksum type cannot be used with the " + algorithm + " checksum algorithm."};
  }
  attributes.headers[kChecksumAlgorithm] = algorithm;
  const bool is_of_all_bytes = type == kOfAllBytes || kind == EDigest::kCrc64Nvme;
  attributes.headers[kChecksumType] = is_of_all_bytes ? kOfAllBytes : kOfParts;
  return {};
}

// The headers of a completion without those that are about the object and not about the body.
LowerHeaders WithoutChecksums(const LowerHeaders& headers) {
  LowerHeaders others = headers;
  std::erase_if(others, [](const auto& header) { return ChecksumKind(header.first).has_value(); });
  return others;
}

// Compares the checksum that a completion names with that of the object.
Failure CheckWholeChecksum(const LowerHeaders& headers, const CompletedUpload& completed) {
  for (const auto& [name, value] : headers) {
    const std::optional<EDigest> kind = ChecksumKind(name);
    if (!kind) {
      continue;
    }
    const std::optional<Checksum>& known =
        value.find('-') == std::string::npos ? completed.of_bytes : completed.of_parts;
    if (!known || known->kind != *kind) {
      return {EError::kInvalidRequest, "The parts do not have the checksums that " + name + " could be compared with."};
    }
    if (known->value != value) {
      return {EError::kBadDigest, "The object does not have the checksum in " + name + "."};
    }
  }
  return {};
}

// Reads a parameter that is a number; one that is greater than `most` counts as that.
Failure ReadNumber(std::uint64_t& number, const Query& query, const std::string& name, std::uint64_t most) {
  const std::string text = ParameterOrEmpty(query, name);
  if (!text.empty() && !ParseDecimal(text, number)) {
    return {EError::kInvalidArgument, name + " must be a number that is not negative."};
  }
  number = std::min(number, most);
  return {};
}

void WriteOwner(CXmlWriter& xml, const char* role) {
  xml.Open(role);
  xml.Element("ID", kOwner);
  xml.Element("DisplayName", kOwner);
  xml.Close(role);
}

void WriteChecksum(CXmlWriter& xml, const std::optional<Checksum>& checksum) {
  if (checksum) {
    xml.Element(NamesOf(checksum->kind).element, checksum->value);
  }
}

void AnswerCompleted(const Request& request, const CompletedUpload& completed) {
  const bool is_of_all_bytes = completed.checksum_type == kOfAllBytes;
  const std::optional<Checksum>& checksum = is_of_all_bytes ? completed.of_bytes : completed.of_parts;
  CXmlWriter xml;
  xml.OpenAnswer("CompleteMultipartUploadResult");
  xml.Element("Location", "/" + PercentEncode(request.bucket) + "/" + PercentEncodePath(request.key));
  xml.Element("Bucket", request.bucket);
  xml.Element("Key", request.key);
  xml.Element("ETag", '"' + completed.etag + '"');
  WriteChecksum(xml, checksum);
  if (checksum) {
    xml.Element("ChecksumType", is_of_all_bytes ? kOfAllBytes : kOfParts);
  }
  xml.Close("CompleteMultipartUploadResult");
  AnswerXml(request, xml.Take());
}

// The uploads of a bucket in the order of their keys, read page by page.
class CUploadsInOrder {
 public:
  CUploadsInOrder(std::string bucket, std::size_t page) : bucket_(std::move(bucket)), page_(page) {}

  // Asks for at most so many uploads from now on.
  void SetPage(std::size_t page) { page_ = page; }

  // Goes on with the first upload whose key and id are beyond these.
  void GoBeyond(std::string_view key, std::string id) {
    after_key_ = ToHex(key);
    after_id_ = std::move(id);
    uploads_.clear();
    next_ = 0;
    is_end_ = false;
  }
  // Goes on with the first upload of this key or a later one.
  void GoTo(std::string_view key) { GoBeyond(key, {}); }

  // Gives null at the end, or when the database fails.
  const PartUpload* Next() {
    if (next_ == uploads_.size() && !is_end_) {
      uploads_.clear();
      next_ = 0;
      has_failed_ = !CPartUploads::List(uploads_, bucket_, after_key_, after_id_, page_);
      is_end_ = has_failed_ || uploads_.size() < page_;
    }
    if (next_ == uploads_.size()) {
      return nullptr;
    }
    const PartUpload& upload = uploads_[next_++];
    after_key_ = upload.sort_key;
    after_id_ = upload.id;
    return &upload;
  }
  bool HasFailed() const { return has_failed_; }

 private:
  const std::string bucket_;
  std::size_t page_;
  std::string after_key_;
  std::string after_id_;
  std::vector<PartUpload> uploads_;
  std::size_t next_ = 0;
  bool is_end_ = false;
  bool has_failed_ = false;
};

struct UploadListRequest {
  std::string prefix;
  std::string delimiter;
  std::string key_marker;
  std::string id_marker;
  std::uint64_t most = kMostListed;
  bool is_encoded = false;

  // Gives the beginning of a key that it shares with others of the listing; empty when it stands for itself.
  std::string CommonPrefix(const std::string& key) const {
    const std::size_t end = delimiter.empty() ? std::string::npos : key.find(delimiter, prefix.size());
    return end == std::string::npos ? std::string() : key.substr(0, end + delimiter.size());
  }
};

struct UploadListing {
  std::vector<PartUpload> uploads;
  std::vector<std::string> prefixes;
  std::string next_key;  // where the next listing goes on
  std::string next_id;
  bool is_truncated = false;
};

Failure ReadListRequest(UploadListRequest& list, const Query& query) {
  list.prefix = ParameterOrEmpty(query, "prefix");
  list.delimiter = ParameterOrEmpty(query, "delimiter");
  list.key_marker = ParameterOrEmpty(query, "key-marker");
  list.id_marker = ParameterOrEmpty(query, "upload-id-marker");
  Failure failure = ReadNumber(list.most, query, "max-uploads", kMostListed);
  const std::string encoding = ParameterOrEmpty(query, "encoding-type");
  list.is_encoded = encoding == "url";
  if (!failure && !encoding.empty() && !list.is_encoded) {
    failure = {EError::kInvalidArgument, "The only encoding-type is url."};
  }
  return failure;
}

// Returns false when nothing can follow.
bool GoToStart(CUploadsInOrder& uploads, const UploadListRequest& list) {
  const std::string& marker = list.key_marker;
  if (marker < list.prefix || marker.empty()) {
    uploads.GoTo(list.prefix);
  } else if (marker.starts_with(list.prefix) && list.CommonPrefix(marker) == marker) {
    const std::optional<std::string> beyond = Beyond(marker);
    if (!beyond) {
      return false;
    }
    uploads.GoTo(*beyond);
  } else {
    // No id is greater than "~", so that without a marker all uploads of the key are left out.
    uploads.GoBeyond(marker, list.id_marker.empty() ? "~" : list.id_marker);
  }
  return true;
}

bool ListUploads(UploadListing& listing, const UploadListRequest& list, const std::string& bucket) {
  CUploadsInOrder uploads(bucket, list.most + 1);
  bool goes_on = list.most > 0 && GoToStart(uploads, list);
  while (goes_on) {
    const PartUpload* const upload = uploads.Next();
    const std::string key = upload != nullptr ? KeyOfName(upload->object_name) : std::string();
    if (upload == nullptr || !key.starts_with(list.prefix)) {
      break;
    }
    if (listing.uploads.size() + listing.prefixes.size() == list.most) {
      listing.is_truncated = true;
      break;
    }
    const std::string prefix = list.CommonPrefix(key);
    if (prefix.empty()) {
      listing.next_key = key;
      listing.next_id = upload->id;
      listing.uploads.push_back(*upload);
      continue;
    }
    listing.next_key = prefix;
    listing.next_id.clear();
    listing.prefixes.push_back(prefix);
    const std::optional<std::string> beyond = Beyond(prefix);
    goes_on = beyond.has_value();
    uploads.SetPage(kUploadsBehindAPrefix);
    uploads.GoTo(beyond.value_or(std::string()));
  }
  return !uploads.HasFailed();
}

std::string UploadListXml(const UploadListRequest& list, const UploadListing& listing, const std::string& bucket) {
  const auto shown = [&list](const std::string& text) { return list.is_encoded ? PercentEncodePath(text) : text; };
  CXmlWriter xml;
  xml.OpenAnswer("ListMultipartUploadsResult");
  xml.Element("Bucket", bucket);
  xml.Element("KeyMarker", shown(list.key_marker));
  xml.Element("UploadIdMarker", list.id_marker);
  if (listing.is_truncated) {
    xml.Element("NextKeyMarker", shown(listing.next_key));
    xml.Element("NextUploadIdMarker", listing.next_id);
  }
  xml.Element("Prefix", shown(list.prefix));
  if (!list.delimiter.empty()) {
    xml.Element("Delimiter", shown(list.delimiter));
  }
  if (list.is_encoded) {
    xml.Element("EncodingType", "url");
  }
  xml.Element("MaxUploads", list.most);
  xml.Element("IsTruncated", listing.is_truncated);
  for (const PartUpload& upload : listing.uploads) {
    xml.Open("Upload");
    xml.Element("Key", shown(KeyOfName(upload.object_name)));
    xml.Element("UploadId", upload.id);
    WriteOwner(xml, "Initiator");
    WriteOwner(xml, "Owner");
    xml.Element("StorageClass", "STANDARD");
    xml.Element("Initiated", ListedTime(upload.begun));
    xml.Close("Upload");
  }
  for (const std::string& prefix : listing.prefixes) {
    xml.Open("CommonPrefixes");
    xml.Element("Prefix", shown(prefix));
    xml.Close("CommonPrefixes");
  }
  xml.Close("ListMultipartUploadsResult");
  return xml.Take();
}

std::string PartListXml(const Request& request, const std::vector<UploadedPart>& parts, std::uint64_t after,
                        std::uint64_t most, bool is_truncated) {
  const bool is_encoded = ParameterOrEmpty(request.query, "encoding-type") == "url";
  CXmlWriter xml;
  xml.OpenAnswer("ListPartsResult");
  xml.Element("Bucket", request.bucket);
  xml.Element("Key", is_encoded ? PercentEncodePath(request.key) : request.key);
  xml.Element("UploadId", UploadId(request));
  WriteOwner(xml, "Initiator");
  WriteOwner(xml, "Owner");
  xml.Element("StorageClass", "STANDARD");
  xml.Element("PartNumberMarker", after);
  if (is_truncated) {
    xml.Element("NextPartNumberMarker", std::uint64_t{parts.back().number});
  }
  xml.Element("MaxParts", most);
  xml.Element("IsTruncated", is_truncated);
  for (const UploadedPart& part : parts) {
    const PartDigests digests = PartDigestsOf(part);
    xml.Open("Part");
    xml.Element("PartNumber", std::uint64_t{part.number});
    xml.Element("LastModified", ListedTime(part.update_time));
    xml.Element("ETag", '"' + digests.etag + '"');
    xml.Element("Size", std::uint64_t{part.size});
    WriteChecksum(xml, digests.checksum);
    xml.Close("Part");
  }
  xml.Close("ListPartsResult");
  return xml.Take();
}

}  // namespace

bool CS3Server::IsPart(const Request& request) {
  return FindParameter(request.query, "partNumber") != nullptr || FindParameter(request.query, "uploadId") != nullptr;
}

Failure CS3Server::FindUpload(PartUpload& upload, const Request& request) {
  switch (CPartUploads::Find(upload, UploadId(request), request.bucket, NameOfKey(request.key))) {
    case EFound::kFound:
      return {};
    case EFound::kMissing:
      return NoSuchUpload(request);
    case EFound::kFailed:
      break;
  }
  return EError::kInternalError;
}

void CS3Server::CreateMultipartUpload(const Request& request) {
  Attributes attributes;
  Failure failure = CheckPut(request);
  if (!failure) {
    failure = TakeHeaders(attributes, request.headers);
  }
  if (!failure) {
    failure = TakeAlgorithm(attributes, request.headers);
  }
  PartUpload upload;
  upload.id = NewUploadId();
  upload.bucket_name = request.bucket;
  upload.object_name = NameOfKey(request.key);
  upload.sort_key = ToHex(request.key);
  upload.attributes = ToText(attributes);
  upload.begun = NowText();
  if (!failure && !CPartUploads::Begin(upload)) {
    // Another node may have removed the bucket meanwhile.
    auto& catalogue = CObjectStorageManager::Instance();
    const bool is_gone = catalogue.CatchUp() && !catalogue.IsBucketExist(request.bucket);
    failure = is_gone ? EError::kNoSuchBucket : EError::kInternalError;
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  CXmlWriter xml;
  xml.OpenAnswer("InitiateMultipartUploadResult");
  xml.Element("Bucket", request.bucket);
  xml.Element("Key", request.key);
  xml.Element("UploadId", upload.id);
  xml.Close("InitiateMultipartUploadResult");
  AnswerXml(request, xml.Take());
}

Failure CS3Server::CheckPart(const Request& request) {
  std::uint32_t number = 0;
  PartUpload upload;
  Failure failure = ReadPartNumber(number, request.query);
  return failure ? failure : FindUpload(upload, request);
}

void CS3Server::UploadPart(const Request& request) {
  StoredBody body;
  Failure failure = CheckPart(request);
  if (!failure) {
    failure = ReceiveWhole(body, request);
  }
  if (!failure) {
    failure = AddPart(body, request);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  AnswerPart(request, body);
}

// Bytes whose row is refused are freed by the host, because no row names them.
Failure CS3Server::AddPart(const StoredBody& body, const Request& request) {
  UploadedPart part;
  if (Failure failure = ReadPartNumber(part.number, request.query)) {
    return failure;
  }
  part.size = static_cast<std::uint32_t>(body.size);
  part.url = body.url;
  part.attributes = ToText(PartDigests{body.md5, body.checksum});
  part.update_time = NowText();
  if (CPartUploads::PutPart(UploadId(request), part)) {
    return {};
  }
  PartUpload upload;
  Failure failure = FindUpload(upload, request);  // it may have ended meanwhile
  return failure ? failure : EError::kInternalError;
}

void CS3Server::AnswerPart(const Request& request, const StoredBody& body) {
  TansyNet::Headers headers = {{"ETag", '"' + body.md5 + '"'}};
  if (body.checksum) {
    headers[std::string(NamesOf(body.checksum->kind).header)] = body.checksum->value;
  }
  AnswerEmpty(request, 200, headers);
}

void CS3Server::ListParts(const Request& request) {
  PartUpload upload;
  std::vector<UploadedPart> parts;
  std::uint64_t most = kMostListed;
  std::uint64_t after = 0;
  Failure failure = ReadNumber(most, request.query, "max-parts", kMostListed);
  if (!failure) {
    failure = ReadNumber(after, request.query, "part-number-marker", kMostParts);
  }
  if (!failure) {
    failure = FindUpload(upload, request);
  }
  if (!failure && !CPartUploads::GetParts(parts, upload.id, static_cast<std::uint32_t>(after), most + 1)) {
    failure = EError::kInternalError;
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  const bool is_truncated = most > 0 && parts.size() > most;
  parts.resize(std::min<std::size_t>(parts.size(), most));
  AnswerXml(request, PartListXml(request, parts, after, most, is_truncated));
}

void CS3Server::ListMultipartUploads(const Request& request) {
  UploadListRequest list;
  UploadListing listing;
  Failure failure = ReadListRequest(list, request.query);
  if (!failure && !ListUploads(listing, list, request.bucket)) {
    failure = EError::kInternalError;
  }
  if (!failure && listing.is_truncated && !list.is_encoded && !CXmlWriter::CanCarry(listing.next_key)) {
    failure = {EError::kInvalidRequest, "XML cannot carry the key behind which to go on; ask for encoding-type=url."};
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  AnswerXml(request, UploadListXml(list, listing, request.bucket));
}

void CS3Server::CompleteMultipartUpload(const Request& request) {
  std::string_view body;
  std::vector<PartToComplete> list;
  Failure failure = ReadBody(body, request, WithoutChecksums(request.headers));
  if (!failure) {
    failure = ReadCompleteRequest(list, body);
  }
  for (int left = kTries; !failure; --left) {
    CompletedUpload completed;
    EAdded added = EAdded::kFailed;
    failure = TryToComplete(completed, added, list, request);
    if (!failure && added == EAdded::kAdded) {
      AnswerCompleted(request, completed);
      return;
    }
    if (!failure && added == EAdded::kRefused) {
      failure = EError::kPreconditionFailed;
    } else if (!failure && left == 1) {
      failure = CObjectStorageManager::Instance().IsBucketExist(request.bucket) ? EError::kInternalError
                                                                                : EError::kNoSuchBucket;
    }
  }
  if (failure.error == EError::kNoSuchUpload && AnswerRepeated(request, list)) {
    return;
  }
  AnswerFailure(request, failure);
}

// The database adds the object only while the upload is open and has exactly these parts.
Failure CS3Server::TryToComplete(CompletedUpload& completed, EAdded& added, const std::vector<PartToComplete>& list,
                                 const Request& request) {
  using CloudStorage::details::PieceOwner;
  using CloudStorage::details::PieceOwnerOf;
  PartUpload upload;
  std::vector<UploadedPart> parts;
  Failure failure = FindUpload(upload, request);
  if (!failure && !CPartUploads::GetParts(parts, upload.id, 0, kMostParts)) {
    failure = EError::kInternalError;
  }
  if (!failure) {
    failure = MatchParts(completed, list, parts);
  }
  if (!failure) {
    failure = CheckWholeChecksum(request.headers, completed);
  }
  if (failure) {
    return failure;
  }
  // The type stays with the object, because the same completion may come again.
  Attributes attributes = FromText(upload.attributes);
  completed.checksum_type = attributes.headers[kChecksumType];
  attributes.headers.erase(kChecksumAlgorithm);
  if (completed.checksum_type.empty()) {
    attributes.headers.erase(kChecksumType);
  }
  attributes.etag = completed.etag;
  ObjectInfo object;
  object.bucket_name = request.bucket;
  object.name = upload.object_name;
  object.size = completed.size;
  object.url = CloudStorage::details::PieceListText(PieceOwner(upload.id), completed.pieces);
  object.update_time = NowText();
  // Another completion of this upload may have been first; its parts must stay as they are.
  bool has_ended = false;
  const auto may_add = [&, conditions = ConditionsOf(request.headers)](const ObjectInfo* there,
                                                                       const std::string& there_attributes) {
    has_ended = there != nullptr && PieceOwnerOf(there->url) == PieceOwner(upload.id);
    return !has_ended && (!conditions || conditions(there, there_attributes));
  };
  added = AddAndWait(object, attributes, may_add);
  return has_ended ? NoSuchUpload(request) : Failure();
}

// A client that did not get the answer asks again; by then the upload has become the object.
bool CS3Server::AnswerRepeated(const Request& request, const std::vector<PartToComplete>& list) {
  using CloudStorage::details::PieceOwner;
  using CloudStorage::details::PieceOwnerOf;
  FoundObject object;
  const std::optional<std::string> etag = ETagOfParts(list);
  if (!etag || FindObject(object, request) || PieceOwnerOf(object.info.url) != PieceOwner(UploadId(request)) ||
      object.attributes.etag != *etag) {
    return false;
  }
  // The object's parts are still known, but for one without bytes.
  CompletedUpload completed;
  std::vector<UploadedPart> parts;
  if (!CPartUploads::GetParts(parts, UploadId(request), 0, kMostParts) || MatchParts(completed, list, parts)) {
    completed = {};
  }
  completed.etag = *etag;
  completed.checksum_type = object.attributes.headers[kChecksumType];
  AnswerCompleted(request, completed);
  return true;
}

void CS3Server::AbortMultipartUpload(const Request& request) {
  PartUpload upload;
  Failure failure = FindUpload(upload, request);
  if (!failure && !CPartUploads::End(upload.id)) {
    failure = EError::kInternalError;
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  AnswerEmpty(request, 204);
}

}  // namespace Tansy::CloudStorage::S3
