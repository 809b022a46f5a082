// The XML of requests of the S3 protocol: what to delete, which parts make up an object, who has which rights.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Require.h"
#include "StorageServer/S3Server/S3XmlRequests.h"
#include "StorageServer/S3Server/S3XmlWriter.h"

namespace {

using namespace Tansy::CloudStorage::S3;

void CheckDelete(std::string_view text) {
  DeleteRequest request;
  if (ReadDeleteRequest(request, text)) {
    return;
  }
  Require(!request.keys.empty() && request.keys.size() <= kMostKeysToDelete);
  // Written again, the list is the same.
  CXmlWriter xml;
  xml.Open("Delete");
  xml.Element("Quiet", request.is_quiet);
  for (const KeyToDelete& key : request.keys) {
    Require(!key.key.empty());
    xml.Open("Object");
    xml.Element("Key", key.key);
    xml.Element("VersionId", key.version);
    xml.Close("Object");
  }
  xml.Close("Delete");
  DeleteRequest again;
  Require(!ReadDeleteRequest(again, xml.Take()));
  Require(again.is_quiet == request.is_quiet && again.keys.size() == request.keys.size());
  for (std::size_t i = 0; i < again.keys.size(); ++i) {
    Require(again.keys[i].key == request.keys[i].key && again.keys[i].version == request.keys[i].version);
  }
}

void CheckComplete(std::string_view text) {
  std::vector<PartToComplete> parts;
  if (ReadCompleteRequest(parts, text)) {
    return;
  }
  Require(!parts.empty() && parts.size() <= kMostParts);
  // Written again, the list is the same.
  CXmlWriter xml;
  xml.Open("CompleteMultipartUpload");
  std::uint32_t before = 0;
  for (const PartToComplete& part : parts) {
    Require(part.number > before && part.number <= kMostParts && !part.etag.empty());
    before = part.number;
    xml.Open("Part");
    xml.Element("PartNumber", std::uint64_t{part.number});
    xml.Element("ETag", '"' + part.etag + '"');
    if (part.checksum) {
      xml.Element(NamesOf(part.checksum->kind).element, part.checksum->value);
    }
    xml.Close("Part");
  }
  xml.Close("CompleteMultipartUpload");
  std::vector<PartToComplete> again;
  Require(!ReadCompleteRequest(again, xml.Take()) && again.size() == parts.size());
  for (std::size_t i = 0; i < again.size(); ++i) {
    Require(again[i].number == parts[i].number && again[i].etag == parts[i].etag);
    Require(again[i].checksum == parts[i].checksum);
  }
}

void CheckAccessControl(std::string_view text) {
  bool is_private = false;
  if (!ReadAccessControl(is_private, text, "owner") && is_private) {
    Require(text.find("AccessControlPolicy") != std::string_view::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckDelete(text);
  CheckComplete(text);
  CheckAccessControl(text);
  return 0;
}
