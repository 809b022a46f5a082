// The picture client as a program uses it, against a real server, over HTTP and HTTPS.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TansyCloudStorage/PictureClient.h"
#include "TansyNet/HttpClient.h"
#include "support/PictureSystemTest.h"

namespace system_tests {
namespace {

using Tansy::CloudStorage::CPictureClient;
using Tansy::CloudStorage::SStorageServerConfig;

const char* const kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";
constexpr std::uint32_t kLargest = 33554432;

// The parameter true stands for HTTPS, with trust in the server's own certificate and no other.
class PictureClientTest : public PictureSystemTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_https = GetParam();
    ASSERT_TRUE(server_.Start(launch));
    if (GetParam()) {
      TansyNet::HttpClient::SetTlsTrust({.trust_file = server_.Data(kCertificate), .accept_any = false});
    }
  }
  void TearDown() override { TansyNet::HttpClient::SetTlsTrust({}); }

  SStorageServerConfig Config() const {
    const Keys keys;
    SStorageServerConfig config;
    config.is_https = GetParam();
    config.ip = "127.0.0.1";
    config.upload_port = GetParam() ? server_.GetPictureHttpsPort() : server_.GetPicturePort();
    config.download_port = config.upload_port;
    config.pool_name = "1";
    config.ak = keys.access_key;
    config.sk = keys.secret_key;
    return config;
  }
  // The bytes at an address; "(none)" when they cannot be had.
  static std::string Download(CPictureClient& client, const std::string& url) {
    char* data = nullptr;
    std::uint32_t size = 0;
    if (!client.DownloadPicture(&data, size, url)) {
      return "(none)";
    }
    const std::unique_ptr<char[]> owner(data);
    return {data, size};
  }
  static bool Upload(CPictureClient& client, const std::string& bytes, std::string& url) {
    return client.UploadPicture(url, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  }
};

TEST_P(PictureClientTest, PicturesGoUpAndComeBack) {
  CPictureClient client(Config());
  ASSERT_TRUE(client.Init());
  for (const std::string& bytes : {SamplePicture("sample.jpg"), SamplePicture("sample.png"),
                                   SamplePicture("sample.webp"), std::string(1, '\0'), RandomBytes(3000000, 1)}) {
    std::string url;
    ASSERT_TRUE(Upload(client, bytes, url)) << server_.GetLog();
    EXPECT_EQ(Download(client, url) == bytes, true) << url;
    const std::string start = GetParam() ? "https://127.0.0.1:" : "http://127.0.0.1:";
    EXPECT_EQ(Download(client, start + std::to_string(Config().download_port) + url) == bytes, true) << url;
  }
  EXPECT_TRUE(client.Uninit());
}

TEST_P(PictureClientTest, TheLargestPictureGoesUpAndOneByteMoreDoesNot) {
  CPictureClient client(Config());
  std::string bytes(kLargest, 'x');
  bytes.back() = '.';
  std::string url;
  ASSERT_TRUE(Upload(client, bytes, url));
  EXPECT_EQ(Download(client, url) == bytes, true);
  url = "before";
  EXPECT_FALSE(Upload(client, bytes + "x", url));
  EXPECT_EQ(url, "before");
}

TEST_P(PictureClientTest, RemovingDoesNothing) {
  CPictureClient client(Config());
  std::string url;
  ASSERT_TRUE(Upload(client, "jpeg", url));
  EXPECT_TRUE(client.RemoveFileByUrl(url));
  EXPECT_EQ(Download(client, url), "jpeg");
}

TEST_P(PictureClientTest, WhatTheServerRefusesFails) {
  std::string url = "before";
  CPictureClient client(Config());
  EXPECT_FALSE(Upload(client, "", url)) << "no server takes an empty picture";
  EXPECT_EQ(Download(client, "/pic?id=pc0100-00-00000000000000000000000000000000.d"), "(none)");
  SStorageServerConfig config = Config();
  config.sk = "wrong";
  CPictureClient stranger(config);
  EXPECT_FALSE(Upload(stranger, "jpeg", url));
  EXPECT_EQ(url, "before");
  ASSERT_TRUE(Upload(client, "jpeg", url));
  EXPECT_EQ(Download(stranger, url), "(none)");
}

TEST_P(PictureClientTest, ManyThreadsShareOneClient) {
  CPictureClient client(Config());
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (std::uint64_t i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (std::uint64_t round = 0; round < 5; ++round) {
        const std::string bytes = RandomBytes(1000 + i * 20000, i * 10 + round);
        std::string url;
        good += Upload(client, bytes, url) && Download(client, url) == bytes ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(good, 40);
}

INSTANTIATE_TEST_SUITE_P(Listeners, PictureClientTest, testing::Bool(),
                         [](const auto& item) { return item.param ? "https" : "http"; });

}  // namespace
}  // namespace system_tests
