// What the parts of the console get and give.
#ifndef TANSY_HOST_CONSOLE_MESSAGE_H
#define TANSY_HOST_CONSOLE_MESSAGE_H

#include <string>
#include <string_view>

#include "TansyNet/HttpServer.h"

namespace Tansy::Host {

// A request to the console. The texts outlive it.
struct ConsoleRequest {
  std::string_view method;
  std::string_view path;   // below "/console/": "app.js", "api/session"; "" is the page
  std::string_view query;  // without the "?"
  std::string_view ip;     // who asks
  std::string_view body;
  const TansyNet::Headers& headers;
  bool is_secure = false;  // it came by HTTPS

  // Gives a header whatever the spelling of its name; "" when it is missing.
  std::string_view Header(std::string_view name) const;
};

struct ConsoleAnswer {
  int status = 200;
  std::string type;
  std::string body;
  std::string cache = "no-store";
  std::string encoding;  // "gzip" when the body is packed
  TansyNet::Headers headers;
};

// Gives an answer whose body is {"error": words}; the words say what to do.
ConsoleAnswer ConsoleFailure(int status, const std::string& words);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_MESSAGE_H
