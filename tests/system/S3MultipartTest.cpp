// Uploads in parts through the S3 door of a real tansyd: with boto3, over crashes and a full disk, and what becomes of
// the bytes.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/Program.h"
#include "support/S3Curl.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;

constexpr const char* kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";
constexpr std::size_t kLeastPart = 5 << 20;

class S3MultipartTest : public TansydTest {
 protected:
  static Launch WithS3(std::vector<std::string> arguments = {}) {
    Launch launch;
    launch.with_s3 = true;
    launch.with_https = true;
    launch.arguments = std::move(arguments);
    return launch;
  }
  void RunBoto3(const std::string& url) {
    const Keys keys;
    Invocation invocation;
    invocation.program = "/usr/bin/python3";
    invocation.arguments = {ClientScript("s3_parts.py"), url, keys.access_key, keys.secret_key,
                            server_.Data(kCertificate)};
    invocation.folder = temp_.GetPath();
    CProgram client(invocation);
    const Ended ended = client.WaitForEnd();
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, "done\n");
  }
  Ended Check(std::vector<std::string> more = {}) {
    CTansyd command(temp_.GetPath(), "command");
    Launch launch;
    launch.with_data = launch.with_ports = false;
    launch.arguments = {"--data", server_.Data(), "--check"};
    launch.arguments.insert(launch.arguments.end(), more.begin(), more.end());
    return command.RunToEnd(launch);
  }
  std::uintmax_t StoredBytes() {
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects"))) {
      std::error_code gone;
      const std::uintmax_t size = entry.is_regular_file(gone) ? entry.file_size(gone) : 0;
      bytes += gone ? 0 : size;
    }
    return bytes;
  }
  // Uploads these bytes as parts.
  std::vector<std::string> PutParts(const std::string& path, const std::string& upload,
                                    const std::vector<std::string>& parts) {
    std::vector<std::string> etags;
    for (const std::string& part : parts) {
      etags.push_back(curl_.PutPart(path, upload, static_cast<int>(etags.size()) + 1, part));
      EXPECT_FALSE(etags.back().empty());
    }
    return etags;
  }

  CS3Curl curl_{server_};
};

TEST_F(S3MultipartTest, Boto3UploadsAndCopiesInPartsOverHttp) {
  ASSERT_TRUE(server_.Start(WithS3()));
  RunBoto3("http://127.0.0.1:" + std::to_string(server_.GetS3Port()));
  EXPECT_EQ(Check().code, 0) << Check().out;
}

TEST_F(S3MultipartTest, Boto3UploadsAndCopiesInPartsOverHttps) {
  ASSERT_TRUE(server_.Start(WithS3()));
  RunBoto3("https://127.0.0.1:" + std::to_string(server_.GetS3HttpsPort()));
}

TEST_F(S3MultipartTest, ARestartInTheMiddleOfAnUploadIsSurvived) {
  const std::vector<std::string> parts = {RandomBytes(kLeastPart, 1), RandomBytes(kLeastPart + 7, 2), "tail"};
  ASSERT_TRUE(server_.Start(WithS3()));
  ASSERT_EQ(curl_.Put("/bucket", "").status, 200);
  const std::string upload = curl_.Begin("/bucket/key");
  std::vector<std::string> etags = PutParts("/bucket/key", upload, {parts[0], parts[1]});
  server_.Kill();
  ASSERT_TRUE(server_.Start(WithS3()));
  etags.push_back(curl_.PutPart("/bucket/key", upload, 3, parts[2]));
  EXPECT_EQ(curl_.Complete("/bucket/key", upload, etags).status, 200);
  server_.Kill();
  ASSERT_TRUE(server_.Start(WithS3()));
  const std::string all = parts[0] + parts[1] + parts[2];
  EXPECT_TRUE(curl_.Send("GET", "/bucket/key").body == all);
  EXPECT_TRUE(Get("/bucket/key") == all) << "by the object protocol";
  EXPECT_EQ(curl_.Complete("/bucket/key", upload, etags).status, 200) << "the answer may have been lost";
}

TEST_F(S3MultipartTest, NothingIsStoredTwiceAndSpaceIsGivenBack) {
  ASSERT_TRUE(server_.Start(WithS3({"--keep-failed", "1"})));
  ASSERT_EQ(curl_.Put("/bucket", "").status, 200);
  const std::vector<std::string> parts = {RandomBytes(kLeastPart, 1), RandomBytes(kLeastPart, 2)};
  const std::string upload = curl_.Begin("/bucket/key");
  const std::vector<std::string> etags = PutParts("/bucket/key", upload, parts);
  const std::uintmax_t with_parts = StoredBytes();
  ASSERT_EQ(curl_.Complete("/bucket/key", upload, etags).status, 200);
  EXPECT_LT(StoredBytes(), with_parts + kLeastPart / 2);
  // A part that is replaced, and an upload that is aborted.
  const std::string other = curl_.Begin("/bucket/other");
  PutParts("/bucket/other", other, {parts[0]});
  PutParts("/bucket/other", other, {parts[1]});
  EXPECT_EQ(curl_.Send("DELETE", "/bucket/other?uploadId=" + other).status, 204);
  EXPECT_TRUE(WaitUntil([&] { return StoredBytes() < with_parts + kLeastPart / 2; }));
  EXPECT_TRUE(curl_.Send("GET", "/bucket/key").body == parts[0] + parts[1]);
  // The object makes room for a small one.
  ASSERT_EQ(curl_.Put("/bucket/key", "small").status, 200);
  EXPECT_TRUE(WaitUntil([&] { return StoredBytes() < kLeastPart; }));
  EXPECT_EQ(Check().code, 0) << Check().out;
}

