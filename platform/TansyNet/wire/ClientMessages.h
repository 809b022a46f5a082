// The messages of the client: the request that it sends and the answer that it gets.
#ifndef TANSY_NET_WIRE_CLIENT_MESSAGES_H
#define TANSY_NET_WIRE_CLIENT_MESSAGES_H

#include <cstdint>
#include <string>

#include "TansyNet/wire/Headers.h"

namespace TansyNet {

struct CHttpClientRequest {
  std::string url;  // absolute
  std::string method = "GET";
  // The headers are sent as they are, after "Host", which is derived from the URL when it is missing, unless send_host
  // is false. "Content-Length" and "Transfer-Encoding" are left out, because the library writes them itself.
  Headers headers;
  std::string content_type;
  // The body is not copied, so it must stay alive until Send returns. Null with size 0 means none (PUT and POST then
  // send "Content-Length: 0").
  const char* body = nullptr;
  std::uint64_t body_size = 0;
  bool send_host = true;
  // Time-outs; 0 waits without limit.
  std::uint32_t connect_timeout_ms = 5000;  // look-up, connection and TLS handshake together
  std::uint32_t send_timeout_ms = 15000;    // without progress
  // Limits the wait for the answer's first byte, then for the rest of its head, then the time without progress.
  std::uint32_t receive_timeout_ms = 15000;
  std::uint64_t max_body_bytes = std::uint64_t{4} << 30;  // largest body that Send keeps in memory
};

struct CHttpClientResponse {
  std::int32_t status = 0;
  Headers headers;   // standard names in their standard spelling
  std::string body;  // empty while SendForBigRsp delivers pieces
  // The declared length. When the answer did not declare it, this is the body's size (0 while SendForBigRsp still
  // delivers).
  std::uint64_t content_length = 0;

  // Gives the value of a header, compared without case; "" when it is absent.
  std::string GetHeader(const std::string& name) const;
};

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_CLIENT_MESSAGES_H
