// The S3 door of a real tansyd, and the clients that people use, as the system's packages have them.
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

constexpr const char* kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";

// Some of these programs start slowly, and a script starts them many times.
constexpr std::chrono::seconds kPatienceOfClients{240};

class S3Test : public TansydTest {
 protected:
  static Launch With(bool s3) {
    Launch launch;
    launch.with_s3 = s3;
    launch.with_https = s3;
    return launch;
  }

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(server_.GetS3Port()); }
  std::string HttpsUrl() const { return "https://127.0.0.1:" + std::to_string(server_.GetS3HttpsPort()); }

  // Runs a script for a client that gets its settings from tansy, in a folder of its own, and expects it to say "done".
  void RunScript(const std::string& name, const std::string& url, const std::vector<std::string>& more = {}) {
    const Keys keys;
    Invocation invocation;
    invocation.program = "/bin/bash";
    invocation.arguments = {ClientScript(name), TansyPath()};
    invocation.arguments.insert(invocation.arguments.end(), more.begin(), more.end());
    invocation.folder = temp_.Path("client");
    std::filesystem::create_directories(invocation.folder);
    invocation.environment = {{"TANSY_SERVER", "http://127.0.0.1:" + std::to_string(server_.GetObjectPort())},
                              {"TANSY_S3_URL", url},
                              {"TANSY_CA", server_.Data(kCertificate)},
                              {"TANSY_ACCESS_KEY", keys.access_key},
                              {"TANSY_SECRET_KEY", keys.secret_key}};
    CProgram client(invocation);
    const Ended ended = client.WaitForEnd(kPatienceOfClients);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, "done\n");
  }

  // Runs a client to its end and expects it to say "done".
  void RunBoto3(const std::string& url) {
    const Keys keys;
    Invocation invocation;
    invocation.program = "/usr/bin/python3";
    invocation.arguments = {ClientScript("s3_boto3.py"), url, keys.access_key, keys.secret_key,
                            server_.Data(kCertificate)};
    invocation.folder = temp_.GetPath();
    CProgram client(invocation);
    const Ended ended = client.WaitForEnd(kPatienceOfClients);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, "done\n");
  }
};

TEST_F(S3Test, Boto3WorksOverHttp) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunBoto3(Url());
}

TEST_F(S3Test, Boto3WorksOverHttps) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunBoto3(HttpsUrl());
}

TEST_F(S3Test, AwsWorks) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunScript("s3_aws.sh", Url());
}

TEST_F(S3Test, S3cmdWorks) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunScript("s3_s3cmd.sh", Url());
}

TEST_F(S3Test, RcloneWorksOverHttp) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunScript("s3_rclone.sh", Url());
}

TEST_F(S3Test, RcloneWorksOverHttps) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunScript("s3_rclone.sh", HttpsUrl());
}

TEST_F(S3Test, ResticBacksThisRepositoryUpAndBringsItBack) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunScript("s3_restic.sh", Url(), {SourceFolder()});
}

TEST_F(S3Test, NobodyListensWhereNoPortIsGiven) {
  ASSERT_TRUE(server_.Start(With(false)));
  EXPECT_EQ(CConnection::Open(server_.GetS3Port()), nullptr);
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(With(true)));
  EXPECT_NE(CConnection::Open(server_.GetS3Port()), nullptr);
}

}  // namespace
}  // namespace system_tests
