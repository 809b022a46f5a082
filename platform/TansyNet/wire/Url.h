// Absolute addresses of http and https.
#ifndef TANSY_NET_WIRE_URL_H
#define TANSY_NET_WIRE_URL_H

#include <cstdint>
#include <string>

namespace TansyNet {

// The pieces of an absolute URL.
struct URL {
  std::string scheme;  // "http" or "https"
  std::string host;    // name or address, without brackets
  std::uint16_t port = 0;
  std::string target = "/";  // path and query, as given

  // Returns false when the text is no absolute http or https URL, names a user, or holds blanks or control characters.
  // A fragment ("#...") is left out.
  static bool Parse(const std::string& text, URL& url);
};

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_URL_H
