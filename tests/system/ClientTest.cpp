// The client classes as a program uses them, against a real server, over HTTP and HTTPS.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TansyCloudStorage/ObjectClient.h"
#include "TansyNet/HttpClient.h"
#include "fakes/Ipv6Loopback.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using Tansy::CloudStorage::CObjectClient;
using Tansy::CloudStorage::SStorageServerConfig;
using Tansy::CloudStorage::UploadProgress;

constexpr std::size_t kMiB = 1048576;
const char* const kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";

struct LastError {
  int code = 0;
  int second = 0;
  std::string message;
};

// The parameter true stands for HTTPS, with trust in the server's own certificate and no other.
class ClientTest : public TansydTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_https = GetParam();
    ASSERT_TRUE(server_.Start(launch));
    MakeBucket("pool");
    if (GetParam()) {
      TansyNet::HttpClient::SetTlsTrust({.trust_file = server_.Data(kCertificate), .accept_any = false});
    }
    client_ = std::make_unique<CObjectClient>(Config());
  }
  void TearDown() override { TansyNet::HttpClient::SetTlsTrust({}); }

  SStorageServerConfig Config() {
    const Keys keys;
    SStorageServerConfig config;
    config.is_https = GetParam();
    // The certificate's name; addresses are in it too.
    config.ip = GetParam() ? "localhost" : "127.0.0.1";
    config.upload_port = GetParam() ? server_.GetObjectHttpsPort() : server_.GetObjectPort();
    config.download_port = config.upload_port;
    config.pool_name = "pool";
    config.ak = keys.access_key;
    config.sk = keys.secret_key;
    config.callback = [this](UploadProgress progress) {
      const std::lock_guard lock(mutex_);
      progress_.push_back(progress.percent);
    };
    return config;
  }

  // The progress since the last call.
  std::vector<int> TakeProgress() {
    const std::lock_guard lock(mutex_);
    return std::exchange(progress_, {});
  }

  std::string Download(const std::string& url, const std::string& range = "") {
    char* data = nullptr;
    unsigned int size = 0;
    std::string text = range;
    const bool done =
        range.empty() ? client_->DownloadFile(&data, size, url) : client_->DownloadFile(&data, size, text, url);
    const std::unique_ptr<char[]> owner(data);
    return done ? std::string(data, size) : "(failed) " + Error().message;
  }

  LastError Error() const {
    LastError error;
    client_->GetLastError(error.code, error.second, error.message);
    return error;
  }

  std::unique_ptr<CObjectClient> client_;

 private:
  std::mutex mutex_;
  std::vector<int> progress_;
};

TEST_P(ClientTest, UploadsInOnePieceAndDownloads) {
  const std::string content = RandomBytes(10 * kMiB - 1, 1);
  std::string url;
  ASSERT_TRUE(client_->Init());
  ASSERT_TRUE(client_->UploadFile(url, temp_.Write("film.mp4", content))) << Error().message;
  EXPECT_TRUE(url.starts_with("/pool/") && url.ends_with(".mp4")) << url;
  EXPECT_EQ(TakeProgress(), std::vector<int>{100});
  EXPECT_TRUE(Get(url) == content) << "as another client sees it";
  EXPECT_TRUE(Download(url) == content);
  EXPECT_TRUE(client_->DownloadFile(url, temp_.Path("copy"))) << Error().message;
  EXPECT_TRUE(temp_.Read("copy") == content);
  EXPECT_EQ(TakeProgress().back(), 100);
}

TEST_P(ClientTest, UploadsInParallelPartsAndDownloadsInRanges) {
  for (const std::size_t size : {10 * kMiB, 10 * kMiB + 1, 25 * kMiB + 12345}) {
    const std::string content = RandomBytes(size, size);
    std::string url;
    ASSERT_TRUE(client_->UploadFile(url, temp_.Write("file.bin", content))) << Error().message;
    const std::vector<int> progress = TakeProgress();
    EXPECT_EQ(progress.back(), 100);
    EXPECT_EQ(std::adjacent_find(progress.begin(), progress.end(), std::greater_equal<>()), progress.end())
        << testing::PrintToString(progress);
    EXPECT_TRUE(Get(url) == content) << size;
    const std::string copy = "copy" + std::to_string(size);
    EXPECT_TRUE(client_->DownloadFile(url, temp_.Path(copy))) << Error().message;
    EXPECT_TRUE(temp_.Read(copy) == content) << size;
    EXPECT_EQ(TakeProgress().back(), 100);
    EXPECT_TRUE(Download(url) == content) << "in one answer: " << size;
  }
}

