#include "StorageClient/HttpExchange.h"

#include <algorithm>
#include <cstddef>

#include "StorageClient/ServerAddress.h"
#include "TansyBase/StringUtil.h"

using TansyBase::StringUtil;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::size_t kMaxErrorCodeBytes = 64;

bool IsNameCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
}

// Gives the name that follows `before` in `body`; it ends before the first character that cannot be part of a name.
std::string NameBehind(const std::string& body, const std::string& before) {
  const std::size_t found = body.find(before);
  if (found == std::string::npos) {
    return {};
  }
  const auto begin = body.begin() + static_cast<std::ptrdiff_t>(found + before.size());
  const auto end = std::find_if_not(begin, body.end(), IsNameCharacter);
  const std::string name(begin, end);
  return name.size() <= kMaxErrorCodeBytes ? name : std::string();
}

// Object servers answer "<Error><Code>NoSuchKey</Code>...", and picture servers answer {"ErrorCode": -58002, ...}.
std::string ErrorCodeOf(const std::string& body) {
  const std::string code = NameBehind(body, "<Code>");
  return code.empty() ? NameBehind(body, "\"ErrorCode\": ") : code;
}

SClientFailure FailureOfRequest(const TansyNet::CHttpClientRequest& request, ClientError code,
                                const std::string& text) {
  SClientFailure failure;
  failure.code = code;
  failure.text = text;
  failure.address = AddressOfUrl(request.url);
  const std::size_t target = request.url.find(failure.address) + failure.address.size();
  failure.request = request.method + " " + request.url.substr(target);
  return failure;
}

}  // namespace
}  // namespace details

SClientFailure FailureOfSend(const SHttpExchange& exchange, const char* what) {
  SClientFailure failure =
      details::FailureOfRequest(exchange.request, ClientError::kNotSent,
                                StringUtil::str_fmt("%s[%d:%d].", what, exchange.error.kind, exchange.error.detail));
  failure.transport_error = exchange.error.kind;
  failure.system_error = exchange.error.detail;
  return failure;
}

SClientFailure FailureOfAnswer(const SHttpExchange& exchange, ClientError code, const std::string& text) {
  SClientFailure failure = details::FailureOfRequest(exchange.request, code, text);
  failure.http_status = exchange.rsp.status;
  failure.error_code = details::ErrorCodeOf(exchange.rsp.body);
  return failure;
}

SClientFailure FailureOfStatus(const SHttpExchange& exchange, const char* what) {
  return FailureOfAnswer(exchange, ClientError::kUnexpectedAnswer,
                         StringUtil::str_fmt("%s[%d].", what, exchange.rsp.status));
}

SClientFailure FailureOfBody(const SHttpExchange& exchange, const char* what) {
  return FailureOfAnswer(exchange, ClientError::kUnexpectedAnswer,
                         StringUtil::str_fmt("%s[%s].", what, exchange.rsp.body.c_str()));
}

}  // namespace Tansy::CloudStorage
