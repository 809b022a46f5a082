// Request signatures: the Authorization header and the token of a query.
#include <string_view>

#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/RequestSignature.h"
#include "StorageServer/ServerComm.h"
#include "StorageServer/SignatureDate.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

bool TakeAuthorization(Authorization& authorization, const std::string& value, const Caller& caller) {
  switch (ParseAuthorization(authorization, value)) {
    case AuthorizationForm::kNoColon:
      CLOUD_LOG_FOR(caller, logging::kError, "[%s]http header Authorization invalid 1! Authorization=%s[%s(%d)]",
                    value.c_str());
      return false;
    case AuthorizationForm::kNoScheme:
      CLOUD_LOG_FOR(caller, logging::kError,
                    "[%s]http header Authorization invalid 2! Authorization=%s gauth_prefix=%s[%s(%d)]", value.c_str(),
                    AuthPrefix().c_str());
      return false;
    case AuthorizationForm::kValid:
      break;
  }
  return true;
}

// Takes a token apart, which is the Base64 text of an Authorization value. Returns false for anything else, also for a
// signature without the rest.
bool TakeTokenSignature(std::string& signature, const std::string& token) {
  std::string decoded;
  if (!TansyBase::Encrypt::Base64Decode(token, decoded)) {
    return false;
  }
  const std::size_t colon = decoded.find(':');
  if (colon == std::string::npos || decoded.find(AuthPrefix()) == std::string::npos) {
    return false;
  }
  signature = decoded.substr(colon + 1);
  return true;
}

std::map<std::string, std::string> ParametersOf(const TansyNet::HttpServerRecv& request) {
  std::map<std::string, std::string> parameters;
  ParseHttpUrlQuery(parameters, std::string(QueryOf(request)));
  return parameters;
}

// Whether the moment is past that a link names in its query. Most name none.
bool HasExpired(const std::map<std::string, std::string>& parameters, const Caller& caller) {
  const auto expires = parameters.find("expires");
  if (expires == parameters.end() || IsNotExpired(expires->second)) {
    return false;
  }
  CLOUD_LOG_FOR(caller, logging::kError, "[%s]token expired[%s].[%s(%d)]", expires->second.c_str());
  return true;
}

}  // namespace
}  // namespace details

int CObjectServer::CheckAuth(const HttpServerRecv& request) const {
  return CheckAuth(request, *conf_.Load(), DateRule::kInWindow);
}

int CObjectServer::CheckUrlAuth(const HttpServerRecv& request) const {
  return CheckUrlAuth(request, *conf_.Load());
}

int CObjectServer::CheckAuth(const HttpServerRecv& request, const Config& config, DateRule date_rule) {
  if (CheckUrlAuth(request, config) == 0) {
    return 0;
  }
  const auto header = request.headers.find("Authorization");
  if (header == request.headers.end()) {
    CLOUD_LOG(logging::kError, "[%s]http header without Authorization![%s(%d)]");
    return kAccessDenied;
  }
  Authorization authorization;
  if (!details::TakeAuthorization(authorization, header->second, CLOUD_LOG_CALLER)) {
    return kAccessDenied;
  }
  if (authorization.ak != config.ak) {
    CLOUD_LOG(logging::kError, "[%s]ak not equal, server=%s, recv=%s[%s(%d)]", config.ak.c_str(),
              authorization.ak.c_str());
    return kAccessDenied;
  }
  const std::string& date = HeaderOrEmpty(request.headers, "Date");
  const std::string sign_text =
      BuildSignText(request, HeaderOrEmpty(request.headers, "Content-Type"), date, request.query);
  if (!IsSignedWith(config, sign_text, authorization.signature)) {
    CLOUD_LOG(logging::kError, "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]",
              header->second.c_str(), sign_text.c_str(), config.sk.c_str());
    return kAccessDenied;
  }
  if (date_rule == DateRule::kInWindow && !IsDateInWindow(date)) {
    CLOUD_LOG(logging::kError, "[%s]http header Date refused! Date=%s window=%d minutes[%s(%d)]", date.c_str(),
              DateWindow());
    return kAccessDenied;
  }
  // A signature without a date may be that of a link, taken out of its token, because both sign the same text. The link
  // would have no end if it ended as a token only.
  if (date.empty() && details::HasExpired(details::ParametersOf(request), CLOUD_LOG_CALLER)) {
    return kAccessDenied;
  }
  return 0;
}

int CObjectServer::CheckUrlAuth(const HttpServerRecv& request, const Config& config) {
  const std::map<std::string, std::string> parameters = details::ParametersOf(request);
  const auto token = parameters.find("token");
  if (token == parameters.end()) {
    // Fixed: docs/compatibility.md, "Error lines of a healthy server".
    CLOUD_LOG(logging::kError, "[%s]query not found token![%s(%d)]");
    return kAccessDenied;
  }
  // The token signs the query in front of it. A token at the beginning of the query has nothing in front of it and is
  // refused.
  const std::size_t token_begin = request.query.find(kTokenParameter);
  if (token_begin == std::string::npos) {
    CLOUD_LOG(logging::kError, "[%s]http_query not found token![%s(%d)]");
    return kAccessDenied;
  }
  std::string sign_text = request.method + "\n\n\n\n\n" + request.url + "?";
  sign_text.append(request.query, 0, token_begin);
  std::string signature;
  if (!details::TakeTokenSignature(signature, token->second) || !IsSignedWith(config, sign_text, signature)) {
    CLOUD_LOG(logging::kError, "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]",
              token->second.c_str(), sign_text.c_str(), config.sk.c_str());
    return kAccessDenied;
  }
  return details::HasExpired(parameters, CLOUD_LOG_CALLER) ? int{kAccessDenied} : 0;
}

}  // namespace Tansy::CloudStorage
