// One request and its answer, whatever the protocol.
#ifndef TANSY_CLI_EXCHANGE_H
#define TANSY_CLI_EXCHANGE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {

// No answer but a streamed one may have a larger body.
inline constexpr std::uint64_t kMaxAnswerBytes = std::uint64_t{64} << 20;

// The result of a request.
struct LinkOutcome {
  TansyNet::CHttpClientResponse answer;
  TansyNet::HttpClient::Error error;  // {0, 0} when a whole answer came

  bool IsAnswered() const { return error.kind == TansyNet::HttpClient::kNone; }
  bool IsDone() const { return IsAnswered() && answer.status == 200; }
  // Gives the server's name for the error, for example "NoSuchKey"; it is empty when there is none.
  std::string ErrorCode() const;
};

// Says whether a refusal means that the server's disk is full.
bool MeansFullServer(int status, const std::string& error_code);

using IsSuccess = bool (*)(int status);
using TakeHead = std::function<void(const TansyNet::CHttpClientResponse& head)>;
// Receives each piece of a body. An exception of it ends the exchange and reaches the caller.
using TakeBytes = std::function<void(const char* data, std::size_t size)>;

// Does one exchange for a large body: `head` gets the head of a successful answer, `take` its body in pieces. An
// exception of either ends the exchange and reaches the caller. The body of any other answer is kept in the outcome.
LinkOutcome StreamAnswer(const TansyNet::CHttpClientRequest& request, IsSuccess is_success, const TakeHead& head,
                         const TakeBytes& take);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_EXCHANGE_H
