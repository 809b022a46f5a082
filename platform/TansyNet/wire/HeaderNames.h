// Spelling of HTTP header names, for both sides of the library.
#ifndef TANSY_NET_WIRE_HEADER_NAMES_H
#define TANSY_NET_WIRE_HEADER_NAMES_H

#include <string_view>

namespace TansyNet {

// Compares ASCII letters only, because header names, methods and tokens consist of ASCII.
bool EqualNoCase(std::string_view left, std::string_view right);

// Says whether a text can be the name of a method or header: letters, digits and a few marks.
bool IsToken(std::string_view text);

// Gives the standard spelling of a standard header name ("content-length" gives "Content-Length"). Any other name comes
// back as it is, and so does "Content-Md5", which signatures treat as a name of its own. The result views either `name`
// or text that lives as long as the process.
std::string_view StandardHeaderName(std::string_view name);

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_HEADER_NAMES_H