TEST_P(ClientTest, UploadsBuffers) {
  std::string url;
  for (const std::size_t size : {std::size_t{1}, kMiB, 32 * kMiB}) {
    const std::string content = RandomBytes(size, 3);
    ASSERT_TRUE(client_->UploadFile(url, content.data(), static_cast<unsigned>(size))) << size << Error().message;
    EXPECT_TRUE(url.ends_with(".pfile"));
    EXPECT_TRUE(Download(url) == content) << size;
  }
  const std::string large(32 * kMiB + 1, 'x');
  EXPECT_FALSE(client_->UploadFile(url, large.data(), static_cast<unsigned>(large.size())));
  EXPECT_EQ(Error().message, "file size exceed 32M.");
}

TEST_P(ClientTest, UploadsPieceByPiece) {
  const std::string pieces[] = {RandomBytes(3 * kMiB, 1), RandomBytes(3 * kMiB, 2), RandomBytes(17, 3)};
  const std::string content = pieces[0] + pieces[1] + pieces[2];
  const auto size = [](const std::string& piece) { return static_cast<unsigned>(piece.size()); };
  std::string by_url;
  std::string alone;
  std::string named = "named.log";
  for (int i = 0; i < 3; ++i) {
    const std::string& piece = pieces[i];
    ASSERT_TRUE(client_->UploadFileByPieces(by_url, piece.data(), size(piece), i == 2)) << Error().message;
    ASSERT_TRUE(client_->UploadFileByPiecesAloneStorage(alone, piece.data(), size(piece), i == 2)) << Error().message;
    ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(named, piece.data(), size(piece), i == 2, i == 0))
        << Error().message;
  }
  EXPECT_EQ(named, "/pool/named.log");
  for (const std::string& url : {by_url, alone, named}) {
    EXPECT_TRUE(Download(url) == content) << url;
    EXPECT_TRUE(Get(url) == content) << url;
  }
}

// The server stores a part at its number times the size of the first one, so that pieces of other sizes would end up in
// the wrong place, over each other.
TEST_P(ClientTest, UploadsPiecesOfAllSizes) {
  constexpr std::size_t kFirst = 100000;
  const std::string content = RandomBytes(12 * kFirst, 7);
  const std::size_t sizes[] = {kFirst, kFirst, 1, kFirst + 1, 0, 5 * kFirst + 77, 3, kFirst - 1, kFirst / 2};
  std::string by_url;
  std::string alone;
  std::string named = "sizes.log";
  std::size_t sent = 0;
  for (std::size_t i = 0; i < std::size(sizes); ++i) {
    const char* const piece = content.data() + sent;
    const auto size = static_cast<unsigned>(sizes[i]);
    const bool last = i + 1 == std::size(sizes);
    ASSERT_TRUE(client_->UploadFileByPieces(by_url, piece, size, last)) << i << Error().message;
    ASSERT_TRUE(client_->UploadFileByPiecesAloneStorage(alone, piece, size, last)) << i << Error().message;
    ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(named, piece, size, last, i == 0)) << i << Error().message;
    sent += sizes[i];
  }
  for (const std::string& url : {by_url, alone, named}) {
    EXPECT_TRUE(Get(url) == content.substr(0, sent)) << url;
  }
}

TEST_P(ClientTest, RefusesSmallPiecesThatDoNotFit) {
  std::string url = "small.log";
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "first ", 6, false, true));
  EXPECT_FALSE(client_->UploadFileByPiecesAndFileName(url, "second ", 7, false, false));
  EXPECT_EQ(client_->GetLastFailure().code, Tansy::CloudStorage::ClientError::kBadPiece);
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "second", 6, false, false));
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "", 0, true, false)) << Error().message;
  EXPECT_EQ(Get(url), "first second");
}

