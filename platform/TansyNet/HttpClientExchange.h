// One request and its answer.
#ifndef TANSY_NET_HTTP_CLIENT_EXCHANGE_H
#define TANSY_NET_HTTP_CLIENT_EXCHANGE_H

#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/ClientConnection.h"
#include "TansyNet/HttpClient.h"
#include "TansyNet/HttpClientAnswer.h"
#include "TansyNet/HttpClientSink.h"

namespace TansyNet::details {

// One thread; one object an exchange. All arguments must outlive it.
class CExchange {
 public:
  CExchange(const CHttpClientRequest& request, CHttpClientResponse& response, IBodySink& sink)
      : request_(request), response_(response), sink_(sink) {}

  // True when a whole answer came.
  bool Run(HttpClient::Error& error);

 private:
  enum class SendState { kSent, kAnswered, kFailed };

  bool RunOn(CClientConnection& connection, HttpClient::Error& error);
  // Sends the request; stops early when the final head of an answer arrives first.
  SendState SendRequest(CClientConnection& connection, CAnswerReader& reader, HttpClient::Error& error);
  SendState ReadEarlyAnswer(CClientConnection& connection, CAnswerReader& reader, HttpClient::Error& error);
  bool ReadFinalHead(CAnswerReader& reader, HttpClient::Error& error);

  const CHttpClientRequest& request_;
  CHttpClientResponse& response_;
  IBodySink& sink_;
  std::string head_;
  // Of the attempt that ran last: the peer closed before any byte of an answer; the connection may serve again.
  bool closed_unanswered_ = false;
  bool reusable_ = false;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_HTTP_CLIENT_EXCHANGE_H
