#ifndef TANSY_HOST_CONSOLE_H
#define TANSY_HOST_CONSOLE_H

#include <cstdint>
#include <string_view>
#include <utility>

#include "ConsoleApi.h"
#include "ConsoleMessage.h"

namespace Tansy::Host {

struct ConsoleOptions {
  std::uint16_t s3_port = 0;        // 0 means no HTTP
  std::uint16_t s3_https_port = 0;  // 0 means no HTTPS
};

// The web console: a page for people, and what it asks for. Bytes of objects do not pass through here; the browser
// takes them to and from the S3 server.
//
// Threads: any. Nothing is waited for.
class CConsole {
 public:
  static constexpr std::string_view kFolder = "/console/";
  static constexpr std::string_view kApiFolder = "/console/api/";

  CConsole(ConsoleOptions options, ConsoleSources sources) : options_(options), api_(std::move(sources)) {}

  ConsoleAnswer Answer(const ConsoleRequest& request);

 private:
  const ConsoleOptions options_;
  CConsoleApi api_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_H
