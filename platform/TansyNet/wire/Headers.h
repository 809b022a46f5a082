// Headers of requests and answers, for both sides of the library.
#ifndef TANSY_NET_WIRE_HEADERS_H
#define TANSY_NET_WIRE_HEADERS_H

#include <map>
#include <string>

namespace TansyNet {

// Header names and values, ordered byte by byte. Standard names arrive in their standard spelling whatever the peer
// sent ("Authorization", "Content-MD5", "Host", "Range"), except that "Content-Md5" stays itself; all other names
// arrive as they were sent. When a name is sent twice, the first value counts.
using Headers = std::map<std::string, std::string>;

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_HEADERS_H
