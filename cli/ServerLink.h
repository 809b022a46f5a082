#ifndef TANSY_CLI_SERVER_LINK_H
#define TANSY_CLI_SERVER_LINK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

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
  std::uint32_t patience_ms = 15000;  // without progress, and until the answer begins
};

// What became of a request.
struct LinkOutcome {
  TansyNet::CHttpClientResponse answer;
  TansyNet::HttpClient::Error error;  // {0, 0} when a whole answer came

  bool IsAnswered() const { return error.kind == TansyNet::HttpClient::kNone; }
  bool IsDone() const { return IsAnswered() && answer.status == 200; }
  // The server's word for what is wrong, "NoSuchKey"; empty when there is none.
  std::string ErrorCode() const;
};

// Plain signed requests to one server, whose address the user or the server of the settings has named. Any thread.
class CServerLink {
 public:
  // Of the object server.
  explicit CServerLink(const Settings& settings) : CServerLink(settings, settings.object_server) {}
  CServerLink(const Settings& settings, const ServerAddress& address);

  // One exchange, whatever comes of it.
  LinkOutcome Try(const LinkRequest& request) const;
  // The same for a large body: `head` gets the head of an answer with status 200, `take` its body in pieces. What they
  // throw ends the exchange and passes through. The body of any other answer is kept in the outcome.
  LinkOutcome Stream(const LinkRequest& request,
                     const std::function<void(const TansyNet::CHttpClientResponse& head)>& head,
                     const std::function<void(const char* data, std::size_t size)>& take) const;
  // What an outcome that is not done means.
  CFailure FailureOf(const LinkOutcome& outcome) const;

  // Throws CFailure with kExitUnreachable when no answer comes.
  TansyNet::CHttpClientResponse Exchange(const LinkRequest& request) const;
  // The same, but any status other than 200 is a failure about `subject`.
  TansyNet::CHttpClientResponse Request(const LinkRequest& request, const std::string& subject) const;

  const ServerAddress& Address() const { return address_; }

 private:
  TansyNet::CHttpClientRequest Signed(const LinkRequest& request) const;

  const ServerAddress address_;
  const std::string access_key_;
  const std::string secret_key_;
};

// Advice after a connection that failed.
inline constexpr char kAdviceUnreachable[] =
    "is the server running, and is the address right? 'tansy doctor' looks closer";

// What an answer that is no success means. `code` is the object protocol's word for the error, empty when the answer
// has none; `server` is the address that answered.
CFailure FailureOfAnswer(int status, const std::string& code, const std::string& server);
// What a request without an answer means.
CFailure FailureOfExchange(const TansyNet::HttpClient::Error& error, const std::string& server);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SERVER_LINK_H
