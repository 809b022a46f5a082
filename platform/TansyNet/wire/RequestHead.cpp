#include "TansyNet/wire/RequestHead.h"

#include <algorithm>
#include <string_view>

#include "TansyNet/wire/HeaderNames.h"

namespace TansyNet::details {

namespace {

bool StaysInLine(std::string_view value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

// Only the library decides how a body is framed. A second statement about that in the head could be used to smuggle
// requests.
bool IsFraming(std::string_view name) {
  return EqualNoCase(name, "Content-Length") || EqualNoCase(name, "Transfer-Encoding");
}

bool Holds(const Headers& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const Headers::value_type& header) { return EqualNoCase(header.first, name); });
}

std::string HostValue(const URL& url) {
  const bool standard_port = url.port == (url.scheme == "https" ? 443 : 80);
  std::string value = url.host;
  if (value.find(':') != std::string::npos) {
    // The zone of an address ("%eth0") is left out, because it means something on this machine only.
    value = "[" + value.substr(0, value.find('%')) + "]";
  }
  return standard_port ? value : value + ":" + std::to_string(url.port);
}

void AddLine(std::string& head, std::string_view name, std::string_view value) {
  head.append(name).append(": ").append(value).append("\r\n");
}

bool AddGivenHeaders(const CHttpClientRequest& request, std::string& head) {
  for (const auto& [name, value] : request.headers) {
    if (!IsToken(name) || !StaysInLine(value)) {
      return false;
    }
    if (!IsFraming(name)) {
      AddLine(head, name, value);
    }
  }
  return true;
}

}  // namespace

bool BuildRequestHead(const CHttpClientRequest& request, const URL& url, std::string& head) {
  const bool bad_body = request.body == nullptr && request.body_size != 0;
  if (!IsToken(request.method) || !StaysInLine(request.content_type) || bad_body) {
    return false;
  }
  head = request.method + " " + url.target + " HTTP/1.1\r\n";
  if (request.send_host && !Holds(request.headers, "Host")) {
    AddLine(head, "Host", HostValue(url));
  }
  if (!AddGivenHeaders(request, head)) {
    return false;
  }
  if (!request.content_type.empty() && !Holds(request.headers, "Content-Type")) {
    AddLine(head, "Content-Type", request.content_type);
  }
  if (request.body_size > 0 || request.method == "PUT" || request.method == "POST") {
    AddLine(head, "Content-Length", std::to_string(request.body_size));
  }
  head += "\r\n";
  return true;
}

}  // namespace TansyNet::details
