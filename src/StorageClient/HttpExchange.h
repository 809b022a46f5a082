// One request of a client with its answer, and what is known of it when it fails.
#ifndef TANSY_SRC_STORAGE_CLIENT_HTTP_EXCHANGE_H
#define TANSY_SRC_STORAGE_CLIENT_HTTP_EXCHANGE_H

#include <string>

#include "TansyCloudStorage/ClientFailure.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::CloudStorage {

struct SHttpExchange {
  TansyNet::CHttpClientRequest request;  // its body stays the maker's
  TansyNet::CHttpClientResponse rsp = {};
  TansyNet::HttpClient::Error error = {};

  // True when a whole answer came, whatever its status.
  bool Send() { return TansyNet::HttpClient().Send(request, &rsp, &error); }
};

// The failure of a request without an answer; the text is `what` and the two numbers of the HTTP library.
SClientFailure FailureOfSend(const SHttpExchange& exchange, const char* what);

// The failure of a request whose answer is not what was asked for; the error's name is taken from its body.
SClientFailure FailureOfAnswer(const SHttpExchange& exchange, ClientError code, const std::string& text);
// The same with kUnexpectedAnswer; the text is `what` and the status, or the body that cannot be read.
SClientFailure FailureOfStatus(const SHttpExchange& exchange, const char* what);
SClientFailure FailureOfBody(const SHttpExchange& exchange, const char* what);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_HTTP_EXCHANGE_H
