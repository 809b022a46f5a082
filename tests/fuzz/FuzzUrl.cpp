// links: TansyNet
// Addresses as users, configurations and redirecting servers give them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Require.h"
#include "TansyNet/HttpClient.h"

namespace {

using TansyNet::URL;

bool StaysInRequestLine(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char letter) {
    const auto value = static_cast<unsigned char>(letter);
    return value <= 0x20 || value == 0x7F;
  });
}

bool Same(const URL& left, const URL& right) {
  return left.scheme == right.scheme && left.host == right.host && left.port == right.port &&
         left.target == right.target;
}

void CheckParsed(const URL& url) {
  Require(url.scheme == "http" || url.scheme == "https");
  Require(!url.host.empty() && url.host.size() <= 255);
  Require(url.host.find_first_of("/?#@[]\\") == std::string::npos);
  Require(url.port != 0);
  Require(!url.target.empty() && url.target.front() == '/');
  Require(url.target.find('#') == std::string::npos);
  Require(StaysInRequestLine(url.host) && StaysInRequestLine(url.target));

  // Put together again, the pieces mean the same.
  const std::string host = url.host.find(':') != std::string::npos ? "[" + url.host + "]" : url.host;
  URL again;
  Require(URL::Parse(url.scheme + "://" + host + ":" + std::to_string(url.port) + url.target, again));
  Require(Same(url, again));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  URL url;
  if (URL::Parse(text, url)) {
    CheckParsed(url);
  } else {
    Require(Same(url, URL()));
  }
  return 0;
}
