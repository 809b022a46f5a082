// Listings of objects.
#include <algorithm>
#include <utility>

#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/S3Server/S3Listing.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/Encrypt.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::uint64_t kMostEntries = 1000;
// A continuation token is this and the last key of the listing before, in Base64, so that it fits into every query.
constexpr std::string_view kTokenMark = "1:";
// The version of an object in a bucket that keeps no versions.
constexpr const char* kOnlyVersion = "null";

Failure ReadMaxKeys(ListRequest& list, const Query& query) {
  const std::string* const text = FindParameter(query, "max-keys");
  std::uint64_t number = kMostEntries;
  if (text != nullptr && !text->empty() && !ParseDecimal(*text, number)) {
    return {EError::kInvalidArgument, "max-keys must be a number that is not negative."};
  }
  list.most = static_cast<std::size_t>(std::min(number, kMostEntries));
  return {};
}

Failure ReadEncoding(bool& is_encoded, const Query& query) {
  const std::string encoding = ParameterOrEmpty(query, "encoding-type");
  is_encoded = encoding == "url";
  if (!encoding.empty() && !is_encoded) {
    return {EError::kInvalidArgument, "The only encoding-type is url."};
  }
  return {};
}

Failure ReadToken(ListRequest& list, const std::string& token) {
  std::string text;
  if (!TansyBase::Encrypt::Base64Decode(token, text) || !text.starts_with(kTokenMark)) {
    return {EError::kInvalidArgument, "The continuation token is not one of this server's."};
  }
  list.after = text.substr(kTokenMark.size());
  return {};
}

ShowObjects ObjectsOf(const std::string& bucket) {
  CObjectStorageManager::Instance().CatchUp();  // what another node has answered is in the list
  return [bucket](const std::string& from, bool with_key, const TakeObject& take) {
    const auto look = [&take](const CPackedObject& object) {
      std::string etag = ETagOfText(object.Attributes());
      const std::string modified(object.UpdateTime());
      if (etag.empty()) {
        etag = StandInTagOf(object.Url(), object.Size(), modified);
      }
      return take({KeyOfName(object.Name()), std::move(etag), ListedTime(modified), object.Size()});
    };
    CObjectStorageManager::Instance().ShowObjectsFrom(NameOfKey(from), with_key, bucket, look);
  };
}

// Writes the elements that all kinds of listings have.
class CListAnswer {
 public:
  enum class EKind { kObjects, kVersions };

  CListAnswer(const Request& request, bool is_encoded, EKind kind = EKind::kObjects)
      : request_(request), is_encoded_(is_encoded), kind_(kind) {
    xml_.OpenAnswer(Root());
    xml_.Element("Name", request.bucket);
  }

  void Text(std::string_view name, const std::string& text) {
    xml_.Element(name, is_encoded_ ? PercentEncodePath(text) : text);
  }
  void OptionalText(std::string_view name, const std::string& text) {
    if (!text.empty()) {
      Text(name, text);
    }
  }
  CXmlWriter& Xml() { return xml_; }

  void Entries(const Listing& listing, bool with_owner) {
    for (const Listing::Entry& entry : listing.entries) {
      if (!entry.is_prefix) {
        Object(entry.object, with_owner);
      }
    }
    for (const Listing::Entry& entry : listing.entries) {
      if (entry.is_prefix) {
        xml_.Open("CommonPrefixes");
        Text("Prefix", entry.object.key);
        xml_.Close("CommonPrefixes");
      }
    }
  }

  void Send() {
    if (is_encoded_) {
      xml_.Element("EncodingType", "url");
    }
    xml_.Close(Root());
    AnswerXml(request_, xml_.Take());
  }

 private:
  const char* Root() const { return kind_ == EKind::kObjects ? "ListBucketResult" : "ListVersionsResult"; }

  void Object(const ListedObject& object, bool with_owner) {
    const char* const element = kind_ == EKind::kObjects ? "Contents" : "Version";
    xml_.Open(element);
    Text("Key", object.key);
    if (kind_ == EKind::kVersions) {
      xml_.Element("VersionId", kOnlyVersion);
      xml_.Element("IsLatest", true);
    }
    xml_.Element("LastModified", object.modified);
    xml_.Element("ETag", '"' + object.etag + '"');
    xml_.Element("Size", object.size);
    if (with_owner) {
      xml_.Open("Owner");
      xml_.Element("ID", kOwner);
      xml_.Element("DisplayName", kOwner);
      xml_.Close("Owner");
    }
    xml_.Element("StorageClass", "STANDARD");
    xml_.Close(element);
  }

  const Request& request_;
  const bool is_encoded_;
  const EKind kind_;
  CXmlWriter xml_;
};

