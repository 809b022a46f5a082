// Signatures: Authorization headers and tokens of queries. The input is a request, its parts separated by NUL bytes:
// query, Authorization header, path, an extension header's value.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Require.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/Encrypt.h"
#include "logging/Logging.h"

namespace {

using Tansy::CloudStorage::CObjectServer;
using Tansy::CloudStorage::SignHmacSha1;

constexpr const char* kSecret = "secret of the fuzzer";

std::vector<std::string> Split(const std::string& text, std::size_t count) {
  std::vector<std::string> parts(count);
  std::size_t begin = 0;
  for (std::size_t i = 0; i < count && begin <= text.size(); ++i) {
    const std::size_t end = i + 1 == count ? text.size() : std::min(text.find('\0', begin), text.size());
    parts[i] = text.substr(begin, end - begin);
    begin = end + 1;
  }
  return parts;
}

// Gives the server its keys; it opens no port and finds no catalogue.
bool InitServer() {
  Tansy::CloudStorage::StorageServerConfig config;
  config.ak = "fuzz";
  config.sk = kSecret;
  return CObjectServer::Instance().Init(config) == 0;
}

// Whatever else is in the request, the right header opens it and no other does. It is dated: one without a date would
// end when its query says so.
void CheckRightHeader(TansyNet::HttpServerRecv request, const std::string& extension) {
  const std::string resource = request.url + (request.query.empty() ? "" : "?" + request.query);
  const std::string signature = SignHmacSha1("GET\n\n\nnow\n" + extension + "\n" + resource, kSecret);
  request.headers["Date"] = "now";
  request.headers["Authorization"] = "quorvane fuzz:" + signature;
  Require(CObjectServer::Instance().CheckAuth(request) == 0);
  request.headers["Authorization"] = "quorvane x:" + signature;
  Require(CObjectServer::Instance().CheckAuth(request) == -1);
  request.headers["Authorization"] = "quorvane fuzz:" + signature + "=";
  Require(CObjectServer::Instance().CheckAuth(request) == -1);
}

// The right token does too, behind any query that holds no other and does not end it.
void CheckRightToken(TansyNet::HttpServerRecv request) {
  if (request.query.empty() || request.query.find("token") != std::string::npos ||
      request.query.find("expires") != std::string::npos) {
    return;
  }
  const std::string signature = SignHmacSha1("GET\n\n\n\n\n" + request.url + "?" + request.query, kSecret);
  std::string token;
  for (const char c : TansyBase::Encrypt::Base64Encode("quorvane fuzz:" + signature)) {
    token += c == '+' ? "%2B" : std::string(1, c);
  }
  request.query += "&token=" + token;
  Require(CObjectServer::Instance().CheckUrlAuth(request) == 0);
  request.url += "x";
  Require(CObjectServer::Instance().CheckUrlAuth(request) == -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  logging::SetSink(nullptr);
  static const bool has_keys = InitServer();
  Require(has_keys);
  const std::vector<std::string> parts = Split(std::string(data, data + size), 4);
  TansyNet::HttpServerRecv request;
  request.method = "GET";
  request.query = parts[0];
  request.headers["Authorization"] = parts[1];
  request.url = parts[2];
  request.headers["x-qvs-a"] = parts[3];

  // Nobody guesses a signature.
  Require(CObjectServer::Instance().CheckAuth(request) == -1);
  Require(CObjectServer::Instance().CheckUrlAuth(request) == -1);
  CheckRightToken(request);
  CheckRightHeader(request, parts[3]);
  return 0;
}
