// Request signatures: the Authorization header and the token of a query.
#include <string_view>

#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

using TansyNet::Headers;
using TansyNet::HttpServerRecv;

constexpr std::string_view kExtensionHeader = "x-qvs";
constexpr std::string_view kTokenParameter = "&token=";

const std::string& HeaderOrEmpty(const Headers& headers, const std::string& name) {
  static const std::string empty;
  const auto header = headers.find(name);
  return header != headers.end() ? header->second : empty;
}

// "quorvane ak:signature" taken apart.
struct Authorization {
  std::string ak;
  std::string signature;
};

bool ParseAuthorization(Authorization& authorization, const std::string& value, const Caller& caller) {
  const std::size_t colon = value.find(':');
  if (colon == std::string::npos) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]http header Authorization invalid 1! Authorization=%s[%s(%d)]",
                  value.c_str());
    return false;
  }
  const std::string& prefix = AuthPrefix();
  const std::size_t word = value.find(prefix);
  const std::size_t blank = word + prefix.size();
  if (word == std::string::npos || blank >= value.size() || value[blank] != ' ' || colon < blank) {
    CLOUD_LOG_FOR(caller, logging::kError,
                  "[%s]http header Authorization invalid 2! Authorization=%s gauth_prefix=%s[%s(%d)]", value.c_str(),
                  prefix.c_str());
    return false;
  }
  authorization.ak = value.substr(blank + 1, colon - blank - 1);
  authorization.signature = value.substr(colon + 1);
  return true;
}

// The lines of the extension headers in the order of their names; one empty line when there are none.
void AppendExtensionHeaders(std::string& text, const Headers& headers) {
  bool found = false;
  for (const auto& [name, value] : headers) {
    if (name.find(kExtensionHeader) != std::string::npos) {
      text.append(value).append("\n");
      found = true;
    }
  }
  if (!found) {
    text.append("\n");
  }
}

std::string HeaderSignText(const HttpServerRecv& request) {
  const Headers& headers = request.headers;
  const bool standard_md5 = headers.contains("Content-MD5");
  std::string text = request.method;
  text.append("\n").append(HeaderOrEmpty(headers, standard_md5 ? "Content-MD5" : "Content-Md5"));
  text.append("\n").append(HeaderOrEmpty(headers, "Content-Type"));
  text.append("\n").append(HeaderOrEmpty(headers, "Date"));
  text.append("\n");
  AppendExtensionHeaders(text, headers);
  text.append(request.url);
  if (!request.query.empty()) {
    text.append("?").append(request.query);
  }
  return text;
}

// A token is the Base64 of an Authorization value. Anything else is taken for the signature itself and does not match.
std::string TokenSignature(const std::string& token) {
  std::string decoded;
  if (!TansyBase::Encrypt::Base64Decode(token, decoded)) {
    return token;
  }
  const std::size_t colon = decoded.find(':');
  if (colon == std::string::npos || decoded.find(AuthPrefix()) == std::string::npos) {
    return token;
  }
  return decoded.substr(colon + 1);
}

}  // namespace
}  // namespace details

int CObjectServer::CheckAuth(const HttpServerRecv& request) const {
  return CheckAuth(request, *conf_.Load());
}

int CObjectServer::CheckUrlAuth(const HttpServerRecv& request) const {
  return CheckUrlAuth(request, *conf_.Load());
}

int CObjectServer::CheckAuth(const HttpServerRecv& request, const Config& config) {
  if (CheckUrlAuth(request, config) == 0) {
    return 0;
  }
  const auto header = request.headers.find("Authorization");
  if (header == request.headers.end()) {
    CLOUD_LOG(logging::kError, "[%s]http header without Authorization![%s(%d)]");
    return kAccessDenied;
  }
  details::Authorization authorization;
  if (!details::ParseAuthorization(authorization, header->second, OBJECT_SERVER_CALLER)) {
    return kAccessDenied;
  }
  if (authorization.ak != config.ak) {
    CLOUD_LOG(logging::kError, "[%s]ak not equal, server=%s, recv=%s[%s(%d)]", config.ak.c_str(),
              authorization.ak.c_str());
    return kAccessDenied;
  }
  const std::string sign_text = details::HeaderSignText(request);
  if (!CheckHMACResult(sign_text, config.sk, authorization.signature)) {
    CLOUD_LOG(logging::kError, "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]",
              header->second.c_str(), sign_text.c_str(), config.sk.c_str());
    return kAccessDenied;
  }
  return 0;
}

int CObjectServer::CheckUrlAuth(const HttpServerRecv& request, const Config& config) {
  std::map<std::string, std::string> parameters;
  ParseHttpUrlQuery(parameters, request.query);
  const auto token = parameters.find("token");
  if (token == parameters.end()) {
    CLOUD_LOG(logging::kError, "[%s]query not found token![%s(%d)]");
    return kAccessDenied;
  }
  // The token signs the query in front of it. One that comes first has nothing in front of it and is refused.
  const std::size_t token_begin = request.query.find(details::kTokenParameter);
  if (token_begin == std::string::npos) {
    CLOUD_LOG(logging::kError, "[%s]http_query not found token![%s(%d)]");
    return kAccessDenied;
  }
  std::string sign_text = request.method + "\n\n\n\n\n" + request.url + "?";
  sign_text.append(request.query, 0, token_begin);
  if (!CheckHMACResult(sign_text, config.sk, details::TokenSignature(token->second))) {
    CLOUD_LOG(logging::kError, "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]",
              token->second.c_str(), sign_text.c_str(), config.sk.c_str());
    return kAccessDenied;
  }
  return 0;
}

}  // namespace Tansy::CloudStorage
