// The S3 door of a real tansyd, and a client that people use.
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

constexpr const char* kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";

class S3Test : public TansydTest {
 protected:
  static Launch With(bool s3) {
    Launch launch;
    launch.with_s3 = s3;
    launch.with_https = s3;
    return launch;
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
    const Ended ended = client.WaitForEnd();
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, "done\n");
  }
};

TEST_F(S3Test, Boto3WorksOverHttp) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunBoto3("http://127.0.0.1:" + std::to_string(server_.GetS3Port()));
}

TEST_F(S3Test, Boto3WorksOverHttps) {
  ASSERT_TRUE(server_.Start(With(true)));
  RunBoto3("https://127.0.0.1:" + std::to_string(server_.GetS3HttpsPort()));
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
