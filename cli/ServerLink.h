#ifndef TANSY_CLI_SERVER_LINK_H
#define TANSY_CLI_SERVER_LINK_H

#include <cstdint>
#include <string>
#include <string_view>

#include "Exchange.h"
#include "Failure.h"
#include "Settings.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {

// One request before it is signed.
struct LinkRequest {
  std::string method = "GET";
  std::string resource = "/";  // path and query
  std::string_view body = {};
  std::string content_type = {};
  std::string range = {};             // "A-B" of the Range header; empty: none
  std::uint32_t patience_ms = 15000;  // longest time without progress, and until the answer begins
};

// Sends plain signed requests to one server, whose address comes from the user or from the server of the settings.
// Threads: any.
class CServerLink {
 public:
  // Makes a link to the object server.
  explicit CServerLink(const Settings& settings) : CServerLink(settings, settings.object_server) {}
  CServerLink(const Settings& settings, const ServerAddress& address);

  // Does one exchange, whatever its result is.
  LinkOutcome Try(const LinkRequest& request) const;
  // Does the same for a large body, as StreamAnswer does; success is status 200.
  LinkOutcome Stream(const LinkRequest& request, const TakeHead& head, const TakeBytes& take) const;
  // Explains an outcome that is no success.
  CFailure FailureOf(const LinkOutcome& outcome) const;

  // Sends a request and gives its answer. Throws CFailure with kExitUnreachable when no answer comes.
  TansyNet::CHttpClientResponse Exchange(const LinkRequest& request) const;
  // Does the same, but any status other than 200 is a failure about `subject`.
  TansyNet::CHttpClientResponse Request(const LinkRequest& request, const std::string& subject) const;

  const ServerAddress& Address() const { return address_; }

 private:
  TansyNet::CHttpClientRequest Signed(const LinkRequest& request) const;

  const ServerAddress address_;
  const std::string access_key_;
  const std::string secret_key_;
};

// The advice after a connection that failed.
inline constexpr char kAdviceUnreachable[] =
    "is the server running, and is the address right? 'tansy doctor' looks closer";

// Explains an answer that is no success. `code` is the object protocol's name of the error, empty when the answer has
// none; `server` is the address that answered.
CFailure FailureOfAnswer(int status, const std::string& code, const std::string& server);
// Explains a request that got no answer.
CFailure FailureOfExchange(const TansyNet::HttpClient::Error& error, const std::string& server);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SERVER_LINK_H
