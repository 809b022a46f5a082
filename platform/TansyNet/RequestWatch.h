// What a host may learn about requests: each one that has ended, and those that run.
#ifndef TANSY_NET_REQUEST_WATCH_H
#define TANSY_NET_REQUEST_WATCH_H

#include <cstdint>
#include <string>
#include <string_view>

namespace TansyNet {

class COperation;

// A request that has ended. The texts live as long as the call that brings it.
struct FinishedRequest {
  std::string_view id;  // as X-Request-Id names it; empty when the library refused it before it had one
  std::string_view ip;
  std::string_view line;  // method and path as they were sent, without the query
  std::string_view query;
  std::string_view user_agent;
  std::string_view referer;
  const COperation* operation = nullptr;  // null when no server took the request
  int status = 0;                         // kClientLeft when there was no answer
  std::uint64_t bytes_in = 0;             // of the body
  std::uint64_t bytes_out = 0;            // of the answer's body, as far as it was sent
  bool is_whole = true;                   // the whole answer was sent
  // Nanoseconds: from the end of the head to the delivery, to the beginning of its handler, to the answer, to its end.
  std::int64_t delivered = 0;
  std::int64_t opened = 0;
  std::int64_t answered = 0;
  std::int64_t ended = 0;
};

// Is called on the thread that ends the request, which serves other clients too: it must return at once, and must not
// call the library.
using RequestWatch = void (*)(const FinishedRequest& request);

// A request that has been delivered and whose answer has not been sent wholly.
struct RunningRequest {
  std::int32_t handle = 0;
  std::string ip;
  std::string line;
  const COperation* operation = nullptr;
  const char* phase = "";  // "upload", "handling" or "sending"
  std::int64_t nanoseconds = 0;
  std::uint64_t bytes_in = 0;
};

// What the library has to do at present.
struct ServerLoad {
  std::uint32_t connections = 0;
  std::uint32_t most_connections = 0;
  std::uint64_t busy_connections = 0;  // with a request between its head and the end of its answer
  std::uint64_t requests = 0;          // delivered and not answered
};

}  // namespace TansyNet

#endif  // TANSY_NET_REQUEST_WATCH_H
