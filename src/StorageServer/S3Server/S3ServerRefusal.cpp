// What clients of the S3 protocol are told when the HTTP library refuses their request, so that no handler sees it.
#include <string>

#include "StorageServer/S3Server/S3Cors.h"
#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Request.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

namespace {

// Only a body of PUT may become an object of the greatest length; others are kept in memory.
Failure TooLarge(const std::string& method) {
  return method == "PUT" ? Failure(EError::kEntityTooLarge)
                         : Failure(EError::kEntityTooLarge, "The body is too long for this request.");
}

Failure FailureOf(int status, const std::string& method) {
  switch (status) {
    case 411:
      return EError::kMissingContentLength;
    case 413:
      return TooLarge(method);
    case 500:
      return EError::kInternalError;
    case 501:
      return EError::kNotImplemented;
    case 503:
      return EError::kSlowDown;
    case 408:
      return {EError::kInvalidRequest, "The request did not come in time."};
    case 431:
      return {EError::kInvalidRequest, "The headers of the request are too long."};
    default:
      return {EError::kInvalidRequest, "The request is no valid HTTP, or asks for what this server does not speak."};
  }
}

}  // namespace

TansyNet::Refusal CS3Server::MakeRefusal(int status, const TansyNet::HttpServerRecv& msg) {
  const std::string readers = AllowedOrigin(*Instance().Config(), LowerNames(msg.headers));
  const Recipient to{0, MakeRequestId(), msg.method, msg.url, readers};
  const Failure failure = FailureOf(status, msg.method);
  LogFailure(to, failure);
  // What has no name of its own among the errors keeps the status that says more.
  const bool is_named = failure.error != EError::kInvalidRequest;
  return {MakeXmlResponse(to, is_named ? StatusOf(failure.error) : status),
          ErrorXml(failure, PercentDecode(to.url), to.id)};
}

}  // namespace Tansy::CloudStorage::S3