TEST_F(S3MultipartTest, TheObjectProtocolRemovesEveryPart) {
  ASSERT_TRUE(server_.Start(WithS3()));
  ASSERT_EQ(curl_.Put("/bucket", "").status, 200);
  const std::string upload = curl_.Begin("/bucket/key");
  const std::vector<std::string> etags =
      PutParts("/bucket/key", upload, {RandomBytes(kLeastPart, 1), RandomBytes(kLeastPart, 2)});
  ASSERT_EQ(curl_.Complete("/bucket/key", upload, etags).status, 200);
  EXPECT_EQ(Send("DELETE", "/bucket/key?deletefile").status, 200);
  EXPECT_LT(StoredBytes(), kLeastPart);
  EXPECT_TRUE(WaitUntil(
      [&] { return Query(server_.Data("catalogue.db"), "SELECT COUNT(*) FROM local_upload_part").front() == "0"; }));
  EXPECT_EQ(Check().code, 0) << Check().out;
}

TEST_F(S3MultipartTest, AFullDiskRefusesAPartAndLosesNone) {
  Launch launch = WithS3({"--keep-failed", "1"});
  launch.small_disk = "objects";
  launch.small_disk_bytes = 4 * kLeastPart;
  const bool is_started = server_.Start(launch);
  if (server_.IsSmallDiskMissing()) {
    GTEST_SKIP() << "this machine does not let a test mount a disk";
  }
  ASSERT_TRUE(is_started);
  ASSERT_EQ(curl_.Put("/bucket", "").status, 200);
  const std::string upload = curl_.Begin("/bucket/key");
  std::vector<std::string> parts;
  std::vector<std::string> etags;
  std::string etag = "first";
  while (!etag.empty() && parts.size() < 10) {
    parts.push_back(RandomBytes(kLeastPart, parts.size()));
    etag = curl_.PutPart("/bucket/key", upload, static_cast<int>(parts.size()), parts.back());
    etags.push_back(etag);
  }
  ASSERT_EQ(etag, "") << "the disk is never full";
  for (const std::size_t size : {kLeastPart, 4 * kLeastPart}) {
    const Reply refused = curl_.Put("/bucket/other", RandomBytes(size));
    EXPECT_EQ(refused.status, 507) << size << ": clients repeat what is answered 500";
    EXPECT_THAT(refused.body, HasSubstr("<Code>NotEnoughSpace</Code>"));
  }
  parts.pop_back();
  etags.pop_back();
  ASSERT_FALSE(parts.empty());
  EXPECT_EQ(curl_.Complete("/bucket/key", upload, etags).status, 200);
  std::string all;
  for (const std::string& part : parts) {
    all += part;
  }
  EXPECT_TRUE(curl_.Send("GET", "/bucket/key").body == all);
}

// kill -9 in front of every single change that a completion makes to a file.
class S3MultipartCrashTest : public S3MultipartTest, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr int kMostSteps = 60;

  void SetUp() override {
    launch_ = WithS3({"--durability", GetParam(), "--keep-failed", "1"});
    launch_.program = TANSYD_THAT_DIES;
    launch_.environment = {{"DIE_WHEN", temp_.Path("when")}};
    ASSERT_TRUE(server_.Start(launch_));
    ASSERT_EQ(curl_.Put("/bucket", "").status, 200);
  }
  // Completes an upload while the server ends in front of this change. Returns true when it did not end.
  bool CompletesAt(int step) {
    const std::string path = "/bucket/key-" + std::to_string(step);
    EXPECT_EQ(curl_.Put(path, "before").status, 200);
    const std::string upload = curl_.Begin(path);
    const std::vector<std::string> etags = PutParts(path, upload, {first_, "tail"});
    std::ofstream(temp_.Path("when")) << step;
    const Reply answer = curl_.Complete(path, upload, etags);
    std::filesystem::remove(temp_.Path("when"));
    const bool is_alive = answer.status == 200 && server_.IsRunning();
    if (is_alive) {
      server_.Kill();
    } else {
      EXPECT_EQ(server_.WaitForEnd().code, 128 + SIGKILL);
    }
    EXPECT_TRUE(server_.Start(launch_));
    const std::string got = curl_.Send("GET", path).body;
    const bool is_new = got == first_ + "tail";
    EXPECT_TRUE(is_new || got == "before") << path << ": " << got.size() << " bytes";
    EXPECT_TRUE(is_new || answer.status != 200) << path << " was acknowledged";
    ++(is_new ? seen_new_ : seen_old_);
    EXPECT_EQ(curl_.Complete(path, upload, etags).status, 200) << "a client asks again";
    EXPECT_TRUE(curl_.Send("GET", path).body == first_ + "tail");
    return is_alive;
  }
  Launch launch_;
  const std::string first_ = RandomBytes(kLeastPart, 1);
  int seen_old_ = 0;
  int seen_new_ = 0;
};

TEST_P(S3MultipartCrashTest, EveryChangeOfACompletionMayBeTheLast) {
  int step = 1;
  while (step <= kMostSteps && !HasFailure() && !CompletesAt(step)) {
    ++step;
  }
  EXPECT_LT(step, kMostSteps) << "no completion goes through";
  EXPECT_GT(seen_old_, 0) << "no end before the object";
  EXPECT_GT(seen_new_, 0) << "no end behind the object";
  ASSERT_TRUE(server_.Stop());
  const Ended checked = Check();
  EXPECT_EQ(checked.code, 0) << checked.out;
  EXPECT_THAT(checked.out, HasSubstr("0 orphans"));
}

INSTANTIATE_TEST_SUITE_P(Durability, S3MultipartCrashTest, testing::Values("full", "fast"),
                         [](const auto& item) { return std::string(item.param); });

}  // namespace
}  // namespace system_tests
