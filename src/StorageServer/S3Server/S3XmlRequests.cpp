#include "StorageServer/S3Server/S3XmlRequests.h"

#include <utility>

#include "TansyProto/XmlProto.h"

namespace Tansy::CloudStorage::S3 {

namespace {

std::string WithoutQuotes(std::string text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
    text = text.substr(1, text.size() - 2);
  }
  return text;
}

// Reads the one checksum that a part may have.
std::optional<Checksum> ReadChecksum(const TansyProto::CXmlProto& document, const std::string& path) {
  for (const ChecksumNames& names : kChecksumNames) {
    if (std::string value = document.GetString(path + "/" + std::string(names.element)); !value.empty()) {
      return Checksum{names.kind, std::move(value)};
    }
  }
  return std::nullopt;
}

std::string ElementPath(const char* list, std::size_t number) {
  return std::string(list) + "[" + std::to_string(number) + "]";
}

}  // namespace

Failure ReadDeleteRequest(DeleteRequest& request, std::string_view xml) {
  TansyProto::CXmlProto document;
  if (!document.Parse(xml) || !document.Has("/Delete/Object")) {
    return EError::kMalformedXml;
  }
  request.is_quiet = document.GetString("/Delete/Quiet") == "true";
  for (std::size_t number = 1;; ++number) {
    const std::string path = ElementPath("/Delete/Object", number);
    if (!document.Has(path)) {
      return {};
    }
    KeyToDelete key = {document.GetString(path + "/Key"), document.GetString(path + "/VersionId"),
                       document.GetString(path + "/ETag"),
                       document.Has(path + "/LastModifiedTime") || document.Has(path + "/Size")};
    if (key.key.empty() || number > kMostKeysToDelete) {
      return EError::kMalformedXml;
    }
    request.keys.push_back(std::move(key));
  }
}

Failure ReadCompleteRequest(std::vector<PartToComplete>& parts, std::string_view xml) {
  TansyProto::CXmlProto document;
  if (!document.Parse(xml) || !document.Has("/CompleteMultipartUpload/Part")) {
    return EError::kMalformedXml;
  }
  for (std::size_t count = 1;; ++count) {
    const std::string path = ElementPath("/CompleteMultipartUpload/Part", count);
    if (!document.Has(path)) {
      return {};
    }
    const std::int64_t number = document.GetInt(path + "/PartNumber");
    std::string etag = WithoutQuotes(document.GetString(path + "/ETag"));
    if (number < 1 || number > std::int64_t{kMostParts} || etag.empty()) {
      return EError::kMalformedXml;
    }
    if (!parts.empty() && parts.back().number >= number) {
      return EError::kInvalidPartOrder;
    }
    parts.push_back({static_cast<std::uint32_t>(number), std::move(etag), ReadChecksum(document, path)});
  }
}

Failure ReadAccessControl(bool& is_private, std::string_view xml, std::string_view owner) {
  TansyProto::CXmlProto document;
  if (!document.Parse(xml) || !document.Has("/AccessControlPolicy/AccessControlList")) {
    return EError::kMalformedXml;
  }
  is_private = true;
  for (std::size_t number = 1; is_private; ++number) {
    const std::string path = ElementPath("/AccessControlPolicy/AccessControlList/Grant", number);
    if (!document.Has(path)) {
      return {};
    }
    if (number > kMostGrants) {
      return EError::kMalformedXml;
    }
    is_private = document.GetString(path + "/Grantee/ID") == owner;
  }
  return {};
}

}  // namespace Tansy::CloudStorage::S3