TEST_P(ClientTest, SendsALastPieceAgainWhenTheServerIsBack) {
  std::string url = "again.log";
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "one-", 4, false, true));
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "two-", 4, false, false));
  // The last piece cannot be sent while the server is away.
  ASSERT_TRUE(server_.Stop());
  EXPECT_FALSE(client_->UploadFileByPiecesAndFileName(url, "end", 3, true, false));
  EXPECT_EQ(client_->GetLastFailure().code, Tansy::CloudStorage::ClientError::kNotSent);
  Launch launch;
  launch.with_https = GetParam();
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(client_->UploadFileByPiecesAndFileName(url, "end", 3, true, false)) << Error().message;
  EXPECT_EQ(Get(url), "one-two-end");
}

TEST_P(ClientTest, KeepsPiecesOfEqualNamesInTwoPoolsApart) {
  MakeBucket("other");
  SStorageServerConfig config = Config();
  config.pool_name = "other";
  CObjectClient other(config);
  std::string url = "same.log";
  std::string other_url = url;
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "one ", 4, false, true));
  ASSERT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "eins ", 5, false, true));
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, "two", 3, true, false)) << Error().message;
  ASSERT_TRUE(other.UploadFileByPiecesAndFileName(other_url, "zwei", 4, true, false));
  EXPECT_EQ(Get(url), "one two");
  EXPECT_EQ(Get(other_url), "eins zwei");
}

TEST_P(ClientTest, NeverMixesTwoVersionsInOneFile) {
  const std::string before = RandomBytes(20 * kMiB, 8);
  const std::string after = RandomBytes(20 * kMiB, 9);
  std::string url = "replaced";
  ASSERT_TRUE(client_->UploadFileByPiecesAndFileName(url, before.data(), 20 * kMiB, true, true));
  SStorageServerConfig config = Config();
  bool replaced = false;
  config.callback = [&](UploadProgress progress) {
    if (progress.percent >= 40 && !std::exchange(replaced, true)) {
      std::string same = "replaced";
      EXPECT_TRUE(client_->UploadFileByPiecesAndFileName(same, after.data(), 20 * kMiB, true, true));
    }
  };
  CObjectClient reader(config);
  EXPECT_FALSE(reader.DownloadFile(url, temp_.Path("mixed")));
  EXPECT_TRUE(replaced);
  EXPECT_EQ(reader.GetLastFailure().code, Tansy::CloudStorage::ClientError::kObjectChanged);
  EXPECT_TRUE(reader.DownloadFile(url, temp_.Path("mixed"))) << reader.GetLastFailure().text;
  EXPECT_TRUE(temp_.Read("mixed") == after);
}

TEST_P(ClientTest, UploadsObjectsOfOnePiece) {
  std::string by_url;
  std::string alone;
  std::string named = "one";
  EXPECT_TRUE(client_->UploadFileByPieces(by_url, "piece", 5, true));
  EXPECT_TRUE(client_->UploadFileByPiecesAloneStorage(alone, "piece", 5, true));
  EXPECT_TRUE(client_->UploadFileByPiecesAndFileName(named, "piece", 5, true, true));
  for (const std::string& url : {by_url, alone, named}) {
    EXPECT_EQ(Download(url), "piece") << url;
  }
  // Sent again under its name it is replaced.
  named = "one";
  EXPECT_TRUE(client_->UploadFileByPiecesAndFileName(named, "other", 5, true, true));
  EXPECT_EQ(Download(named), "other");
}

TEST_P(ClientTest, DownloadsRanges) {
  const std::string content = RandomBytes(12 * kMiB, 4);
  std::string url;
  ASSERT_TRUE(client_->UploadFile(url, temp_.Write("file", content))) << Error().message;
  // The end is not included, which is what makes the ranges of a download fit together.
  EXPECT_EQ(Download(url, "0-1024"), content.substr(0, 1024));
  EXPECT_EQ(Download(url, "1048576-1048577"), content.substr(1048576, 1));
  EXPECT_TRUE(Download(url, "0-" + std::to_string(content.size())) == content);
  EXPECT_TRUE(Download(url, "100-11000000") == content.substr(100, 10999900)) << "more than a server sends at once";
}

