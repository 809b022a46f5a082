// Stands in for the HTTP library's client: requests are written down with their time-outs and answered by the test,
// without sockets.
//
//   CRecordingHttpClient& http = CRecordingHttpClient::Instance();
//   http.Reset([](const RecordedRequest& request) { return ...; });
//   ... run the code under test ...
//   EXPECT_EQ(http.Requests().at(0).receive_timeout_ms, 15000u);
//
// A program that compiles RecordingHttpClient.cpp in uses it instead of the real TansyNet::HttpClient.
#ifndef TANSY_TESTS_FAKES_RECORDING_HTTP_CLIENT_H
#define TANSY_TESTS_FAKES_RECORDING_HTTP_CLIENT_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TansyNet/HttpClient.h"

namespace Tansy::Tests {

struct RecordedRequest {
  std::string url;
  std::string method;
  TansyNet::Headers headers;
  std::string body;
  std::uint32_t connect_timeout_ms = 0;
  std::uint32_t send_timeout_ms = 0;
  std::uint32_t receive_timeout_ms = 0;
  bool streamed = false;  // asked for in pieces
};

// Any thread.
class CRecordingHttpClient {
 public:
  using Handler = std::function<TansyNet::CHttpClientResponse(const RecordedRequest&)>;

  static CRecordingHttpClient& Instance();

  // Forgets all requests. The handler is called on the threads that send, several at once.
  void Reset(Handler handler);
  std::vector<RecordedRequest> Requests() const;

  // The code under test calls this in place of the library.
  TansyNet::CHttpClientResponse Send(const TansyNet::CHttpClientRequest& request, bool streamed);

 private:
  CRecordingHttpClient() = default;

  mutable std::mutex mutex_;
  Handler handler_;
  std::vector<RecordedRequest> requests_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_RECORDING_HTTP_CLIENT_H
