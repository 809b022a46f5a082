// The errors of the object protocol and the answer for each of them.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_ERRORS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_ERRORS_H

#include <string>

namespace TansyNet {
struct HttpResponse;
}

namespace Tansy::CloudStorage {

// Codes without a row in the table (and any other number) are answered with status 200 and empty texts.
enum ObjectError : int {
  kAccessDenied = -1,
  kAccessIdProblem = -2,
  kBadDigest = -3,
  kBucketAccessDenied = -4,
  kBucketAlreadyExists = -7,
  kIncompleteBody = -9,
  kInvalidBucketName = -10,
  kKeyTooLong = -11,
  kNoSuchBucket = -12,
  kNoSuchKey = -13,
  kRequestTimeTooSkewed = -14,
  kInvalidPartId = -15,
  kServerInternalError = -16,
  kInvalidXmlContent = -17,
  kInvalidHttpContent = -18,
  kUrlNotSupport = -19,
  kNotEnoughSpace = -20,
  kServiceUnavailable = -21,
  kUploadElsewhere = -22,
};

// The content type of every answer except downloads.
inline constexpr const char* kXmlContentType = "application/xml; charset=utf-8";
// The content type of downloads.
inline constexpr const char* kBytesContentType = "application/octet-stream; charset=utf-8";

// Makes `response` and `body` the answer for an error.
void BuildErrorRsp(TansyNet::HttpResponse& response, std::string& body, int code);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_ERRORS_H
