// The head of an answer as text.
#ifndef TANSY_NET_WIRE_RESPONSE_HEAD_H
#define TANSY_NET_WIRE_RESPONSE_HEAD_H

#include <cstdint>
#include <string>

#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

// "Not Found" for 404; "Unknown" for a status without a standard reason.
std::string ReasonOf(int status);

// Whether answers of this status may have a body at all.
bool StatusAllowsBody(int status);

// How the connection goes on after an answer, as its header says it.
enum class Persistence { kDefault, kKeepAlive, kClose };

// Whether the response's own headers ask for the connection's end.
bool AsksToClose(const HttpResponse& response);

// Status line and headers with the empty line that ends them. Lengths and the connection's fate are the library's: what
// the response's headers say about these is left out, as are names that are no names; line ends in values disappear.
std::string BuildResponseHead(const HttpResponse& response, std::uint64_t content_length, Persistence persistence);

// An answer of the library itself, with the reason as its body.
HttpResponse LibraryAnswer(int status);

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_RESPONSE_HEAD_H
