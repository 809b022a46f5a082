// The exported picture client: configuration, limits, and what its callers get.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "PictureClientFixture.h"

namespace Tansy::CloudStorage {
namespace {

constexpr std::uint32_t kLimit = 33554432;

constexpr char kNullConfig[] = "[%s]config ptr is null.[%s(%d)]";
constexpr char kBadNames[] = "[%s]sk[%s] , ak[%s], ip[%s], pool name[%s] is invalid.[%s(%d)]";
constexpr char kBadPorts[] = "[%s]upload port[%d] , download port[%d] is invalid.[%s(%d)]";
constexpr char kTooLarge[] = "[%s]upload picture failed, size[%d] exceed.[%s(%d)]";
constexpr char kNoBestNode[] = "[%s]upload picture failed, get best node failed.[%s(%d)]";
constexpr char kNotUploaded[] = "[%s]upload picture failed, location[%s] upload failed.[%s(%d)]";
constexpr char kNullDownload[] = "[%s]download pic failed, ptr_conf_ is null, url[%s].[%s(%d)]";
constexpr char kNotDownloaded[] = "[%s]download file failed, url[%s].[%s(%d)]";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class CPictureClientTest : public CPictureClientFixture {
 protected:
  // Init of a client with the configuration as it is now.
  bool Inits() { return CPictureClient(config_).Init(); }

  // A client that has lost its configuration.
  CPictureClient Emptied() const {
    CPictureClient client(config_);
    const CPictureClient thief(std::move(client));
    return client;  // NOLINT(bugprone-use-after-move): that is what is tested
  }
};

TEST_F(CPictureClientTest, InitAcceptsAWholeConfiguration) {
  EXPECT_TRUE(Inits());
  EXPECT_TRUE(log_->Lines().empty());
}

TEST_F(CPictureClientTest, InitRefusesAMissingConfiguration) {
  EXPECT_FALSE(Emptied().Init());
  EXPECT_EQ(log_->Count(kNullConfig, 5), 1U);
}

// The access key stands behind "sk" and the secret key behind "ak".
TEST_F(CPictureClientTest, InitRefusesEmptyNames) {
  const SStorageServerConfig whole = config_;
  for (std::string SStorageServerConfig::*field : {&SStorageServerConfig::sk, &SStorageServerConfig::ak,
                                                   &SStorageServerConfig::ip, &SStorageServerConfig::pool_name}) {
    log_->Clear();
    config_ = whole;
    (config_.*field).clear();
    EXPECT_FALSE(Inits());
    EXPECT_EQ(log_->Count(kBadNames, 5), 1U);
    EXPECT_TRUE(Contains(log_->Text(kBadNames), "]sk[" + config_.ak + "] , ak[" + config_.sk + "], ip[" + config_.ip +
                                                    "], pool name[" + config_.pool_name + "] is invalid.["));
    EXPECT_TRUE(Contains(log_->Text(kBadNames), "Tansy::CloudStorage::CPictureClient::Init"));
  }
}

TEST_F(CPictureClientTest, InitRefusesMissingPorts) {
  config_.upload_port = 0;
  EXPECT_FALSE(Inits());
  EXPECT_TRUE(Contains(log_->Text(kBadPorts),
                       "upload port[0] , download port[" + std::to_string(server_.Port()) + "] is invalid."));
  config_.upload_port = 1;
  config_.download_port = 0;
  EXPECT_FALSE(Inits());
  EXPECT_TRUE(Contains(log_->Text(kBadPorts), "upload port[1] , download port[0] is invalid."));
  EXPECT_EQ(log_->Count(kBadPorts, 5), 2U);
}

TEST_F(CPictureClientTest, NamesAreCheckedBeforePorts) {
  config_.ak.clear();
  config_.upload_port = 0;
  EXPECT_FALSE(Inits());
  EXPECT_EQ(log_->Count(kBadNames), 1U);
  EXPECT_EQ(log_->Count(kBadPorts), 0U);
}

TEST_F(CPictureClientTest, TheConfigurationIsCopied) {
  ScriptUpload();
  CPictureClient client(config_);
  config_ = {};
  EXPECT_TRUE(client.Init());
  std::string url;
  EXPECT_TRUE(client.UploadPicture(url, "x", 1));
}

TEST_F(CPictureClientTest, UninitAndRemoveDoNothing) {
  CPictureClient client(config_);
  EXPECT_TRUE(client.Uninit());
  EXPECT_TRUE(client.RemoveFileByUrl("/pic?id=1"));
  EXPECT_TRUE(Emptied().Uninit());
  EXPECT_TRUE(Emptied().RemoveFileByUrl(""));
  EXPECT_EQ(server_.ConnectionCount(), 0);
}

TEST_F(CPictureClientTest, AnUploadGivesTheAddressOfThePicture) {
  ScriptUpload();
  std::string url = "before";
  EXPECT_TRUE(CPictureClient(config_).UploadPicture(url, "jpeg", 4));
  EXPECT_EQ(url, "/pic?id=1");
  const auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_TRUE(requests[0].target.starts_with("/Quorvane/BestNode?"));
  EXPECT_EQ(requests[1].target, "/Quorvane/Picture/Write");
}

TEST_F(CPictureClientTest, InitIsNotNeeded) {
  ScriptUpload();
  config_.download_port = 0;
  std::string url;
  EXPECT_TRUE(CPictureClient(config_).UploadPicture(url, "jpeg", 4));
}

TEST_F(CPictureClientTest, APictureOfTheGreatestSizeIsSent) {
  ScriptUpload();
  std::string picture(kLimit, 'p');
  picture.front() = 'f';
  picture.back() = 'b';
  std::string url;
  EXPECT_TRUE(CPictureClient(config_).UploadPicture(url, picture.data(), kLimit));
  const std::string body = server_.Requests().at(1).body;
  EXPECT_TRUE(Contains(body, "\r\n\r\n33554432\r\n"));
  EXPECT_TRUE(Contains(body, "\r\n\r\n" + picture + "\r\n--"));
}

TEST_F(CPictureClientTest, OneByteMoreIsRefusedBeforeAnyRequest) {
  ScriptUpload();
  const std::string picture(kLimit + 1, 'p');
  std::string url = "before";
  EXPECT_FALSE(CPictureClient(config_).UploadPicture(url, picture.data(), kLimit + 1));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(server_.ConnectionCount(), 0);
  ASSERT_EQ(log_->Lines().size(), 1U);
  EXPECT_EQ(log_->Count(kTooLarge, 5), 1U);
  EXPECT_TRUE(Contains(log_->Text(kTooLarge), "]upload picture failed, size[33554433] exceed.["));
}

TEST_F(CPictureClientTest, AnUploadWithoutBestNodeFails) {
  server_.Answer("GET *", {.status = 403, .body = "no"});
  std::string url = "before";
  EXPECT_FALSE(CPictureClient(config_).UploadPicture(url, "jpeg", 4));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(log_->Count(kNoBestNode, 5), 1U);
  EXPECT_EQ(log_->Count(kNotUploaded), 0U);
  EXPECT_TRUE(Contains(log_->Text(kNoBestNode), "Tansy::CloudStorage::CPictureClient::UploadPicture"));
  EXPECT_EQ(server_.Requests().size(), 1U);
}

TEST_F(CPictureClientTest, AnUploadThatTheGatewayRefusesFails) {
  server_.Answer("GET *", BestNodeAnswer("127.0.0.1", std::to_string(server_.Port())));
  server_.Answer("POST *", {.status = 500, .body = "no"});
  std::string url = "before";
  EXPECT_FALSE(CPictureClient(config_).UploadPicture(url, "jpeg", 4));
  EXPECT_EQ(url, "before");
  EXPECT_EQ(log_->Count(kNotUploaded, 5), 1U);
  EXPECT_EQ(log_->Count(kNoBestNode), 0U);
  EXPECT_TRUE(Contains(log_->Text(kNotUploaded), "]upload picture failed, location[http://127.0.0.1:" +
                                                     std::to_string(server_.Port()) + "] upload failed.["));
}

TEST_F(CPictureClientTest, BadArgumentsFailWithoutARequest) {
  std::string url;
  EXPECT_FALSE(CPictureClient(config_).UploadPicture(url, nullptr, 1));
  EXPECT_FALSE(Emptied().UploadPicture(url, "x", 1));
  std::uint32_t size = 0;
  EXPECT_FALSE(CPictureClient(config_).DownloadPicture(nullptr, size, "/pic?id=1"));
  EXPECT_EQ(server_.ConnectionCount(), 0);
}

TEST_F(CPictureClientTest, ADownloadGivesTheBytesOfThePicture) {
  const std::string picture("\xFF\xD8\0jpeg\r\n", 9);
  server_.Answer("GET /pic?id=1", {.body = picture});
  char* data = nullptr;
  std::uint32_t size = 0;
  ASSERT_TRUE(CPictureClient(config_).DownloadPicture(&data, size, "/pic?id=1"));
  const std::unique_ptr<char[]> owner(data);
  EXPECT_EQ(std::string(data, size), picture);
}

TEST_F(CPictureClientTest, AnEmptyPictureIsABufferToo) {
  server_.Answer("GET /pic?id=1", {.body = ""});
  char* data = nullptr;
  std::uint32_t size = 7;
  ASSERT_TRUE(CPictureClient(config_).DownloadPicture(&data, size, "/pic?id=1"));
  const std::unique_ptr<char[]> owner(data);
  EXPECT_NE(data, nullptr);
  EXPECT_EQ(size, 0U);
}

TEST_F(CPictureClientTest, AFailedDownloadChangesNothing) {
  server_.Answer("GET /pic?id=1", {.status = 404, .body = "none"});
  char mark = 0;
  char* data = &mark;
  std::uint32_t size = 7;
  EXPECT_FALSE(CPictureClient(config_).DownloadPicture(&data, size, "/pic?id=1"));
  EXPECT_EQ(data, &mark);
  EXPECT_EQ(size, 7U);
  EXPECT_EQ(log_->Count(kNotDownloaded, 5), 1U);
  EXPECT_TRUE(Contains(log_->Text(kNotDownloaded), "]download file failed, url[/pic?id=1].["));
}

TEST_F(CPictureClientTest, ADownloadWithoutConfigurationSaysSo) {
  char* data = nullptr;
  std::uint32_t size = 0;
  EXPECT_FALSE(Emptied().DownloadPicture(&data, size, "/pic?id=1"));
  ASSERT_EQ(log_->Lines().size(), 1U);
  EXPECT_EQ(log_->Count(kNullDownload, 5), 1U);
  EXPECT_TRUE(Contains(log_->Text(kNullDownload), "]download pic failed, ptr_conf_ is null, url[/pic?id=1].["));
}

TEST_F(CPictureClientTest, TheLastFailureNamesTheRequest) {
  CPictureClient client(config_);
  EXPECT_EQ(client.GetLastFailure().code, ClientError::kNone);
  std::string url;
  char* data = nullptr;
  std::uint32_t size = 0;
  server_.Answer("GET /Quorvane/BestNode*", {.status = 403, .body = R"({"ErrorCode": -58002, "Message": "no"})"});
  EXPECT_FALSE(client.UploadPicture(url, "x", 1));
  SClientFailure failure = client.GetLastFailure();
  EXPECT_EQ(failure.code, ClientError::kUnexpectedAnswer);
  EXPECT_EQ(failure.text, "get best node rsp status code[403].");
  EXPECT_EQ(failure.http_status, 403);
  EXPECT_EQ(failure.error_code, "-58002");
  EXPECT_TRUE(failure.request.starts_with("GET /Quorvane/BestNode?SerialID=")) << failure.request;
  EXPECT_EQ(failure.address, server_.Address());

  server_.ClearScript();
  server_.Answer("GET /Quorvane/BestNode*", BestNodeAnswer("127.0.0.1", "1"));
  EXPECT_FALSE(client.UploadPicture(url, "x", 1));
  failure = client.GetLastFailure();
  EXPECT_EQ(failure.code, ClientError::kNotSent);
  EXPECT_EQ(failure.transport_error, TansyNet::HttpClient::kConnect);
  EXPECT_EQ(failure.request, "POST /Quorvane/Picture/Write");
  EXPECT_EQ(failure.address, "127.0.0.1:1") << "that of the gateway";

  server_.Answer("GET /pic?id=1", {.status = 404, .body = "none"});
  EXPECT_FALSE(client.DownloadPicture(&data, size, "/pic?id=1"));
  failure = client.GetLastFailure();
  EXPECT_EQ(failure.http_status, 404);
  EXPECT_EQ(failure.request, "GET /pic?id=1");

  ScriptUpload();
  server_.Answer("GET /pic?id=2", {.body = "jpeg"});
  ASSERT_TRUE(client.DownloadPicture(&data, size, "/pic?id=2"));
  delete[] data;
  EXPECT_EQ(client.GetLastFailure().http_status, 404) << "a success does not clear it";
}

TEST_F(CPictureClientTest, EveryRefusalLeavesALastFailure) {
  CPictureClient client(config_);
  std::string url;
  std::uint32_t size = 0;
  EXPECT_FALSE(client.UploadPicture(url, nullptr, 1));
  EXPECT_EQ(client.GetLastFailure().text, "no data.");
  EXPECT_FALSE(client.DownloadPicture(nullptr, size, "/pic?id=1"));
  EXPECT_EQ(client.GetLastFailure().text, "no place for the picture.");
  EXPECT_FALSE(client.UploadPicture(url, "x", 33554433));
  EXPECT_EQ(client.GetLastFailure().text, "picture size exceed 32M.");
  EXPECT_EQ(client.GetLastFailure().code, ClientError::kBadArgument);
  config_.ak.clear();
  CPictureClient bad(config_);
  EXPECT_FALSE(bad.Init());
  EXPECT_EQ(bad.GetLastFailure().code, ClientError::kBadArgument);
  EXPECT_EQ(Emptied().GetLastFailure().code, ClientError::kOutOfResources);
  EXPECT_EQ(server_.ConnectionCount(), 0);
}

TEST_F(CPictureClientTest, OneClientServesManyThreads) {
  ScriptUpload();
  server_.Answer("GET /pic?id=1", {.body = "jpeg"});
  CPictureClient client(config_);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&client] {
      for (int round = 0; round < 10; ++round) {
        std::string url;
        EXPECT_TRUE(client.UploadPicture(url, "jpeg", 4));
        char* data = nullptr;
        std::uint32_t size = 0;
        ASSERT_TRUE(client.DownloadPicture(&data, size, url));
        const std::unique_ptr<char[]> owner(data);
        EXPECT_EQ(std::string(data, size), "jpeg");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(server_.Requests().size(), 240U);
}

}  // namespace
}  // namespace Tansy::CloudStorage