// The next page begins behind the last key of this one, as the client has read it. XML cannot carry every key: with
// what stands for such a one, the client would ask for the same page for ever, or miss some. So the page ends before
// it.
Failure EndBehindAReadableKey(Listing& listing, bool is_encoded) {
  if (is_encoded || !listing.is_truncated) {
    return {};
  }
  while (!listing.entries.empty() && !CXmlWriter::CanCarry(listing.entries.back().object.key)) {
    listing.entries.pop_back();
  }
  if (listing.entries.empty()) {
    return {EError::kInvalidRequest, "XML cannot carry any of these keys; ask for encoding-type=url."};
  }
  return {};
}

Failure ReadListRequest(ListRequest& list, bool& is_encoded, const Query& query) {
  list.prefix = ParameterOrEmpty(query, "prefix");
  list.delimiter = ParameterOrEmpty(query, "delimiter");
  Failure failure = ReadMaxKeys(list, query);
  return failure ? failure : ReadEncoding(is_encoded, query);
}

}  // namespace

void CS3Server::ListObjects(const Request& request) {
  ListRequest list;
  Listing listing;
  bool is_encoded = false;
  Failure failure = ReadListRequest(list, is_encoded, request.query);
  if (!failure) {
    list.after = ParameterOrEmpty(request.query, "marker");
    listing = List(list, ObjectsOf(request.bucket));
    failure = EndBehindAReadableKey(listing, is_encoded);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  CListAnswer answer(request, is_encoded);
  answer.Text("Prefix", list.prefix);
  answer.Text("Marker", list.after);
  answer.Xml().Element("MaxKeys", std::uint64_t{list.most});
  answer.OptionalText("Delimiter", list.delimiter);
  answer.Xml().Element("IsTruncated", listing.is_truncated);
  if (listing.is_truncated) {
    answer.Text("NextMarker", listing.entries.back().object.key);
  }
  answer.Entries(listing, true);
  answer.Send();
}

// Each object has one version, which is the latest.
void CS3Server::ListObjectVersions(const Request& request) {
  ListRequest list;
  Listing listing;
  bool is_encoded = false;
  Failure failure = ReadListRequest(list, is_encoded, request.query);
  const std::string id_marker = ParameterOrEmpty(request.query, "version-id-marker");
  list.after = ParameterOrEmpty(request.query, "key-marker");
  if (!failure && !id_marker.empty() && list.after.empty()) {
    failure = {EError::kInvalidArgument, "A version-id-marker needs a key-marker."};
  }
  if (!failure) {
    listing = List(list, ObjectsOf(request.bucket));
    failure = EndBehindAReadableKey(listing, is_encoded);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  CListAnswer answer(request, is_encoded, CListAnswer::EKind::kVersions);
  answer.Text("Prefix", list.prefix);
  answer.Text("KeyMarker", list.after);
  answer.Xml().Element("VersionIdMarker", id_marker);
  answer.Xml().Element("MaxKeys", std::uint64_t{list.most});
  answer.OptionalText("Delimiter", list.delimiter);
  answer.Xml().Element("IsTruncated", listing.is_truncated);
  if (listing.is_truncated) {
    answer.Text("NextKeyMarker", listing.entries.back().object.key);
    answer.Xml().Element("NextVersionIdMarker", kOnlyVersion);
  }
  answer.Entries(listing, true);
  answer.Send();
}

void CS3Server::ListObjectsV2(const Request& request) {
  ListRequest list;
  bool is_encoded = false;
  Failure failure = ReadListRequest(list, is_encoded, request.query);
  if (!failure && ParameterOrEmpty(request.query, "list-type") != "2") {
    failure = {EError::kInvalidArgument, "The only list-type is 2."};
  }
  const std::string start_after = ParameterOrEmpty(request.query, "start-after");
  const std::string* const token = FindParameter(request.query, "continuation-token");
  list.after = start_after;
  if (!failure && token != nullptr) {
    failure = ReadToken(list, *token);
  }
  if (failure) {
    AnswerFailure(request, failure);
    return;
  }
  const Listing listing = List(list, ObjectsOf(request.bucket));
  CListAnswer answer(request, is_encoded);
  answer.Text("Prefix", list.prefix);
  answer.OptionalText("Delimiter", list.delimiter);
  answer.OptionalText("StartAfter", start_after);
  answer.Xml().Element("MaxKeys", std::uint64_t{list.most});
  answer.Xml().Element("KeyCount", std::uint64_t{listing.entries.size()});
  answer.Xml().Element("IsTruncated", listing.is_truncated);
  if (token != nullptr) {
    answer.Xml().Element("ContinuationToken", *token);
  }
  if (listing.is_truncated) {
    const std::string next = std::string(kTokenMark) + listing.entries.back().object.key;
    answer.Xml().Element("NextContinuationToken", TansyBase::Encrypt::Base64Encode(next));
  }
  answer.Entries(listing, ParameterOrEmpty(request.query, "fetch-owner") == "true");
  answer.Send();
}

}  // namespace Tansy::CloudStorage::S3