// A range that begins at an object's end is refused by the server, and that of an empty object begins there.
TEST_P(ClientTest, StoresEmptyObjectsThatThereIsNothingToReadOf) {
  std::string url;
  ASSERT_TRUE(client_->UploadFile(url, temp_.Path("new.txt"))) << "a file that is not there is made";
  EXPECT_TRUE(std::filesystem::exists(temp_.Path("new.txt")));
  EXPECT_EQ(Send("GET", url + "?metadata").Header("Object-Size"), "0");
  EXPECT_FALSE(client_->DownloadFile(url, temp_.Path("copy")));
  EXPECT_EQ(Error().code, 5);
  EXPECT_EQ(Error().second, 400);
  EXPECT_FALSE(std::filesystem::exists(temp_.Path("copy")));
  EXPECT_TRUE(client_->UploadFile(url, "", 0));
  EXPECT_EQ(Download(url), "(failed) DownloadObject rsp status code[400].");
}

TEST_P(ClientTest, Removes) {
  std::string first;
  std::string second;
  ASSERT_TRUE(client_->UploadFile(first, "bytes", 5));
  ASSERT_TRUE(client_->UploadFile(second, "bytes", 5));
  EXPECT_TRUE(client_->RemoveFileByUrl(first)) << Error().message;
  EXPECT_TRUE(client_->RemoveObjectFileByUrl(second)) << Error().message;
  for (const std::string& url : {first, second}) {
    EXPECT_EQ(Download(url), "(failed) NoSuchKey");
    EXPECT_EQ(Error().code, 9);
    EXPECT_FALSE(client_->RemoveFileByUrl(url));
    EXPECT_EQ(Error().message, "remove object rsp status code[404].");
  }
}

TEST_P(ClientTest, SaysWhatTheServerRefuses) {
  std::string url;
  SStorageServerConfig config = Config();
  config.pool_name = "nowhere";
  client_ = std::make_unique<CObjectClient>(config);
  EXPECT_FALSE(client_->UploadFile(url, "bytes", 5));
  EXPECT_EQ(Error().code, 5);
  EXPECT_EQ(Download("/nowhere/key"), "(failed) NoSuchBucket");
  EXPECT_EQ(Error().code, 8);
  EXPECT_FALSE(client_->DownloadFile("/pool/missing", temp_.Path("copy")));
  EXPECT_EQ(Error().message, "DownloadBigObject rsp status code[404].");
  EXPECT_EQ(Error().second, 404);
  EXPECT_EQ(client_->GetLastFailure().error_code, "NoSuchKey");
  EXPECT_EQ(client_->GetLastFailure().request, "GET /pool/missing");
  EXPECT_FALSE(temp_.Exists("copy"));
  config = Config();
  config.sk = "wrong";
  client_ = std::make_unique<CObjectClient>(config);
  EXPECT_FALSE(client_->UploadFile(url, "bytes", 5));
  EXPECT_EQ(Error().message, "get best node rsp status code[403].");
  // Names of 128 bytes are taken, longer ones are not.
  client_ = std::make_unique<CObjectClient>(Config());
  std::string name(128, 'n');
  EXPECT_TRUE(client_->UploadFileByPiecesAndFileName(name, "bytes", 5, true, true)) << Error().message;
  name = std::string(129, 'n');
  EXPECT_FALSE(client_->UploadFileByPiecesAndFileName(name, "bytes", 5, true, true));
  EXPECT_EQ(Error().code, 5);
}

TEST_P(ClientTest, GoesOnAfterTheServerWasAway) {
  std::string url;
  ASSERT_TRUE(client_->UploadFile(url, "bytes", 5));
  ASSERT_TRUE(server_.Stop());
  EXPECT_FALSE(client_->RemoveFileByUrl(url));
  EXPECT_EQ(Error().code, 4);
  Launch launch;
  launch.with_https = GetParam();
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_EQ(Download(url), "bytes") << "the same client, whose kept connections are gone";
  EXPECT_TRUE(client_->UploadFile(url, "more", 4)) << Error().message;
  EXPECT_EQ(Download(url), "more");
}

