#include "StorageServer/S3Server/S3Errors.h"

#include <algorithm>
#include <array>

#include "StorageServer/S3Server/S3XmlWriter.h"

namespace Tansy::CloudStorage::S3 {

namespace {

struct ErrorRow {
  EError error;
  std::int32_t status;
  std::string_view name;
  std::string_view message;
};

constexpr std::array kErrorTable = {
    ErrorRow{EError::kNone, 200, "", "Done."},
    ErrorRow{EError::kAccessDenied, 403, "AccessDenied", "Access is denied."},
    ErrorRow{EError::kAuthorizationHeaderMalformed, 400, "AuthorizationHeaderMalformed",
             "The Authorization header is malformed."},
    ErrorRow{EError::kAuthorizationQueryParametersError, 400, "AuthorizationQueryParametersError",
             "The signature in the query is malformed."},
    ErrorRow{EError::kBadDigest, 400, "BadDigest", "The body does not have the digest that the request names."},
    ErrorRow{EError::kBucketAlreadyExists, 409, "BucketAlreadyExists", "There is a bucket of this name already."},
    ErrorRow{EError::kBucketAlreadyOwnedByYou, 409, "BucketAlreadyOwnedByYou",
             "There is a bucket of this name already, and it is yours."},
    ErrorRow{EError::kBucketNotEmpty, 409, "BucketNotEmpty", "The bucket is not empty."},
    ErrorRow{EError::kContentSha256Mismatch, 400, "XAmzContentSHA256Mismatch",
             "The body does not have the digest in x-amz-content-sha256."},
    ErrorRow{EError::kEntityTooLarge, 400, "EntityTooLarge", "An object has at most 4294967295 bytes."},
    ErrorRow{EError::kEntityTooSmall, 400, "EntityTooSmall",
             "Every part but the last one needs at least 5242880 bytes."},
    ErrorRow{EError::kIncompleteBody, 400, "IncompleteBody", "The body does not have the length that it announced."},
    ErrorRow{EError::kInternalError, 500, "InternalError", "The server failed; its log says why."},
    ErrorRow{EError::kInvalidAccessKeyId, 403, "InvalidAccessKeyId", "There is no such access key."},
    ErrorRow{EError::kInvalidArgument, 400, "InvalidArgument", "An argument of the request is not valid."},
    ErrorRow{EError::kInvalidBucketName, 400, "InvalidBucketName", "This is not a valid name for a bucket."},
    ErrorRow{EError::kInvalidDigest, 400, "InvalidDigest", "A digest or checksum of the request is malformed."},
    ErrorRow{EError::kInvalidPart, 400, "InvalidPart", "A part of the list was not uploaded, or has another ETag."},
    ErrorRow{EError::kInvalidPartNumber, 416, "InvalidPartNumber", "The object has no part of this number."},
    ErrorRow{EError::kInvalidPartOrder, 400, "InvalidPartOrder", "The parts must be listed in ascending order."},
    ErrorRow{EError::kInvalidRange, 416, "InvalidRange", "The range lies outside of the object."},
    ErrorRow{EError::kInvalidRequest, 400, "InvalidRequest", "The request is not valid."},
    ErrorRow{EError::kInvalidUri, 400, "InvalidURI", "The path of the request cannot be read."},
    ErrorRow{EError::kKeyTooLong, 400, "KeyTooLongError", "A key has at most 1024 bytes."},
    ErrorRow{EError::kMalformedXml, 400, "MalformedXML", "The XML of the request is not what it should be."},
    ErrorRow{EError::kMetadataTooLarge, 400, "MetadataTooLarge", "The metadata of an object has at most 2048 bytes."},
    ErrorRow{EError::kMethodNotAllowed, 405, "MethodNotAllowed", "The method does not fit this resource."},
    ErrorRow{EError::kMissingContentLength, 411, "MissingContentLength", "The request must say how long its body is."},
    ErrorRow{EError::kNoSuchBucket, 404, "NoSuchBucket", "There is no bucket of this name."},
    ErrorRow{EError::kNoSuchBucketPolicy, 404, "NoSuchBucketPolicy", "The bucket has no policy."},
    ErrorRow{EError::kNoSuchCorsConfiguration, 404, "NoSuchCORSConfiguration", "The bucket has no CORS configuration."},
    ErrorRow{EError::kNoSuchEncryptionConfiguration, 404, "ServerSideEncryptionConfigurationNotFoundError",
             "The bucket has no encryption configuration."},
    ErrorRow{EError::kNoSuchKey, 404, "NoSuchKey", "There is no object of this key."},
    ErrorRow{EError::kNoSuchLifecycleConfiguration, 404, "NoSuchLifecycleConfiguration",
             "The bucket has no lifecycle configuration."},
    ErrorRow{EError::kNoSuchObjectLock, 404, "NoSuchObjectLockConfiguration", "The object has no lock."},
    ErrorRow{EError::kNoSuchObjectLockConfiguration, 404, "ObjectLockConfigurationNotFoundError",
             "The bucket has no object lock configuration."},
    ErrorRow{EError::kNoSuchOwnershipControls, 404, "OwnershipControlsNotFoundError",
             "The bucket has no ownership controls."},
    ErrorRow{EError::kNoSuchPublicAccessBlock, 404, "NoSuchPublicAccessBlockConfiguration",
             "The bucket has no public access block configuration."},
    ErrorRow{EError::kNoSuchReplicationConfiguration, 404, "ReplicationConfigurationNotFoundError",
             "The bucket has no replication configuration."},
    ErrorRow{EError::kNoSuchTagSet, 404, "NoSuchTagSet", "The bucket has no tags."},
    ErrorRow{EError::kNoSuchWebsiteConfiguration, 404, "NoSuchWebsiteConfiguration",
             "The bucket has no website configuration."},
    ErrorRow{EError::kNoSuchUpload, 404, "NoSuchUpload",
             "There is no such upload; it was completed or aborted, or never begun."},
    // Clients repeat what is answered 500 or 503; on a full disk that would be the whole upload, for nothing.
    ErrorRow{EError::kNotEnoughSpace, 507, "NotEnoughSpace", "The server has not enough space for this."},
    ErrorRow{EError::kNotImplemented, 501, "NotImplemented", "This server does not have what the request asks for."},
    ErrorRow{EError::kPreconditionFailed, 412, "PreconditionFailed", "A condition of the request is not met."},
    ErrorRow{EError::kRequestTimeTooSkewed, 403, "RequestTimeTooSkewed",
             "The time of the request is more than 15 minutes off the server's."},
    ErrorRow{EError::kServiceUnavailable, 503, "ServiceUnavailable", "The database cannot be asked; try again later."},
    ErrorRow{EError::kSignatureDoesNotMatch, 403, "SignatureDoesNotMatch",
             "The signature is not the one that the server makes of the request; check the secret key."},
    ErrorRow{EError::kSlowDown, 503, "SlowDown", "The server has too much to do; try again later."},
};

const ErrorRow& RowOf(EError error) {
  const auto row = std::find_if(kErrorTable.begin(), kErrorTable.end(),
                                [error](const ErrorRow& candidate) { return candidate.error == error; });
  return row != kErrorTable.end() ? *row : RowOf(EError::kInternalError);
}

}  // namespace

std::string_view NameOf(EError error) {
  return RowOf(error).name;
}

std::int32_t StatusOf(EError error) {
  return RowOf(error).status;
}

std::string_view MessageOf(const Failure& failure) {
  return failure.message.empty() ? RowOf(failure.error).message : std::string_view(failure.message);
}

std::string ErrorXml(const Failure& failure, std::string_view resource, std::string_view request_id) {
  CXmlWriter xml;
  xml.Open("Error");
  xml.Element("Code", NameOf(failure.error));
  xml.Element("Message", MessageOf(failure));
  for (const auto& [name, value] : failure.details) {
    xml.Element(name, value);
  }
  xml.Element("Resource", resource);
  xml.Element("RequestId", request_id);
  xml.Close("Error");
  return xml.Take();
}

}  // namespace Tansy::CloudStorage::S3
