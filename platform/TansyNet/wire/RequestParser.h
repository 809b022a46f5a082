// Reads request heads and chunked bodies from pieces of any size.
#ifndef TANSY_NET_WIRE_REQUEST_PARSER_H
#define TANSY_NET_WIRE_REQUEST_PARSER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/wire/Headers.h"

namespace TansyNet {

// Says how a request's body is delimited.
enum class BodyFraming { kNone, kLength, kChunked };

struct RequestHead {
  std::string method;
  std::string path;
  std::string query;
  Headers headers;
  BodyFraming framing = BodyFraming::kNone;
  std::uint64_t content_length = 0;
  bool http11 = true;
  bool keep_alive = true;
  bool expects_continue = false;
};

// Built on Beast's incremental parser, which splits the text. Everything that decides where a body ends is checked
// again here, more strictly: when this server and a proxy in front of it disagree about that, requests can be smuggled
// past the proxy.
class CRequestParser {
 public:
  enum class Progress { kNeedMore, kDone, kFailed };

  explicit CRequestParser(std::uint32_t header_bytes);
  ~CRequestParser();
  CRequestParser(const CRequestParser&) = delete;
  CRequestParser& operator=(const CRequestParser&) = delete;

  // Forgets everything; the next bytes begin a request.
  void Reset();

  // Takes bytes of the head from the front of `input`. The bytes that it leaves there must be there again, followed by
  // more, in the next call; after kDone they are what follows the head. More than 100 fields give kFailed with status
  // 431; two Host fields, or a field that goes on in a second line, give 400.
  Progress ParseHead(std::string_view& input);
  RequestHead& Head();

  // Does the same for a chunked body, whose bytes are appended to `body`. More than `limit` bytes give kFailed with
  // status 413. Trailers are dropped.
  Progress ParseChunks(std::string_view& input, std::string& body, std::uint64_t limit);

  // Gives the status that answers a failure.
  int FailureStatus() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_REQUEST_PARSER_H
