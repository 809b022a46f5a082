#ifndef TANSY_HOST_CONSOLE_PLACE_H
#define TANSY_HOST_CONSOLE_PLACE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tansy::Host {

// Where a browser has the console from, and where it finds the S3 server.
struct ConsolePlace {
  std::string origin;   // of the page: "https://nas.example.org:9703"
  std::string s3_host;  // as a browser writes it into the Host header: without the usual port of the scheme
  std::string s3;       // "https://" and that; empty when the page cannot reach any S3 port
};

// The S3 server is at the host that the console was asked for, whatever name that was. A page that came by HTTPS may
// use HTTPS only; one that came by HTTP uses HTTP where there is an HTTP port. Ports of 0 are not there. The result is
// empty when `host_header` is no host with or without a port.
std::optional<ConsolePlace> FindConsolePlace(std::string_view host_header, bool is_secure, std::uint16_t s3_port,
                                             std::uint16_t s3_https_port);

// Gives the Content-Security-Policy of the page: nothing from anywhere but the page's own files, and the S3 server for
// objects.
std::string ConsolePolicy(const ConsolePlace& place);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_PLACE_H
