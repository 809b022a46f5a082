// Request signatures: the Authorization header and the signature of a query.
#include <string_view>

#include "ModuleLog.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/PicServer/PictureServerErrors.h"
#include "StorageServer/RequestSignature.h"
#include "StorageServer/ServerComm.h"
#include "StorageServer/SignatureDate.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

using Parameters = std::map<std::string, std::string>;
using TansyNet::HttpServerRecv;

// Fixed: docs/compatibility.md, "Unsigned digest and date".
constexpr std::string_view kForm = "multipart/form-data";
constexpr std::string_view kAccessKeyParameter = "&AccessKeyId=";

// Gives the content type as it is signed. Of a form only the type counts, because the boundary is made after the
// signature.
std::string SignedContentType(const HttpServerRecv& request) {
  const std::string& content_type = HeaderOrEmpty(request.headers, "Content-Type");
  return content_type.find(kForm) != std::string::npos ? std::string(kForm) : content_type;
}

std::string ValueOrEmpty(const Parameters& parameters, const std::string& name) {
  const auto parameter = parameters.find(name);
  return parameter != parameters.end() ? parameter->second : std::string();
}

}  // namespace
}  // namespace details

int CPictureServer::CheckAuth(const HttpServerRecv& request, const Config& config) {
  const auto header = request.headers.find("Authorization");
  if (header == request.headers.end()) {
    CLOUD_LOG(logging::kError, "[%s]http header without Authorization![%s(%d)]");
    return kPicAccessDenied;
  }
  const std::string& value = header->second;
  CLOUD_LOG(logging::kTrace, "[%s]http header Authorization=%s[%s(%d)]", value.c_str());
  Authorization authorization;
  switch (ParseAuthorization(authorization, value)) {
    case AuthorizationForm::kNoColon:
      CLOUD_LOG(logging::kError, "[%s]http header Authorization invalid 1! Authorization=%s[%s(%d)]", value.c_str());
      return kPicAccessDenied;
    case AuthorizationForm::kNoScheme:
      CLOUD_LOG(logging::kError, "[%s]http header Authorization invalid 2! Authorization=%s gauth_prefix=%s[%s(%d)]",
                value.c_str(), AuthPrefix().c_str());
      return kPicAccessDenied;
    case AuthorizationForm::kValid:
      break;
  }
  if (authorization.ak != config.ak) {
    CLOUD_LOG(logging::kError,
              "[%s]http header Authorization invalid 3! Authorization=%s recv_ak=%s server_ak=%s[%s(%d)]",
              value.c_str(), authorization.ak.c_str(), config.ak.c_str());
    return kPicAccount;
  }
  const std::string sign_text = BuildSignText(request, details::SignedContentType(request),
                                              HeaderOrEmpty(request.headers, "Date"), request.query);
  if (!IsSignedWith(config, sign_text, authorization.signature)) {
    CLOUD_LOG(logging::kError, "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]",
              value.c_str(), sign_text.c_str(), config.sk.c_str());
    return kPicAccessDenied;
  }
  if (const std::string& date = HeaderOrEmpty(request.headers, "Date"); !IsDateInWindow(date)) {
    CLOUD_LOG(logging::kError, "[%s]http header Date refused! Date=%s window=%d minutes[%s(%d)]", date.c_str(),
              DateWindow());
    return kPicAccessDenied;
  }
  return 0;
}

int CPictureServer::CheckUrlAuth(const HttpServerRecv& request, const Config& config) {
  details::Parameters parameters;
  ParseHttpUrlQuery(parameters, request.query);
  const auto signature = parameters.find("Signature");
  if (signature == parameters.end()) {
    CLOUD_LOG(logging::kError, "[%s]not Signature[%s(%d)]");
    return kPicAccessDenied;
  }
  // The value 1 is refused and every other value passes, because existing clients depend on it.
  if (details::ValueOrEmpty(parameters, "Algorithm") == "1") {
    CLOUD_LOG(logging::kError, "[%s]not Algorithm[%s(%d)]");
    return kPicAccessDenied;
  }
  const auto ak = parameters.find("AccessKeyId");
  if (ak == parameters.end()) {
    CLOUD_LOG(logging::kError, "[%s]not AccessKeyId[%s(%d)]");
    return kPicAccessDenied;
  }
  if (ak->second != config.ak) {
    CLOUD_LOG(logging::kError, "[%s]ak not equal, server=%s, recv=%s[%s(%d)]", config.ak.c_str(), ak->second.c_str());
    return kPicAccount;
  }
  // The access key comes first among the parameters that the signer adds; what stands in front of it is signed.
  const std::size_t signed_length = request.query.find(details::kAccessKeyParameter);
  if (signed_length == std::string::npos) {
    CLOUD_LOG(logging::kError, "[%s]error not AccessKeyId[%s(%d)]");
    return kPicAccessDenied;
  }
  const std::string sign_text =
      BuildSignText(request, details::SignedContentType(request), details::ValueOrEmpty(parameters, "Expires"),
                    std::string_view(request.query).substr(0, signed_length));
  if (!IsSignedWith(config, sign_text, signature->second)) {
    CLOUD_LOG(logging::kError, "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]",
              signature->second.c_str(), sign_text.c_str(), config.sk.c_str());
    return kPicAccessDenied;
  }
  return 0;
}

}  // namespace Tansy::CloudStorage
