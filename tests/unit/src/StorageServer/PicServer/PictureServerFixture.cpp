#include "PictureServerFixture.h"

#include <cstdlib>
#include <cstring>

#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/ServerComm.h"
#include "TansyCloudStorage/PictureServer.h"

namespace Tansy::CloudStorage {

namespace {

constexpr const char* kDate = "Tue,  3 Nov 2026 08:05:09 GMT";

std::string HeaderOf(const TansyNet::HttpServerRecv& request, const std::string& name) {
  const auto header = request.headers.find(name);
  return header != request.headers.end() ? header->second : "";
}

}  // namespace

FakePictureStore PictureServerTest::store;
std::atomic<int> PictureServerTest::removals;

void PictureServerTest::SetUp() {
  Http().Reset();
  store = FakePictureStore{};
  removals = 0;
}

void PictureServerTest::TearDown() {
  Http().FailSends(0);
  UninitPicServer();
}

StorageServerConfig_V1 PictureServerTest::MakeConfig() {
  StorageServerConfig_V1 config;
  config.upload_port = config.download_port = 9700;
  config.wan_port = config.wan_download_port = 19700;
  config.https_port = config.https_download_port = 9743;
  config.https_wan_port = config.https_wan_download_port = 19743;
  config.ip = "192.168.1.10";
  config.wan_ip = "203.0.113.5";
  config.ak = "access";
  config.sk = "secret";
  config.save_object = [](std::string& location, const char* data, std::uint32_t size, int flag) {
    ++store.saves;
    store.location_before = location;
    store.saved_bytes.assign(data, size);
    store.save_flag = flag;
    location = store.url;
    return store.save_result;
  };
  config.read_object = [](char*& data, std::uint32_t& size, const std::string& location, int flag) {
    ++store.reads;
    store.read_location = location;
    store.size_before = size;
    store.read_flag = flag;
    size = static_cast<std::uint32_t>(store.picture.size());
    if (!store.deliver_null) {
      data = static_cast<char*>(std::malloc(store.picture.size() + 1));
      std::memcpy(data, store.picture.data(), store.picture.size());
    }
    return store.read_result;
  };
  config.remove_object = [](const std::string& location) {
    store.removed.push_back(location);
    ++removals;
    return 0;
  };
  return config;
}

int PictureServerTest::StartServer(const StorageServerConfig_V1& config) {
  const int result = InitPicServer(config);
  log_->Clear();
  return result;
}

TansyNet::HttpServerRecv PictureServerTest::Request(const std::string& method, const std::string& path,
                                                    const std::string& query) {
  TansyNet::HttpServerRecv request;
  request.method = method;
  request.url = path;
  request.query = query;
  request.ip = "198.51.100.9";
  return request;
}

std::string PictureServerTest::AuthorizationFor(const std::string& text) {
  return "quorvane access:" + SignHmacSha1(text, "secret");
}

TansyNet::HttpServerRecv PictureServerTest::Signed(TansyNet::HttpServerRecv request) {
  request.headers["Date"] = kDate;
  const bool form = HeaderOf(request, "Content-Type").find("multipart/form-data") != std::string::npos;
  const std::string type = form ? "multipart/form-data" : HeaderOf(request, "Content-Type");
  const std::string resource = request.url + (request.query.empty() ? "" : "?" + request.query);
  request.headers["Authorization"] = AuthorizationFor(request.method + "\n" + HeaderOf(request, "Content-MD5") + "\n" +
                                                      type + "\n" + kDate + "\n\n" + resource);
  return request;
}

std::vector<TansyNet::FormPart> PictureServerTest::FormOf(std::string_view picture, std::string_view length) {
  return {{"SerialID", "", "", "ignored"}, {"PictureLength", "", "", length}, {"Picture", "", "image/jpeg", picture}};
}

TansyNet::HttpServerRecv PictureServerTest::Upload(const std::vector<TansyNet::FormPart>& parts) {
  const std::string boundary = "------7e02362550dc4";
  TansyNet::HttpServerRecv request = Request("POST", kWritePath);
  request.headers["Content-Type"] = "multipart/form-data; boundary=" + boundary;
  auto body = std::make_shared<std::string>();
  for (const TansyNet::FormPart& part : parts) {
    *body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + std::string(part.name) + "\"\r\n\r\n";
    body->append(part.data).append("\r\n");
  }
  *body += "--" + boundary + "--\r\n";
  request.body_size = request.content_length = static_cast<std::uint32_t>(body->size());
  request.body = body;
  return Signed(request);
}

TansyNet::HttpServerRecv PictureServerTest::Upload(std::string_view picture, const std::string& length) {
  return Upload(FormOf(picture, length));
}

Tests::FakeAnswer PictureServerTest::Ask(const TansyNet::HttpServerRecv& request) {
  return Http().WaitForAnswer(Http().Deliver(&CPictureServer::RecvMsgCallBack, request));
}

void PictureServerTest::ExpectError(const Tests::FakeAnswer& answer, int code, int status) {
  ASSERT_TRUE(answer.IsThere());
  EXPECT_EQ(answer.attempts, 1);
  const std::string begin = "{\"ErrorCode\": " + std::to_string(code) + ", \"Message\": \"";
  EXPECT_EQ(answer.body.substr(0, begin.size()), begin);
  EXPECT_TRUE(answer.body.ends_with("\"}"));
  EXPECT_EQ(answer.response.status, status);
  EXPECT_EQ(answer.response.content_type, "text/json; charset=utf-8");
  EXPECT_EQ(answer.response.headers, (TansyNet::Headers{{"Date", kDate}}));
}

void PictureServerTest::ExpectJson(const Tests::FakeAnswer& answer, const std::string& body) {
  ASSERT_TRUE(answer.IsThere());
  EXPECT_EQ(answer.attempts, 1);
  EXPECT_EQ(answer.body, body);
  EXPECT_EQ(answer.response.status, 200);
  EXPECT_EQ(answer.response.content_type, "text/json; charset=utf-8");
  EXPECT_EQ(answer.response.cache_control, "no-cache");
  EXPECT_EQ(answer.response.headers, (TansyNet::Headers{{"Date", kDate}}));
}

void PictureServerTest::ExpectLog(const std::string& format, int level, const std::string& function) const {
  EXPECT_EQ(log_->Count(format), 1u) << format;
  EXPECT_EQ(log_->Count(format, level), 1u) << format;
  const std::string caller = "[Tansy::CloudStorage::" + function + "]";
  EXPECT_EQ(log_->Text(format).substr(0, caller.size()), caller);
  for (const auto& line : log_->Find(format)) {
    EXPECT_EQ(line.module, "platform.LocalStorage");
  }
}

}  // namespace Tansy::CloudStorage
