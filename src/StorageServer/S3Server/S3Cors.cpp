#include "StorageServer/S3Server/S3Cors.h"

#include <algorithm>

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr const char* kMethods = "GET, HEAD, PUT, POST, DELETE";
constexpr const char* kReadableHeaders =
    "Accept-Ranges, Content-Encoding, Content-Length, Content-Range, ETag, Last-Modified, x-amz-request-id, "
    "x-amz-version-id";
constexpr const char* kSecondsKept = "3000";

}  // namespace

std::string AllowedOrigin(const std::vector<std::string>& origins, const std::string& origin) {
  if (origin.empty()) {
    return {};
  }
  if (std::find(origins.begin(), origins.end(), "*") != origins.end()) {
    return "*";
  }
  return std::find(origins.begin(), origins.end(), origin) != origins.end() ? origin : std::string();
}

void AddCorsHeaders(TansyNet::Headers& headers, const std::string& readers) {
  if (readers.empty()) {
    return;
  }
  headers["Access-Control-Allow-Origin"] = readers;
  headers["Access-Control-Expose-Headers"] = kReadableHeaders;
  headers["Vary"] = "Origin";
}

TansyNet::Headers PreflightHeaders(const LowerHeaders& request) {
  TansyNet::Headers headers = {{"Access-Control-Allow-Methods", kMethods}, {"Access-Control-Max-Age", kSecondsKept}};
  if (const std::string& asked = ValueOf(request, "access-control-request-headers"); !asked.empty()) {
    headers["Access-Control-Allow-Headers"] = asked;
  }
  return headers;
}

}  // namespace Tansy::CloudStorage::S3
