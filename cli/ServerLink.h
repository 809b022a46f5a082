#ifndef TANSY_CLI_SERVER_LINK_H
#define TANSY_CLI_SERVER_LINK_H

#include <cstdint>
#include <string>

#include "Failure.h"
#include "Settings.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {

// Plain signed requests to one server, for what the module's client classes do not offer. Any thread.
class CServerLink {
 public:
  // Of the object server.
  explicit CServerLink(const Settings& settings) : CServerLink(settings, settings.object_server) {}
  CServerLink(const Settings& settings, const ServerAddress& address);

  // One exchange, whatever the status. Throws CFailure with kExitUnreachable when no answer comes.
  TansyNet::CHttpClientResponse Exchange(const std::string& method, const std::string& resource,
                                         const std::string& body = "", const std::string& content_type = "") const;
  // The same, but any status other than 200 is a failure about `subject`.
  TansyNet::CHttpClientResponse Request(const std::string& method, const std::string& resource,
                                        const std::string& subject, const std::string& body = "",
                                        const std::string& content_type = "") const;

  const ServerAddress& Address() const { return address_; }

 private:
  const ServerAddress address_;
  const std::string access_key_;
  const std::string secret_key_;
};

// Advice after a connection that failed.
inline constexpr char kAdviceUnreachable[] =
    "is the server running, and is the address right? 'tansy doctor' looks closer";

// What an answer that is no success means: the error of the object protocol in its body, else its status.
CFailure FailureOfAnswer(int status, const std::string& body, const std::string& server);
// What a request without an answer means.
CFailure FailureOfExchange(const TansyNet::HttpClient::Error& error, const std::string& server);

// The bucket that uploads go to: the one that the settings name, else the only one that the server has. Throws CFailure
// when there are none or several.
std::string ChooseBucket(const Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SERVER_LINK_H
