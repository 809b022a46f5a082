// The pace of what is sent and received.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TansyNet/HttpClient.h"
#include "fakes/ScriptedServer.h"

namespace TansyNet {
namespace {

using Tansy::Tests::ScriptedServer;

class HttpClientPaceTest : public testing::Test {
 protected:
  HttpClientPaceTest() {
    HttpClient::SetPace([this](std::size_t bytes) { steps_.push_back(bytes); });
  }
  ~HttpClientPaceTest() override {
    HttpClient::SetPace(nullptr);
    HttpClient::CloseIdleConnections();
  }

  std::size_t Sum() const {
    std::size_t sum = 0;
    for (const std::size_t bytes : steps_) {
      sum += bytes;
    }
    return sum;
  }

  ScriptedServer server_;
  std::vector<std::size_t> steps_;
};

TEST_F(HttpClientPaceTest, CountsEachByteThatIsSentOnceAndInSlices) {
  server_.Answer("PUT /*", {.status = 200});
  const std::string body(100001, 'x');
  CHttpClientRequest request;
  request.method = "PUT";
  request.url = server_.Url("/b/k");
  request.body = body.data();
  request.body_size = body.size();
  HttpClient::Error error;
  ASSERT_TRUE(HttpClient().Send(request, nullptr, &error)) << HttpClient::ErrorText(error);
  EXPECT_EQ(server_.Requests().at(0).body, body);
  EXPECT_EQ(Sum(), body.size());
  for (const std::size_t bytes : steps_) {
    EXPECT_LE(bytes, 16384u);
  }
}

TEST_F(HttpClientPaceTest, CountsWhatComes) {
  const std::string body(300000, 'y');
  server_.Answer("GET /*", {.status = 200, .body = body});
  CHttpClientRequest request;
  request.url = server_.Url("/b/k");
  CHttpClientResponse response;
  HttpClient::Error error;
  ASSERT_TRUE(HttpClient().Send(request, &response, &error)) << HttpClient::ErrorText(error);
  EXPECT_EQ(response.body, body);
  EXPECT_EQ(Sum(), body.size());
  steps_.clear();
  std::string pieces;
  HttpClient().SendForBigRsp(request, [&](const CHttpClientResponse&, const char* data, unsigned int size,
                                          HttpClient::Error, bool) { pieces.append(data, size); });
  EXPECT_EQ(pieces, body);
  EXPECT_EQ(Sum(), body.size());
}

TEST_F(HttpClientPaceTest, IsNotAskedForARequestWithoutBodies) {
  server_.Answer("GET /*", {.status = 204});
  CHttpClientRequest request;
  request.url = server_.Url("/b/k");
  ASSERT_TRUE(HttpClient().Send(request, nullptr, nullptr));
  EXPECT_TRUE(steps_.empty());
}

}  // namespace
}  // namespace TansyNet
