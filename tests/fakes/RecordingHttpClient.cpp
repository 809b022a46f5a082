#include "fakes/RecordingHttpClient.h"

#include <utility>

namespace Tansy::Tests {

CRecordingHttpClient& CRecordingHttpClient::Instance() {
  static CRecordingHttpClient instance;
  return instance;
}

void CRecordingHttpClient::Reset(Handler handler) {
  const std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
  requests_.clear();
}

std::vector<RecordedRequest> CRecordingHttpClient::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

TansyNet::CHttpClientResponse CRecordingHttpClient::Send(const TansyNet::CHttpClientRequest& request, bool streamed) {
  RecordedRequest recorded{
      .url = request.url,
      .method = request.method,
      .headers = request.headers,
      .body = request.body == nullptr ? std::string() : std::string(request.body, request.body_size),
      .connect_timeout_ms = request.connect_timeout_ms,
      .send_timeout_ms = request.send_timeout_ms,
      .receive_timeout_ms = request.receive_timeout_ms,
      .streamed = streamed};
  Handler handler;
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(recorded);
    handler = handler_;
  }
  TansyNet::CHttpClientResponse response = handler ? handler(recorded) : TansyNet::CHttpClientResponse{};
  response.content_length = response.body.size();
  return response;
}

}  // namespace Tansy::Tests

namespace TansyNet {

using Tansy::Tests::CRecordingHttpClient;

bool HttpClient::Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error) {
  CHttpClientResponse answer = CRecordingHttpClient::Instance().Send(request, false);
  if (response != nullptr) {
    *response = std::move(answer);
  }
  if (error != nullptr) {
    *error = {};
  }
  return true;
}

bool HttpClient::SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback) {
  CHttpClientResponse answer = CRecordingHttpClient::Instance().Send(request, true);
  const std::string body = std::exchange(answer.body, {});
  callback(answer, body.data(), static_cast<unsigned int>(body.size()), {}, true);
  return true;
}

}  // namespace TansyNet
