// The texts that a request's signature is made of, on the server's side. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_REQUEST_SIGNATURE_H
#define TANSY_SRC_STORAGE_SERVER_REQUEST_SIGNATURE_H

#include <string>
#include <string_view>

#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// Gives the value of a header, or "" when the request has none of this name. The text lives as long as the headers.
const std::string& HeaderOrEmpty(const TansyNet::Headers& headers, const std::string& name);

// This text comes before a query's token. The token signs the query in front of it.
inline constexpr std::string_view kTokenParameter = "&token=";
// Gives the part of a query that counts: up to the end of its token, or all of it when there is no token. What follows
// a token is not signed, so it is ignored. The text lives as long as the request.
std::string_view QueryOf(const TansyNet::HttpServerRecv& request);

// The pieces of an Authorization value "quorvane ak:signature".
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

// Returns true when `signature` is the one that the server's secret key makes of `sign_text`. A server whose access key
// or secret key is empty accepts no signature, because anybody could make it.
bool IsSignedWith(const StorageServerConfig& config, const std::string& sign_text, const std::string& signature);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_REQUEST_SIGNATURE_H
