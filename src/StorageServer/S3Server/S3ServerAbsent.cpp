// What is asked about features that this server does not have, and the ACL that everything has.
#include "StorageServer/S3Server/S3AbsentFeatures.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlRequests.h"
#include "StorageServer/S3Server/S3XmlWriter.h"

namespace Tansy::CloudStorage::S3 {

Failure CS3Server::ExpectTarget(const Request& request) {
  FoundObject object;
  return request.key.empty() ? Failure() : FindObject(object, request);
}

void CS3Server::GetAbsent(const Request& request) {
  if (const Failure failure = ExpectTarget(request)) {
    AnswerFailure(request, failure);
    return;
  }
  const AbsentFeature& feature = *FindAbsentFeature(request);
  if (feature.error != EError::kNone) {
    Failure failure = feature.error;
    failure.details.emplace_back("BucketName", request.bucket);
    AnswerFailure(request, failure);
    return;
  }
  CXmlWriter xml;
  xml.OpenAnswer(feature.root);
  if (!feature.element.empty()) {
    xml.Element(feature.element, feature.value);
  }
  xml.Close(feature.root);
  AnswerXml(request, xml.Take());
}

// What is not set is gone when it is removed.
void CS3Server::DeleteAbsent(const Request& request) {
  if (const Failure failure = ExpectTarget(request)) {
    AnswerFailure(request, failure);
  } else {
    AnswerEmpty(request, 204);
  }
}

void CS3Server::GetAcl(const Request& request) {
  if (const Failure failure = ExpectTarget(request)) {
    AnswerFailure(request, failure);
    return;
  }
  const auto add_owner = [](CXmlWriter& xml) {
    xml.Element("ID", kOwner);
    xml.Element("DisplayName", kOwner);
  };
  CXmlWriter xml;
  xml.OpenAnswer("AccessControlPolicy");
  xml.Open("Owner");
  add_owner(xml);
  xml.Close("Owner");
  xml.Open("AccessControlList");
  xml.Open("Grant");
  xml.OpenTyped("Grantee", "CanonicalUser");
  add_owner(xml);
  xml.Close("Grantee");
  xml.Element("Permission", "FULL_CONTROL");
  xml.Close("Grant");
  xml.Close("AccessControlList");
  xml.Close("AccessControlPolicy");
  AnswerXml(request, xml.Take());
}

// What is private already may be made private; nothing else can be had.
void CS3Server::PutAcl(const Request& request) {
  std::string_view body;
  bool is_private = true;
  Failure failure = ExpectTarget(request);
  if (!failure) {
    failure = CheckUnsupportedHeaders(request.headers);
  }
  if (!failure) {
    failure = ReadBody(body, request, request.headers);
  }
  if (!failure && !body.empty()) {
    failure = ReadAccessControl(is_private, body, kOwner);
  }
  if (!failure && !is_private) {
    failure = {EError::kNotImplemented, "Everything is private; this server has no other ACL."};
  }
  if (failure) {
    AnswerFailure(request, failure);
  } else {
    AnswerEmpty(request, 200);
  }
}

}  // namespace Tansy::CloudStorage::S3
