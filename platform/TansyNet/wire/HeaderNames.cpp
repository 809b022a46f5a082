#include "TansyNet/wire/HeaderNames.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace TansyNet {
namespace details {
namespace {

// The names are ordered by length, so that a name is compared only with names of its own length.
constexpr auto kNames = std::to_array<std::string_view>({
    "TE",
    "Age",
    "Via",
    "Date",
    "ETag",
    "From",
    "Host",
    "Link",
    "Vary",
    "Allow",
    "Range",
    "Accept",
    "Cookie",
    "Digest",
    "Expect",
    "Origin",
    "Pragma",
    "Prefer",
    "Server",
    "Alt-Svc",
    "Expires",
    "Referer",
    "Trailer",
    "Upgrade",
    "Warning",
    "If-Match",
    "If-Range",
    "Location",
    "Priority",
    "Forwarded",
    "Connection",
    "Early-Data",
    "Keep-Alive",
    "Set-Cookie",
    "User-Agent",
    "Accept-Post",
    "Content-MD5",
    "Repr-Digest",
    "Retry-After",
    "Accept-Patch",
    "Content-Type",
    "MIME-Version",
    "Max-Forwards",
    "Accept-Ranges",
    "Authorization",
    "Cache-Control",
    "Content-Range",
    "If-None-Match",
    "Last-Modified",
    "Accept-Charset",
    "Content-Digest",
    "Content-Length",
    "Accept-Datetime",
    "Accept-Encoding",
    "Accept-Language",
    "Content-Encoding",
    "Content-Language",
    "Content-Location",
    "Proxy-Connection",
    "WWW-Authenticate",
    "If-Modified-Since",
    "Transfer-Encoding",
    "Proxy-Authenticate",
    "Authentication-Info",
    "Content-Disposition",
    "If-Unmodified-Since",
    "Proxy-Authorization",
    "Access-Control-Max-Age",
    "Content-Security-Policy",
    "Proxy-Authentication-Info",
    "Strict-Transport-Security",
    "Upgrade-Insecure-Requests",
    "Access-Control-Allow-Origin",
    "Access-Control-Allow-Headers",
    "Access-Control-Allow-Methods",
    "Access-Control-Expose-Headers",
    "Access-Control-Request-Method",
    "Access-Control-Request-Headers",
    "Access-Control-Allow-Credentials",
});
constexpr std::size_t kLongestName = kNames.back().size();

static_assert(std::is_sorted(kNames.begin(), kNames.end(),
                             [](std::string_view left, std::string_view right) { return left.size() < right.size(); }));

// Holds, for each length, the place where the names of that length begin, and one more place for the end.
constexpr auto kFirstOfLength = [] {
  std::array<std::size_t, kLongestName + 2> first{};
  std::size_t index = 0;
  for (std::size_t length = 0; length < first.size(); ++length) {
    while (index < kNames.size() && kNames[index].size() < length) {
      ++index;
    }
    first[length] = index;
  }
  return first;
}();

constexpr char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace
}  // namespace details

bool EqualNoCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) {
           return details::Lower(a) == details::Lower(b);
         });
}

bool IsToken(std::string_view text) {
  static constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    const char lower = details::Lower(c);
    return (c >= '0' && c <= '9') || (lower >= 'a' && lower <= 'z') || kMarks.find(c) != std::string_view::npos;
  });
}

std::string_view StandardHeaderName(std::string_view name) {
  if (name.size() > details::kLongestName || name == "Content-Md5") {
    return name;
  }
  const std::size_t end = details::kFirstOfLength[name.size() + 1];
  for (std::size_t index = details::kFirstOfLength[name.size()]; index < end; ++index) {
    if (EqualNoCase(details::kNames[index], name)) {
      return details::kNames[index];
    }
  }
  return name;
}

}  // namespace TansyNet
