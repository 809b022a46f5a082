// What the picture client sends, byte for byte, and what it makes of the answers.
#include "StorageClient/PictureProtoClient.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "PictureClientFixture.h"
#include "fakes/Ipv6Loopback.h"

namespace Tansy::CloudStorage {
namespace {

using Tests::ScriptedRequest;
using Tests::ScriptedServer;

constexpr char kSendUrl[] = "[%s][PicClient]send url[%s][%s(%d)]";
constexpr char kNodeNotSent[] = "[%s][PicClient]send get best node failed, error[%d:%d][%s(%d)]";
constexpr char kNodeStatus[] = "[%s][PicClient]get best node failed, error[%d:%s][%s(%d)]";
constexpr char kNotParsable[] = "[%s][PicClient]get best node failed, invalid xml[%s][%s(%d)]";
constexpr char kNodeFound[] = "[%s][PicClient]get best node success, location[%s][%s(%d)]";
constexpr char kUploadNotSent[] = "[%s][PicClient]send upload picture failed, error[%d:%d][%s(%d)]";
constexpr char kUploadStatus[] = "[%s][PicClient]upload picture failed, error[%d:%s][%s(%d)]";
constexpr char kUploaded[] = "[%s][PicClient]upload picture success, url[%s][%s(%d)]";
constexpr char kDownloadNotSent[] = "[%s][PicClient]send download picture failed, url:%s[%s(%d)]";
constexpr char kDownloadStatus[] =
    "[%s][PicClient]send download picture failed, url:%s, status code:%d, body:%s[%s(%d)]";
constexpr char kBadLocation[] = "[%s][PicClient]send download picture failed, invalid new Location:%s[%s(%d)]";
constexpr char kRedirectNotSent[] = "[%s][PicClient]send download picture failed, redirect url:%s[%s(%d)]";
constexpr char kRedirectStatus[] =
    "[%s][PicClient]send download picture failed, redirect url:%s, status code:%d, body:%s[%s(%d)]";

constexpr char kGuid[] = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class CPicProtoClientTest : public CPictureClientFixture {
 protected:
  using CPictureClientFixture::CPictureClientFixture;

  std::shared_ptr<const SStorageServerConfig> Config() const {
    return std::make_shared<const SStorageServerConfig>(config_);
  }

  bool GetBestNode() {
    CPicProtoClient client(Config());
    return client.GetBestNode(address_, port_, token_);
  }

  bool Upload(const std::string& picture) {
    CPicProtoClient client(Config());
    return client.UploadPic(url_, server_.Url(""), "the-token", picture.data(),
                            static_cast<std::uint32_t>(picture.size()));
  }

  bool Download(const std::string& url) {
    char* data = nullptr;
    std::uint32_t size = 0;
    picture_.clear();
    if (!CPicProtoClient(Config()).DownloadPic(&data, size, url)) {
      return false;
    }
    const std::unique_ptr<char[]> owner(data);
    picture_.assign(data, size);
    return true;
  }

  // Only this line was logged at level 5.
  void ExpectOnlyError(const char* format, const std::string& text) {
    EXPECT_EQ(log_->Count(format, 5), 1U) << format;
    EXPECT_TRUE(Contains(log_->Text(format), text)) << log_->Text(format);
    for (const Tests::LogLine& line : log_->Lines()) {
      EXPECT_TRUE(line.level != 5 || line.format == format) << line.text;
    }
  }

  std::string address_;
  std::string port_;
  std::string token_;
  std::string url_ = "before";
  std::string picture_;
};

TEST_F(CPicProtoClientTest, TheBestNodeRequestIsExactlyThis) {
  server_.Answer("GET *", BestNodeAnswer("10.0.0.7", "8081"));
  ASSERT_TRUE(GetBestNode());
  EXPECT_EQ(address_, "10.0.0.7");
  EXPECT_EQ(port_, "8081");
  EXPECT_EQ(token_, "the-token");

  const ScriptedRequest sent = server_.Requests().at(0);
  const std::regex target(std::string("/Quorvane/BestNode\\?SerialID=") + kGuid + "&PoolID=pool&Replication=0");
  EXPECT_TRUE(std::regex_match(sent.target, target)) << sent.target;
  EXPECT_EQ(sent.head, "GET " + sent.target +
                           " HTTP/1.1\r\nAuthorization: " + ExpectedAuthorization("GET", "", kDate, sent.target) +
                           "\r\nDate: " + kDate + "\r\nHost: " + server_.Address() + "\r\n\r\n");
  EXPECT_EQ(sent.body, "");
}

TEST_F(CPicProtoClientTest, TheBestNodeRequestIsLogged) {
  server_.Answer("GET *", BestNodeAnswer("10.0.0.7", "8081"));
  ASSERT_TRUE(GetBestNode());
  EXPECT_EQ(log_->Count(kSendUrl, 2), 1U);
  EXPECT_TRUE(Contains(log_->Text(kSendUrl), "[PicClient]send url[" + server_.Url(server_.Requests().at(0).target)));
  EXPECT_EQ(log_->Count(kNodeFound, 3), 1U);
  EXPECT_TRUE(Contains(log_->Text(kNodeFound), "[PicClient]get best node success, location[http://10.0.0.7:8081]["));
  EXPECT_TRUE(Contains(log_->Text(kNodeFound), "Tansy::CloudStorage::CPicProtoClient::GetBestNode"));
}

TEST_F(CPicProtoClientTest, TheBestNodeIsAskedOfTheUploadPort) {
  config_.download_port = 1;
  server_.Answer("GET *", BestNodeAnswer("10.0.0.7", "8081"));
  EXPECT_TRUE(GetBestNode());
}

TEST_F(CPicProtoClientTest, EachUploadHasASerialIdOfItsOwn) {
  server_.Answer("GET *", BestNodeAnswer("10.0.0.7", "8081"));
  EXPECT_TRUE(GetBestNode());
  EXPECT_TRUE(GetBestNode());
  EXPECT_NE(server_.Requests().at(0).target, server_.Requests().at(1).target);
}

TEST_F(CPicProtoClientTest, ABestNodeRequestThatIsNotAnsweredFails) {
  server_.Answer("GET *", {.cut_after = 0});
  EXPECT_FALSE(GetBestNode());
  ExpectOnlyError(kNodeNotSent, "[PicClient]send get best node failed, error[6:");
  EXPECT_FALSE(Contains(log_->Text(kNodeNotSent), "error[6:0]"));
}

TEST_F(CPicProtoClientTest, AnyOtherStatusThan200IsNoBestNode) {
  for (const int status : {201, 204, 302, 403, 500}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("GET *", {.status = status, .body = status == 204 ? "" : "why"});
    EXPECT_FALSE(GetBestNode());
    ExpectOnlyError(kNodeStatus, "[PicClient]get best node failed, error[" + std::to_string(status) +
                                     (status == 204 ? ":][" : ":why]["));
  }
}

TEST_F(CPicProtoClientTest, ABestNodeThatIsNoJsonFails) {
  for (const std::string body : {"", "<xml/>", "{\"GatewayIP\":", "{} {}"}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("GET *", {.body = body});
    EXPECT_FALSE(GetBestNode()) << body;
    ExpectOnlyError(kNotParsable, "[PicClient]get best node failed, invalid xml[" + body + "][");
  }
}

TEST_F(CPicProtoClientTest, AFloodInsteadOfABestNodeIsCutOff) {
  server_.Answer("GET *", {.body = std::string(1024 * 1024 + 1, ' ')});
  EXPECT_FALSE(GetBestNode());
  ExpectOnlyError(kNodeNotSent, "[PicClient]send get best node failed, error[9:");
}

TEST_F(CPicProtoClientTest, OfALongAnswerTheLogKeepsTheStart) {
  server_.Answer("GET *", {.status = 500, .body = "begin" + std::string(100000, 'x')});
  EXPECT_FALSE(GetBestNode());
  ExpectOnlyError(kNodeStatus, "error[500:beginxxx");
  EXPECT_LT(log_->Text(kNodeStatus).size(), 5000U);
}

TEST_F(CPicProtoClientTest, AGatewayIsNamedWithTheConfiguredScheme) {
  EXPECT_EQ(CPicProtoClient(Config()).GatewayLocation("10.0.0.7", "80"), "http://10.0.0.7:80");
  EXPECT_EQ(CPicProtoClient(Config()).GatewayLocation("fd00::7", "80"), "http://[fd00::7]:80");
  EXPECT_EQ(CPicProtoClient(Config()).GatewayLocation("[fd00::7]", "80"), "http://[fd00::7]:80");
  config_.is_https = true;
  EXPECT_EQ(CPicProtoClient(Config()).GatewayLocation("10.0.0.7", "443"), "https://10.0.0.7:443");
}

std::string Field(const std::string& name, const std::string& value) {
  return "--------7e02362550dc4\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}

std::string Form(const std::string& serial_id, const std::string& length, const std::string& picture) {
  return Field("SerialID", serial_id) + Field("PoolID", "pool") + Field("TimeStamp", "1793693109000") +
         Field("PictureType", "1") + Field("Token", "the-token") + Field("PictureLength", length) +
         "--------7e02362550dc4\r\nContent-Disposition: form-data; name=\"Picture\"\r\nContent-Type: "
         "image/jpeg\r\n\r\n" +
         picture + "\r\n--------7e02362550dc4--\r\n\r\n";
}

TEST_F(CPicProtoClientTest, TheUploadRequestIsExactlyThis) {
  ScriptUpload();
  CPicProtoClient client(Config());
  ASSERT_TRUE(client.GetBestNode(address_, port_, token_));
  ASSERT_TRUE(client.UploadPic(url_, client.GatewayLocation(address_, port_), token_, "P", 1));
  EXPECT_EQ(url_, "/pic?id=1");

  const std::string node_target = server_.Requests().at(0).target;
  const std::string serial_id = node_target.substr(node_target.find('=') + 1, 36);
  const ScriptedRequest sent = server_.Requests().at(1);
  const std::string body = Form(serial_id, "1", "P");
  EXPECT_EQ(sent.body, body);
  EXPECT_EQ(sent.head, "POST /Quorvane/Picture/Write HTTP/1.1\r\nAuthorization: " +
                           ExpectedAuthorization("POST", "multipart/form-data", kDate, "/Quorvane/Picture/Write") +
                           "\r\nDate: " + kDate + "\r\nHost: " + server_.Address() +
                           "\r\nContent-Type: multipart/form-data; boundary=------7e02362550dc4\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\n\r\n");
}

TEST_F(CPicProtoClientTest, AnyBytesMakeAPicture) {
  ScriptUpload();
  const std::string picture("\0\r\n--------7e02362550dc4--\r\n\xFF", 29);
  ASSERT_TRUE(Upload(picture));
  EXPECT_EQ(server_.Requests().at(0).body, Form("", "29", picture));
  ASSERT_TRUE(Upload(""));
  EXPECT_EQ(server_.Requests().at(1).body, Form("", "0", ""));
}

// The gateway may be another machine; the Host header goes on naming the configured server.
TEST_F(CPicProtoClientTest, TheUploadGoesToTheGatewayInTheNameOfTheServer) {
  ScriptedServer gateway;
  server_.Answer("GET *", BestNodeAnswer("127.0.0.1", std::to_string(gateway.Port())));
  gateway.Answer("POST *", {.body = R"({"PictureUrl":"/pic?id=2"})"});
  EXPECT_TRUE(CPictureClient(config_).UploadPicture(url_, "P", 1));
  EXPECT_EQ(url_, "/pic?id=2");
  EXPECT_EQ(server_.Requests().size(), 1U);
  EXPECT_EQ(gateway.Requests().at(0).Header("Host"), server_.Address());
}

TEST_F(CPicProtoClientTest, ASuccessfulUploadIsLogged) {
  ScriptUpload();
  ASSERT_TRUE(Upload("P"));
  EXPECT_EQ(log_->Count(kUploaded, 3), 1U);
  EXPECT_TRUE(Contains(log_->Text(kUploaded), "[PicClient]upload picture success, url[/pic?id=1]["));
}

TEST_F(CPicProtoClientTest, AnUploadThatIsNotAnsweredFails) {
  server_.Answer("POST *", {.cut_after = 0});
  EXPECT_FALSE(Upload("P"));
  EXPECT_EQ(url_, "before");
  ExpectOnlyError(kUploadNotSent, "[PicClient]send upload picture failed, error[6:");
}

TEST_F(CPicProtoClientTest, AnyOtherStatusThan200IsNoUpload) {
  for (const int status : {201, 302, 400, 500}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("POST *", {.status = status, .body = R"({"ErrorCode": -50001, "Message": "m"})"});
    EXPECT_FALSE(Upload("P"));
    ExpectOnlyError(kUploadStatus, "[PicClient]upload picture failed, error[" + std::to_string(status) +
                                       R"(:{"ErrorCode": -50001, "Message": "m"}][)");
  }
}

// The words are those of the best-node request.
TEST_F(CPicProtoClientTest, AnUploadAnswerWithoutAnAddressFails) {
  for (const std::string body : {"no json", "{}", "[]"}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("POST *", {.body = body});
    EXPECT_FALSE(Upload("P"));
    EXPECT_EQ(url_, "before");
    ExpectOnlyError(kNotParsable, "[PicClient]get best node failed, invalid xml[" + body + "][");
    EXPECT_TRUE(Contains(log_->Text(kNotParsable), "CPicProtoClient::UploadPic"));
  }
}

TEST_F(CPicProtoClientTest, ARefusalWhileABigPictureIsSentIsReported) {
  server_.Answer("POST *", {.status = 500, .body = "busy", .before_body = true});
  EXPECT_FALSE(Upload(std::string(33554432, 'p')));
  ExpectOnlyError(kUploadStatus, "[PicClient]upload picture failed, error[500:busy][");
}

TEST_F(CPicProtoClientTest, TheDownloadRequestIsExactlyThis) {
  server_.Answer("GET /pic?id=1&x=%20", {.body = "jpeg"});
  ASSERT_TRUE(Download("/pic?id=1&x=%20"));
  EXPECT_EQ(picture_, "jpeg");
  EXPECT_EQ(server_.Requests().at(0).head, "GET /pic?id=1&x=%20 HTTP/1.1\r\nAuthorization: " +
                                               ExpectedAuthorization("GET", "", kDate, "/pic?id=1&x=%20") +
                                               "\r\nDate: " + kDate + "\r\nHost: " + server_.Address() + "\r\n\r\n");
}

TEST_F(CPicProtoClientTest, APathIsAskedOfTheDownloadPort) {
  config_.upload_port = 1;
  server_.Answer("GET /pic?id=1", {.body = "jpeg"});
  EXPECT_TRUE(Download("/pic?id=1"));
}

TEST_F(CPicProtoClientTest, AWholeUrlOfTheConfiguredServerIsAskedThere) {
  server_.Answer("GET /pic?id=1", {.body = "jpeg"});
  config_.download_port = 1;
  ASSERT_TRUE(Download(server_.Url("/pic?id=1#part")));
  EXPECT_EQ(picture_, "jpeg");
  const ScriptedRequest sent = server_.Requests().at(0);
  EXPECT_EQ(sent.Header("Host"), server_.Address());
  EXPECT_EQ(sent.Header("Authorization"), ExpectedAuthorization("GET", "", kDate, "/pic?id=1"));
  config_.ip = "LOCALHOST";
  EXPECT_TRUE(Download("http://localhost:" + std::to_string(server_.Port()) + "/pic?id=1"));
}

TEST_F(CPicProtoClientTest, NoOtherServerGetsToSeeASignature) {
  const ScriptedServer other;
  const std::string port = std::to_string(server_.Port());
  config_.upload_port = config_.download_port = server_.Port();
  for (const std::string& url :
       std::vector<std::string>{other.Url("/pic?id=1"), "https://127.0.0.1:" + port + "/pic?id=1",
                                "http://localhost:" + port + "/pic?id=1", "http://127.0.0.1.example/pic?id=1"}) {
    log_->Clear();
    CPicProtoClient client(Config());
    char* data = nullptr;
    std::uint32_t size = 0;
    EXPECT_FALSE(client.DownloadPic(&data, size, url)) << url;
    ExpectOnlyError(kDownloadNotSent, "[PicClient]send download picture failed, url:" + url + "[");
    EXPECT_EQ(client.Failure().code, ClientError::kForeignAddress);
    EXPECT_EQ(client.Failure().text, "url[" + url + "] names another server.");
  }
  EXPECT_EQ(other.ConnectionCount(), 0);
  EXPECT_EQ(server_.ConnectionCount(), 0);
}

// The server that checks the signature sees no query in this.
TEST_F(CPicProtoClientTest, AnEmptyQueryIsNotSigned) {
  server_.Answer("GET /pic?", {.body = "jpeg"});
  ASSERT_TRUE(Download("/pic?"));
  EXPECT_EQ(server_.Requests().at(0).Header("Authorization"), ExpectedAuthorization("GET", "", kDate, "/pic"));
}

TEST_F(CPicProtoClientTest, WhatIsNoAddressIsAskedOfNobody) {
  for (const std::string url :
       {"", "pic?id=1", "0/pic?id=1", "@127.0.0.1/pic", "ftp://127.0.0.1/pic", "/pic?id=1 2", "/pic?id=1\r\nX: y"}) {
    log_->Clear();
    EXPECT_FALSE(Download(url)) << url;
    ExpectOnlyError(kDownloadNotSent, "[PicClient]send download picture failed, url:" + url + "[");
  }
  EXPECT_EQ(server_.ConnectionCount(), 0);
}

TEST_F(CPicProtoClientTest, ADownloadThatIsNotAnsweredFails) {
  server_.Answer("GET *", {.cut_after = 0});
  EXPECT_FALSE(Download("/pic?id=1"));
  ExpectOnlyError(kDownloadNotSent, "[PicClient]send download picture failed, url:/pic?id=1[");
}

TEST_F(CPicProtoClientTest, APictureThatIsCutOffFails) {
  server_.Answer("GET *", {.body = std::string(100, 'j'), .cut_after = 60});
  EXPECT_FALSE(Download("/pic?id=1"));
  ExpectOnlyError(kDownloadNotSent, "[PicClient]send download picture failed, url:/pic?id=1[");
}

TEST_F(CPicProtoClientTest, AnyOtherStatusThan200IsNoPicture) {
  for (const int status : {201, 206, 299, 310, 404, 500}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("GET *", {.status = status, .headers = {{"Location", server_.Url("/other")}}, .body = "why"});
    EXPECT_FALSE(Download("/pic?id=1"));
    ExpectOnlyError(kDownloadStatus, "[PicClient]send download picture failed, url:/pic?id=1, status code:" +
                                         std::to_string(status) + ", body:why[");
  }
}

TEST_F(CPicProtoClientTest, EveryRedirectIsFollowedOnce) {
  for (int status = 300; status <= 309; ++status) {
    if (status == 304) {
      continue;  // has no body, see below
    }
    server_.ClearScript();
    server_.ClearRequests();
    server_.Answer("GET /pic?id=1",
                   {.status = status, .headers = {{"Location", "http://elsewhere.example:99/new?id=2"}}, .body = "x"});
    server_.Answer("GET /new?id=2", {.body = "jpeg"});
    ASSERT_TRUE(Download("/pic?id=1")) << status;
    EXPECT_EQ(picture_, "jpeg");
    const auto requests = server_.Requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[1].head,
              "GET /new?id=2 HTTP/1.1\r\nAuthorization: " + ExpectedAuthorization("GET", "", kDate, "/new?id=2") +
                  "\r\nDate: " + kDate + "\r\nHost: " + server_.Address() + "\r\n\r\n");
  }
  server_.Answer("GET /same", {.raw = "HTTP/1.1 304 Not Modified\r\nLocation: http://h/new?id=2\r\n\r\n"});
  EXPECT_TRUE(Download("/same"));
}

TEST_F(CPicProtoClientTest, TheAddressMayStandAnywhereInTheLocation) {
  server_.Answer("GET /pic?id=1", {.status = 302, .headers = {{"Location", "see http://elsewhere/new?id=2"}}});
  server_.Answer("GET /new?id=2", {.body = "jpeg"});
  EXPECT_TRUE(Download("/pic?id=1"));
}

TEST_F(CPicProtoClientTest, ALocationWithoutSchemeOrPathIsInvalid) {
  for (const std::string location : {"", "/new?id=2", "https://elsewhere/new?id=2", "http://elsewhere", "http://"}) {
    log_->Clear();
    server_.ClearScript();
    server_.Answer("GET *", {.status = 302, .headers = {{"Location", location}}});
    EXPECT_FALSE(Download("/pic?id=1"));
    ExpectOnlyError(kBadLocation, "[PicClient]send download picture failed, invalid new Location:" + location + "[");
  }
  log_->Clear();
  server_.ClearScript();
  server_.Answer("GET *", {.status = 302});
  EXPECT_FALSE(Download("/pic?id=1"));
  ExpectOnlyError(kBadLocation, "[PicClient]send download picture failed, invalid new Location:[");
}

TEST_F(CPicProtoClientTest, ARedirectedRequestThatIsNotAnsweredFails) {
  server_.Answer("GET /pic?id=1",
                 {.status = 302, .headers = {{"Location", "http://elsewhere/new?id=2"}}, .close = true});
  server_.Answer("GET /new?id=2", {.cut_after = 0});
  EXPECT_FALSE(Download("/pic?id=1"));
  ExpectOnlyError(kRedirectNotSent,
                  "[PicClient]send download picture failed, redirect url:" + server_.Url("/new?id=2") + "[");
}

TEST_F(CPicProtoClientTest, ASecondRedirectIsNotFollowed) {
  for (const int status : {302, 404}) {
    log_->Clear();
    server_.ClearScript();
    server_.ClearRequests();
    server_.Answer("GET *", {.status = 302, .headers = {{"Location", "http://elsewhere/new"}}});
    server_.Answer("GET *", {.status = status, .headers = {{"Location", "http://elsewhere/newer"}}, .body = "why"});
    EXPECT_FALSE(Download("/pic?id=1"));
    ExpectOnlyError(kRedirectStatus, "[PicClient]send download picture failed, redirect url:" + server_.Url("/new") +
                                         ", status code:" + std::to_string(status) + ", body:why[");
    EXPECT_EQ(server_.Requests().size(), 2U);
  }
}

class CPicProtoClientHttpsTest : public CPicProtoClientTest {
 protected:
  CPicProtoClientHttpsTest() : CPicProtoClientTest(true) {}
};

TEST_F(CPicProtoClientHttpsTest, PicturesGoUpAndComeDown) {
  ScriptUpload();
  server_.Answer("GET /pic?id=1", {.body = "jpeg"});
  ASSERT_TRUE(CPictureClient(config_).UploadPicture(url_, "P", 1));
  EXPECT_TRUE(Contains(log_->Text(kNodeFound), "location[" + server_.Url("") + "]"));
  ASSERT_TRUE(Download(url_));
  EXPECT_EQ(picture_, "jpeg");
}

TEST_F(CPicProtoClientHttpsTest, OnlyALocationWithTheConfiguredSchemeCounts) {
  server_.Answer("GET /pic?id=1", {.status = 302, .headers = {{"Location", "http://elsewhere/new?id=2"}}});
  server_.Answer("GET /pic?id=2", {.status = 302, .headers = {{"Location", "https://elsewhere/new?id=2"}}});
  server_.Answer("GET /new?id=2", {.body = "jpeg"});
  EXPECT_FALSE(Download("/pic?id=1"));
  EXPECT_EQ(log_->Count(kBadLocation, 5), 1U);
  EXPECT_TRUE(Download("/pic?id=2"));
}

class CPicProtoClientIpv6Test : public CPicProtoClientTest {
 protected:
  CPicProtoClientIpv6Test() : CPicProtoClientTest(false, Tests::HasIpv6Loopback() ? "::1" : "127.0.0.1") {}
};

TEST_F(CPicProtoClientIpv6Test, PicturesGoUpAndComeDown) {
  if (!Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tests::kNoIpv6Loopback;
  }
  ScriptUpload();
  server_.Answer("GET /pic?id=1", {.body = "jpeg"});
  ASSERT_TRUE(CPictureClient(config_).UploadPicture(url_, "P", 1));
  ASSERT_TRUE(Download(url_));
  ASSERT_TRUE(Download(server_.Url(url_)));
  for (const ScriptedRequest& sent : server_.Requests()) {
    EXPECT_EQ(sent.Header("Host"), server_.Address());
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
