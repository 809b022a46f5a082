#include "StorageServer/ObjectServer/ObjectServerErrors.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "StorageServer/ServerComm.h"
#include "TansyNet/HttpServer.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

struct ErrorRow {
  int code;
  std::int32_t status;
  const char* name;
  const char* message;
};

constexpr std::array kErrorTable = {
    ErrorRow{kAccessDenied, 403, "AccessDenied", "AccessDenied"},
    ErrorRow{kAccessIdProblem, 403, "AccessIDProblem", "access id error"},
    ErrorRow{kBadDigest, 400, "BadDigest", "BadDigest"},
    ErrorRow{kBucketAccessDenied, 403, "BucketAccessDenied", "BucketAccessDenied"},
    ErrorRow{kBucketAlreadyExists, 409, "BucketAlreadyExists", "BucketAlreadyExists"},
    // Fixed: docs/compatibility.md, "Misspelt names".
    ErrorRow{kIncompleteBody, 400, "IncompleteBoby", "IncompleteBoby"},
    ErrorRow{kInvalidBucketName, 400, "InvalidBucketName", "InvalidBucketName"},
    ErrorRow{kKeyTooLong, 400, "KeyTooLong", "KeyTooLong"},
    ErrorRow{kNoSuchBucket, 404, "NoSuchBucket", "NoSuchBucket"},
    ErrorRow{kNoSuchKey, 404, "NoSuchKey", "NoSuchKey"},
    ErrorRow{kRequestTimeTooSkewed, 403, "RequestTimeTooSkewed", "RequestTimeTooSkewed"},
    ErrorRow{kInvalidPartId, 400, "InvalidPartID", "InvalidPartID"},
    ErrorRow{kServerInternalError, 500, "ServerInternalError", "ServerInternalError"},
    ErrorRow{kInvalidXmlContent, 400, "InvalidXmlContent", "InvalidXmlContent"},
    ErrorRow{kInvalidHttpContent, 400, "InvalidHttpContent", "InvalidHttpContent"},
    ErrorRow{kUrlNotSupport, 400, "URLNotSupport", "URLNotSupport"},
    ErrorRow{kNotEnoughSpace, 500, "NotEnoughSpace", "NotEnoughSpace"},
    ErrorRow{kServiceUnavailable, 503, "ServiceUnavailable", "the database cannot be asked"},
    ErrorRow{kUploadElsewhere, 421, "UploadElsewhere", "another node holds this upload"},
};

ErrorRow FindError(int code) {
  const auto row =
      std::find_if(kErrorTable.begin(), kErrorTable.end(), [code](const ErrorRow& r) { return r.code == code; });
  return row != kErrorTable.end() ? *row : ErrorRow{code, 200, "", ""};
}

}  // namespace
}  // namespace details

void BuildErrorRsp(TansyNet::HttpResponse& response, std::string& body, int code) {
  const details::ErrorRow error = details::FindError(code);
  TansyProto::CXmlProto xml;
  xml.SetString("/Error/Code", error.name);
  xml.SetString("/Error/Message", error.message);
  xml.Serialize(body);
  response.status = error.status;
  SetRspHeaders(response, kXmlContentType);
}

}  // namespace Tansy::CloudStorage
