// links: TansyNet OSAL logging
// What a server sends to the client: heads, bodies of all kinds, and what is no answer. The first byte of the input
// says how the request is made and how the connection ends, the second one how many bytes come at once (0: all), and
// the rest is what the server sends. The client's sockets are played by this program. However an answer is cut, it is
// the same answer, whole or in pieces.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "TansyNet/HttpClient.h"
#include "TansyNet/transport/SystemSockets.h"
#include "logging/Logging.h"

namespace {

using TansyNet::CHttpClientRequest;
using TansyNet::CHttpClientResponse;
using TansyNet::HttpClient;

constexpr std::uint64_t kMostBytes = 1000;

constexpr unsigned char kHead = 1;
constexpr unsigned char kPut = 2;
constexpr unsigned char kReset = 4;   // the connection is cut; otherwise it is closed
constexpr unsigned char kSilent = 8;  // nothing more comes, and the connection stays open

// What the one socket of this program still has to deliver.
struct Wire {
  std::string_view rest;
  std::size_t at_once = 0;
  unsigned char end = 0;
};
Wire g_wire;

}  // namespace

// The sockets of the client: these are called instead of the library's own.
namespace TansyNet::details {

SocketHandle OpenSocket(const SocketAddress& /*address*/, int& error) {
  error = 0;
  return 1;
}

void CloseSocket(SocketHandle /*socket*/) {}

int StartConnect(SocketHandle /*socket*/, const SocketAddress& /*address*/) {
  return 0;
}

IoResult ReceiveBytes(SocketHandle /*socket*/, char* data, std::size_t size) {
  if (g_wire.rest.empty()) {
    if ((g_wire.end & kSilent) != 0) {
      return {.status = IoStatus::kWantRead};
    }
    return (g_wire.end & kReset) != 0 ? IoResult{.status = IoStatus::kFailed, .error = ConnectionResetError()}
                                      : IoResult{.status = IoStatus::kEnd};
  }
  const std::size_t bytes = std::min({size, g_wire.at_once, g_wire.rest.size()});
  std::copy_n(g_wire.rest.begin(), bytes, data);
  g_wire.rest.remove_prefix(bytes);
  return {.status = IoStatus::kDone, .bytes = bytes};
}

IoResult SendBytes(SocketHandle /*socket*/, std::string_view first, std::string_view second) {
  return {.status = IoStatus::kDone, .bytes = first.size() + second.size()};
}

// Nothing is waited for: when nothing more comes, the time is over at once.
bool WaitForSocket(SocketHandle /*socket*/, bool /*for_read*/, bool /*for_write*/, int /*timeout_ms*/) {
  return !g_wire.rest.empty() || (g_wire.end & kSilent) == 0;
}

}  // namespace TansyNet::details

namespace {

CHttpClientRequest MakeRequest(unsigned char behaviour) {
  CHttpClientRequest request;
  request.url = "http://127.0.0.1:9700/b/k";
  request.method = (behaviour & kHead) != 0 ? "HEAD" : (behaviour & kPut) != 0 ? "PUT" : "GET";
  request.max_body_bytes = kMostBytes;
  return request;
}

struct Got {
  bool is_whole = false;
  CHttpClientResponse response;
  HttpClient::Error error;
};

void CheckError(const HttpClient::Error& error, bool is_whole) {
  // "Failed" and "done" cannot be mistaken for each other.
  Require((error.kind == HttpClient::kNone) == is_whole);
  Require((error.detail == 0) == is_whole);
  Require(is_whole || !HttpClient::ErrorText(error).empty());
}

Got Fetch(const CHttpClientRequest& request) {
  Got got;
  got.is_whole = HttpClient().Send(request, &got.response, &got.error);
  HttpClient::CloseIdleConnections();
  CheckError(got.error, got.is_whole);
  if (!got.is_whole) {
    return got;
  }
  const CHttpClientResponse& response = got.response;
  Require(response.status >= 200 && response.status <= 999);
  Require(response.body.size() <= kMostBytes);
  Require(request.method != "HEAD" || response.body.empty());
  Require(response.body.empty() || response.content_length == response.body.size());
  for (const auto& [name, value] : response.headers) {
    Require(!name.empty() && name.find_first_of("\r\n: ") == std::string::npos);
    Require(value.find_first_of("\r\n") == std::string::npos);
  }
  return got;
}

// The same answer in pieces. The final call comes once, and it is the last.
Got FetchInPieces(const CHttpClientRequest& request) {
  Got got;
  int final_calls = 0;
  const bool is_whole = HttpClient().SendForBigRsp(request, [&](const CHttpClientResponse& response, const char* data,
                                                                unsigned int size, HttpClient::Error error, bool last) {
    Require(final_calls == 0);
    Require(size == 0 || error.kind == HttpClient::kNone);
    got.response.status = response.status;
    got.response.headers = response.headers;
    got.response.body.append(data, size);
    got.error = error;
    final_calls += last ? 1 : 0;
  });
  HttpClient::CloseIdleConnections();
  Require(final_calls == 1);
  got.is_whole = got.error.kind == HttpClient::kNone;
  Require(is_whole == got.is_whole);
  CheckError(got.error, is_whole);
  return got;
}

void RequireSame(const Got& left, const Got& right) {
  Require(left.is_whole == right.is_whole);
  if (left.is_whole) {
    Require(left.response.status == right.response.status && left.response.headers == right.response.headers);
    Require(left.response.body == right.response.body);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  logging::SetSink(nullptr);
  if (size < 2) {
    return 0;
  }
  const unsigned char behaviour = data[0];
  const std::string_view stream = std::string_view(reinterpret_cast<const char*>(data), size).substr(2);
  const CHttpClientRequest request = MakeRequest(behaviour);
  g_wire = {stream, stream.size(), behaviour};
  const Got whole = Fetch(request);
  const std::size_t at_once = data[1] == 0 ? stream.size() : data[1];
  g_wire = {stream, at_once, behaviour};
  RequireSame(Fetch(request), whole);
  g_wire = {stream, at_once, behaviour};
  const Got pieces = FetchInPieces(request);
  if (whole.error.kind == HttpClient::kTooLarge) {
    Require(pieces.response.body.size() <= stream.size());
  } else {
    RequireSame(pieces, whole);
  }
  return 0;
}
