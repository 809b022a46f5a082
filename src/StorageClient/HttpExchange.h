// One request of a client with its answer, and what is known about it when it fails.
#ifndef TANSY_SRC_STORAGE_CLIENT_HTTP_EXCHANGE_H
#define TANSY_SRC_STORAGE_CLIENT_HTTP_EXCHANGE_H

#include <string>

#include "TansyCloudStorage/ClientFailure.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::CloudStorage {

struct SHttpExchange {
  TansyNet::CHttpClientRequest request;  // the body belongs to the code that made it
  TansyNet::CHttpClientResponse rsp = {};
  TansyNet::HttpClient::Error error = {};

  // Returns true when a whole answer came, whatever its status.
  bool Send() { return TansyNet::HttpClient().Send(request, &rsp, &error); }
};

// Describes the failure of a request without an answer; the text is `what` and the two numbers of the HTTP library.
SClientFailure FailureOfSend(const SHttpExchange& exchange, const char* what);

// Describes the failure of a request whose answer is not the expected one; the error's name is taken from its body.
SClientFailure FailureOfAnswer(const SHttpExchange& exchange, ClientError code, const std::string& text);
// Does the same with kUnexpectedAnswer; the text is `what` and the status, or the body that cannot be read.
SClientFailure FailureOfStatus(const SHttpExchange& exchange, const char* what);
SClientFailure FailureOfBody(const SHttpExchange& exchange, const char* what);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_HTTP_EXCHANGE_H
