// The signing script that people use without a client.
#include <cstdlib>
#include <fstream>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

class SignedCurlTest : public TansydTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_keys = false;
    ASSERT_TRUE(server_.Start(launch));
    if (std::system("command -v curl >/dev/null && command -v openssl >/dev/null") != 0) {
      GTEST_SKIP() << "curl or openssl is not installed";
    }
  }
  bool names_server_ = true;

  // Runs the script and gives its standard output; `exit_code` says how it ended.
  std::string Run(const std::string& arguments, int* exit_code = nullptr) {
    const std::string out = temp_.Path("out");
    const std::string server = names_server_ ? "http://127.0.0.1:" + std::to_string(server_.GetObjectPort()) : "";
    const std::string command = "cd '" + temp_.GetPath() +
                                "' && env -u TANSY_ACCESS_KEY -u TANSY_SECRET_KEY TANSY_DATA='" + server_.Data() +
                                "' TANSY_SERVER='" + server + "' '" + ScriptPath("signed-curl.sh") + "' " + arguments +
                                " >'" + out + "' 2>'" + temp_.Path("err") + "'";
    const int status = std::system(command.c_str());
    if (exit_code != nullptr) {
      *exit_code = WEXITSTATUS(status);
    } else {
      EXPECT_EQ(status, 0) << arguments << "\n" << temp_.Read("err");
    }
    return temp_.Read("out");
  }
};

TEST_F(SignedCurlTest, TheWholeWalk) {
  const std::string bytes = RandomBytes(3000000, 1);
  temp_.Write("file", bytes);
  EXPECT_EQ(Run("PUT /photos -d '<CreateBucketConfiguration/>' -f"), "");
  EXPECT_EQ(Run("PUT /photos/cat.jpg -T file -f"), "");
  EXPECT_EQ(Run("GET /photos/cat.jpg") == bytes, true);
  EXPECT_EQ(Run("GET /photos/cat.jpg -r 10-20") == bytes.substr(10, 10), true);
  EXPECT_THAT(Run("GET '/photos/cat.jpg?metadata' -i"), testing::HasSubstr("Object-Size: 3000000"));
  EXPECT_EQ(Run("DELETE '/photos/cat.jpg?deletefile' -f"), "");
  EXPECT_THAT(Run("GET /photos/cat.jpg"), testing::HasSubstr("NoSuchKey"));
}

TEST_F(SignedCurlTest, HeadersAreSignedAsTheyAreGiven) {
  temp_.Write("file", "body");
  Run("PUT /b -d '<CreateBucketConfiguration/>' -f");
  EXPECT_EQ(
      Run("--content-md5 file PUT /b/o -T file -f -H 'Content-Type: image/jpeg' -H 'x-qvs-b:  2 ' -H 'x-qvs-a: 1'"),
      "");
  EXPECT_EQ(Run("GET '/b/o?a=%20b&c' -f"), "body");
  EXPECT_EQ(Run("GET '/b/o' -f -HContent-Type:text/plain"), "body");
}

TEST_F(SignedCurlTest, FindsTheServerThatRunsOnTheDataFolder) {
  names_server_ = false;
  EXPECT_THAT(Run("GET /"), testing::HasSubstr("ListAllMyBucketsResult"));
}

TEST_F(SignedCurlTest, FindsAServerThatListensElsewhere) {
  ASSERT_TRUE(server_.Stop());
  Launch launch;
  launch.with_keys = false;
  launch.arguments = {"--listen", "127.0.0.2"};
  ASSERT_TRUE(server_.Start(launch));
  names_server_ = false;
  EXPECT_THAT(Run("GET /"), testing::HasSubstr("ListAllMyBucketsResult"));
}

TEST_F(SignedCurlTest, SaysWhatIsMissing) {
  int exit_code = 0;
  Run("GET", &exit_code);
  EXPECT_EQ(exit_code, 2);
  Run("--data /nowhere GET /", &exit_code);
  EXPECT_EQ(exit_code, 2);
  EXPECT_THAT(temp_.Read("err"), testing::HasSubstr("--data"));
}

// Every process that the script starts writes down its command line.
TEST_F(SignedCurlTest, TheSecretIsOnNoCommandLine) {
  std::ifstream settings(server_.Data("tansyd.toml"));
  const std::string text(std::istreambuf_iterator<char>(settings), {});
  const std::size_t begin = text.find("secret_key = \"") + 14;
  const std::string secret = text.substr(begin, text.find('"', begin) - begin);
  ASSERT_EQ(secret.size(), 40U);
  for (const char* tool : {"openssl", "curl", "od", "awk", "tr", "cut", "sort", "date"}) {
    temp_.Write(std::string("bin/") + tool, "#!/bin/sh\necho \"$0 $*\" >>'" + temp_.Path("calls") +
                                                "'\nPATH=${PATH#*:} exec " + tool + " \"$@\"\n");
    std::filesystem::permissions(temp_.Path(std::string("bin/") + tool), std::filesystem::perms::owner_all);
  }
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (temp_.Path("bin") + ":" + path).c_str(), 1);
  EXPECT_THAT(Run("GET /"), testing::HasSubstr("ListAllMyBucketsResult"));
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_THAT(temp_.Read("calls"), testing::AllOf(testing::HasSubstr("openssl"), testing::HasSubstr("curl")));
  EXPECT_THAT(temp_.Read("calls"), testing::Not(testing::HasSubstr(secret)));
}

}  // namespace
}  // namespace system_tests
