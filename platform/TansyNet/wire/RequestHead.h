// The part of a request that comes before its body.
#ifndef TANSY_NET_WIRE_REQUEST_HEAD_H
#define TANSY_NET_WIRE_REQUEST_HEAD_H

#include <string>

#include "TansyNet/wire/ClientMessages.h"
#include "TansyNet/wire/Url.h"

namespace TansyNet::details {

// Builds the request line, "Host", the given headers, content type and length, and the empty line. Returns false when
// something in the request would break out of its line.
bool BuildRequestHead(const CHttpClientRequest& request, const URL& url, std::string& head);

}  // namespace TansyNet::details

#endif  // TANSY_NET_WIRE_REQUEST_HEAD_H