TEST_P(ClientTest, ServesEightThreadsAtOnce) {
  const std::string large = RandomBytes(11 * kMiB, 5);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int i = 0; i < 8; ++i) {
    const std::string path = temp_.Write("large" + std::to_string(i), large);
    threads.emplace_back([&, i, path] {
      CObjectClient copy(*client_);
      std::string url;
      std::string small;
      char* data = nullptr;
      unsigned int size = 0;
      const bool done = copy.UploadFile(url, path) && copy.UploadFile(small, "bytes", 5) &&
                        copy.DownloadFile(&data, size, small) && copy.DownloadFile(url, path + ".copy") &&
                        copy.RemoveObjectFileByUrl(small);
      const std::unique_ptr<char[]> owner(data);
      const bool same = temp_.Read("large" + std::to_string(i) + ".copy") == large;
      failures += done && same && std::string(data, size) == "bytes" ? 0 : 1;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0) << Error().message;
}

INSTANTIATE_TEST_SUITE_P(Transports, ClientTest, testing::Bool(),
                         [](const auto& transport) { return transport.param ? "Https" : "Http"; });

// Tests the switch for servers with self-signed certificates.
class ClientTrustTest : public TansydTest {};

TEST_F(ClientTrustTest, TalksToAServerByItsIpv6Address) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  ASSERT_TRUE(server_.Start());
  MakeBucket("pool");
  const Keys keys;
  SStorageServerConfig config;
  config.ip = "::1";
  config.upload_port = config.download_port = server_.GetObjectPort();
  config.pool_name = "pool";
  config.ak = keys.access_key;
  config.sk = keys.secret_key;
  CObjectClient client(config);
  std::string url;
  ASSERT_TRUE(client.UploadFile(url, "bytes", 5)) << client.GetLastFailure().text;
  EXPECT_EQ(Get(url), "bytes");
  EXPECT_TRUE(client.DownloadFile(url, temp_.Path("copy"))) << client.GetLastFailure().text;
  EXPECT_EQ(temp_.Read("copy"), "bytes");
  EXPECT_TRUE(client.RemoveFileByUrl(url)) << client.GetLastFailure().text;
}

TEST_F(ClientTrustTest, TalksToAServerThatNobodyVouchesForOnlyWhenTold) {
  Launch launch;
  launch.with_https = true;
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("pool");
  const Keys keys;
  SStorageServerConfig config;
  config.is_https = true;
  config.ip = "127.0.0.1";
  config.upload_port = config.download_port = server_.GetObjectHttpsPort();
  config.pool_name = "pool";
  config.ak = keys.access_key;
  config.sk = keys.secret_key;
  CObjectClient client(config);
  std::string url;
  EXPECT_FALSE(client.UploadFile(url, "bytes", 5));
  int code = 0;
  std::string message;
  client.GetLastError(code, message);
  EXPECT_EQ(code, 4);
  EXPECT_TRUE(message.starts_with("Send get best node msg failed[4:")) << message;
  TansyNet::HttpClient::SetTlsTrust({.trust_file = "", .accept_any = true});
  EXPECT_TRUE(client.UploadFile(url, "bytes", 5));
  TansyNet::HttpClient::SetTlsTrust({});
  EXPECT_FALSE(client.RemoveFileByUrl(url)) << "not over the connection that was made under the other terms";
}

TEST_F(ClientTrustTest, VersionsAreAskedOverPlainHttp) {
  ASSERT_TRUE(server_.Start());
  const Keys keys;
  CObjectClient client{SStorageServerConfig{}};
  std::string version;
  const bool told =
      client.GetStorageVersion(version, {"127.0.0.1", server_.GetObjectPort(), keys.access_key, keys.secret_key});
  int code = 0;
  std::string message;
  client.GetLastError(code, message);
  // This server does not know the question for a size, and says so.
  EXPECT_FALSE(told);
  EXPECT_EQ(code, 5);
  EXPECT_TRUE(message.starts_with("get storage version rsp status code[")) << message;
}

}  // namespace
}  // namespace system_tests
