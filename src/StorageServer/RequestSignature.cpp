#include "StorageServer/RequestSignature.h"

#include <cstddef>

#include "StorageServer/ServerComm.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::string_view kExtensionHeader = "x-qvs";

void AppendExtensionHeaders(std::string& text, const TansyNet::Headers& headers) {
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

}  // namespace
}  // namespace details

const std::string& HeaderOrEmpty(const TansyNet::Headers& headers, const std::string& name) {
  // The text is not destroyed at the end of the process, because requests may still be under way then.
  static const std::string& empty = *new std::string;
  const auto header = headers.find(name);
  return header != headers.end() ? header->second : empty;
}

std::string_view QueryOf(const TansyNet::HttpServerRecv& request) {
  const std::string_view query = request.query;
  const std::size_t token = query.find(kTokenParameter);
  if (token == std::string_view::npos) {
    return query;
  }
  return query.substr(0, query.find('&', token + kTokenParameter.size()));
}

AuthorizationForm ParseAuthorization(Authorization& authorization, std::string_view value) {
  const std::size_t colon = value.find(':');
  if (colon == std::string_view::npos) {
    return AuthorizationForm::kNoColon;
  }
  const std::string& scheme = AuthPrefix();
  const std::size_t word = value.find(scheme);
  if (word == std::string_view::npos) {
    return AuthorizationForm::kNoScheme;
  }
  const std::size_t blank = word + scheme.size();
  if (value.substr(blank, 1) != " " || colon < blank) {
    return AuthorizationForm::kNoScheme;
  }
  authorization.ak = value.substr(blank + 1, colon - blank - 1);
  authorization.signature = value.substr(colon + 1);
  return AuthorizationForm::kValid;
}

std::string BuildSignText(const TansyNet::HttpServerRecv& request, std::string_view content_type, std::string_view date,
                          std::string_view query) {
  const TansyNet::Headers& headers = request.headers;
  const bool standard_digest = headers.find("Content-MD5") != headers.end();
  std::string text = request.method;
  text.append("\n").append(HeaderOrEmpty(headers, standard_digest ? "Content-MD5" : "Content-Md5"));
  text.append("\n").append(content_type);
  text.append("\n").append(date);
  text.append("\n");
  details::AppendExtensionHeaders(text, headers);
  text.append(request.url);
  if (!query.empty()) {
    text.append("?").append(query);
  }
  return text;
}

bool IsSignedWith(const StorageServerConfig& config, const std::string& sign_text, const std::string& signature) {
  return !config.ak.empty() && !config.sk.empty() && CheckHMACResult(sign_text, config.sk, signature);
}

}  // namespace Tansy::CloudStorage
