// One request with its answer.
#ifndef TANSY_NET_CLIENT_EXCHANGE_H
#define TANSY_NET_CLIENT_EXCHANGE_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/client/AnswerReader.h"
#include "TansyNet/client/BodySink.h"
#include "TansyNet/client/ClientConnection.h"
#include "TansyNet/client/ClientError.h"
#include "TansyNet/wire/ClientMessages.h"

namespace TansyNet::details {

// Is told of the bytes that are about to be sent and of those that have come, and may wait.
using Pace = std::function<void(std::size_t bytes)>;

// Threads: one; each exchange has an object of its own. All arguments must outlive it. `pace` may be null.
class CExchange {
 public:
  CExchange(const CHttpClientRequest& request, CHttpClientResponse& response, IBodySink& sink, const Pace& pace)
      : request_(request), response_(response), sink_(sink), pace_(pace) {}

  // Returns true when a whole answer came.
  bool Run(ClientError& error);

 private:
  enum class SendState { kSent, kAnswered, kFailed };

  bool HasEffects() const;
  bool RunOn(CClientConnection& connection, ClientError& error);
  // Sends the request. It stops early when the final head of an answer arrives before everything is sent.
  SendState SendRequest(CClientConnection& connection, CAnswerReader& reader, ClientError& error);
  // Gives what is sent next of the body; with a pace that is a slice, which has been announced.
  std::string_view NextSlice(std::string_view body, std::uint64_t done, std::uint64_t& announced) const;
  SendState ReadEarlyAnswer(CClientConnection& connection, CAnswerReader& reader, ClientError& error);
  bool ReadFinalHead(CAnswerReader& reader, ClientError& error);

  const CHttpClientRequest& request_;
  CHttpClientResponse& response_;
  IBodySink& sink_;
  const Pace& pace_;
  std::string head_;
  // These describe the last attempt: whether the peer closed before any byte of an answer came, and whether the
  // connection may serve again.
  bool closed_unanswered_ = false;
  bool reusable_ = false;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_EXCHANGE_H
