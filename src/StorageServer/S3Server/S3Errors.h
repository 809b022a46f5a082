// The errors of the S3 protocol: their names, their statuses and the answer for each of them.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ERRORS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ERRORS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tansy::CloudStorage::S3 {

enum class EError {
  kNone,
  kAccessDenied,
  kAuthorizationHeaderMalformed,
  kAuthorizationQueryParametersError,
  kBadDigest,
  kBucketAlreadyExists,
  kBucketAlreadyOwnedByYou,
  kBucketNotEmpty,
  kContentSha256Mismatch,
  kEntityTooLarge,
  kEntityTooSmall,
  kIncompleteBody,
  kInternalError,
  kInvalidAccessKeyId,
  kInvalidArgument,
  kInvalidBucketName,
  kInvalidDigest,
  kInvalidPart,
  kInvalidPartNumber,
  kInvalidPartOrder,
  kInvalidRange,
  kInvalidRequest,
  kInvalidUri,
  kKeyTooLong,
  kMalformedXml,
  kMetadataTooLarge,
  kMethodNotAllowed,
  kMissingContentLength,
  kNoSuchBucket,
  kNoSuchBucketPolicy,
  kNoSuchCorsConfiguration,
  kNoSuchEncryptionConfiguration,
  kNoSuchKey,
  kNoSuchLifecycleConfiguration,
  kNoSuchObjectLock,
  kNoSuchObjectLockConfiguration,
  kNoSuchOwnershipControls,
  kNoSuchPublicAccessBlock,
  kNoSuchReplicationConfiguration,
  kNoSuchTagSet,
  kNoSuchWebsiteConfiguration,
  kNoSuchUpload,
  kNotEnoughSpace,
  kNotImplemented,
  kPreconditionFailed,
  kRequestTimeTooSkewed,
  kServiceUnavailable,
  kSignatureDoesNotMatch,
  kSlowDown,
};

// What is wrong with a request; it converts to true when anything is.
struct Failure {
  Failure() = default;
  // NOLINTNEXTLINE(google-explicit-constructor): an error without further words is a failure.
  Failure(EError what) : error(what) {}
  Failure(EError what, std::string words) : error(what), message(std::move(words)) {}

  explicit operator bool() const { return error != EError::kNone; }

  EError error = EError::kNone;
  std::string message;  // empty stands for the usual message of the error
  // Further elements of the answer, such as {"StringToSign", "..."}.
  std::vector<std::pair<std::string, std::string>> details;
};

// Gives the name of an error, such as "NoSuchKey".
std::string_view NameOf(EError error);
std::int32_t StatusOf(EError error);
// Gives the failure's message, which is never empty, because some clients cannot do without one.
std::string_view MessageOf(const Failure& failure);
// Gives the XML that answers a failure. `resource` is the path of the request.
std::string ErrorXml(const Failure& failure, std::string_view resource, std::string_view request_id);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ERRORS_H
