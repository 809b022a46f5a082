// The head of an answer as text.
#ifndef TANSY_NET_WIRE_RESPONSE_HEAD_H
#define TANSY_NET_WIRE_RESPONSE_HEAD_H

#include <cstdint>
#include <string>
#include <string_view>

#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

// Gives "Not Found" for 404, and "Unknown" for a status without a standard reason.
std::string ReasonOf(int status);

// Says whether answers of this status may have a body at all.
bool StatusAllowsBody(int status);

// Says how the connection goes on after an answer, for the answer's header.
enum class Persistence { kDefault, kKeepAlive, kClose };

// Says whether the response's own headers ask to close the connection.
bool AsksToClose(const HttpResponse& response);

// Builds the status line and headers with the empty line that ends them. The library decides about lengths and about
// the end of the connection, so headers of the response that speak of these are left out. Names that are no header
// names are left out too, and line ends in values are removed. `request_id` becomes X-Request-Id unless it is empty,
// and `times` becomes Server-Timing.
std::string BuildResponseHead(const HttpResponse& response, std::uint64_t content_length, Persistence persistence,
                              std::string_view request_id = {}, std::string_view times = {});

// Makes an answer of the library itself, with the reason as its body.
HttpResponse LibraryAnswer(int status);

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_RESPONSE_HEAD_H
