// What a request's signature is made of, on the server's side. Any thread.
#ifndef TANSY_SRC_STORAGE_SERVER_REQUEST_SIGNATURE_H
#define TANSY_SRC_STORAGE_SERVER_REQUEST_SIGNATURE_H

#include <string>
#include <string_view>

#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// The value of a header, "" when the request has none of this name. Lives as long as the headers.
const std::string& HeaderOrEmpty(const TansyNet::Headers& headers, const std::string& name);

// What a query's token stands behind. The token signs the query in front of this.
inline constexpr std::string_view kTokenParameter = "&token=";
// The part of a query that means anything: up to the end of its token, else all of it. What follows a token is signed
// by nobody, so it says nothing. Lives as long as the request.
std::string_view QueryOf(const TansyNet::HttpServerRecv& request);

// An Authorization value "quorvane ak:signature" taken apart.
struct Authorization {
  std::string ak;
  std::string signature;
};

enum class AuthorizationForm {
  kValid,
  kNoColon,
  kNoScheme,  // no scheme word, no blank after it, or a colon before that blank
};
AuthorizationForm ParseAuthorization(Authorization& authorization, std::string_view value);

// The text that a client signs: method, content digest, content type, date, the values of its extension headers in the
// order of their names (one empty line when there are none), and the path with "?" and the query where there is one.
// `query` is the signed part of the request's query.
std::string BuildSignText(const TansyNet::HttpServerRecv& request, std::string_view content_type, std::string_view date,
                          std::string_view query);

// True when `signature` is the one that the server's secret key makes of `sign_text`. A server with an empty access key
// or an empty secret key knows no signature at all: anybody could make it.
bool IsSignedWith(const StorageServerConfig& config, const std::string& sign_text, const std::string& signature);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_REQUEST_SIGNATURE_H
