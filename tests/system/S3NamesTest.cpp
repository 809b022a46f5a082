// Names that the object protocol stores as they are sent, through the S3 door of a real tansyd.
#include <string>
#include <vector>

#include "support/S3Curl.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::Not;

// An object as each protocol asks for it.
struct Name {
  const char* stored;
  const char* by_s3;
};
constexpr Name kNames[] = {{"/bucket/report(1).pdf", "/bucket/report%281%29.pdf"},
                           {"/bucket/a%2fb", "/bucket/a/b"},
                           {"/bucket/price$1", "/bucket/price%241"}};
constexpr const char* kAllKeys =
    "<Delete><Object><Key>report(1).pdf</Key></Object><Object><Key>a/b</Key></Object>"
    "<Object><Key>price$1</Key></Object></Delete>";

class S3NamesTest : public TansydTest {
 protected:
  void Start() {
    Launch launch;
    launch.with_s3 = true;
    ASSERT_TRUE(server_.Start(launch));
  }

  CS3Curl curl_{server_};
};

TEST_F(S3NamesTest, BothProtocolsReplaceAndRemoveOneObject) {
  Start();
  MakeBucket("bucket");
  for (const Name& name : kNames) {
    Put(name.stored, "by name");
    EXPECT_EQ(curl_.Put(name.by_s3, "by S3").status, 200) << name.by_s3;
    EXPECT_EQ(Get(name.stored), "by S3") << name.stored;
  }
  server_.Kill();
  Start();
  const std::string listing = curl_.Send("GET", "/bucket?list-type=2").body;
  for (const char* const key : {"report(1).pdf", "a/b", "price$1"}) {
    EXPECT_THAT(listing, HasSubstr(std::string("<Key>") + key + "</Key>"));
  }
  EXPECT_THAT(listing, Not(HasSubstr("<Size>7</Size>"))) << "the bytes that were replaced";
  const Reply removed = curl_.Send("POST", "/bucket?delete=", kAllKeys);
  EXPECT_THAT(removed.body, Not(HasSubstr("<Error>")));
  for (const Name& name : kNames) {
    EXPECT_EQ(Outcome(Send("GET", name.stored)), "404 NoSuchKey") << name.stored;
    EXPECT_EQ(curl_.Send("GET", name.by_s3).status, 404) << name.by_s3;
  }
  EXPECT_EQ(curl_.Send("DELETE", "/bucket").status, 204) << "it is empty";
}

TEST_F(S3NamesTest, NoOlderBytesComeBackAfterARemoval) {
  Start();
  MakeBucket("bucket");
  for (const Name& name : kNames) {
    const std::string canonical = std::string(name.by_s3) == "/bucket/a/b" ? "/bucket/a%2Fb" : name.by_s3;
    Put(name.stored, "old");
    Put(canonical, "newer");
    EXPECT_EQ(curl_.Send("GET", name.by_s3).body, "newer");
    EXPECT_EQ(curl_.Send("DELETE", name.by_s3).status, 204);
    EXPECT_EQ(curl_.Send("GET", name.by_s3).status, 404) << name.by_s3;
  }
  server_.Kill();
  Start();
  EXPECT_THAT(curl_.Send("GET", "/bucket?list-type=2").body, Not(HasSubstr("<Key>")));
}

// The MD5 digest of "hello".
constexpr const char* kTagOfHello = "\"5d41402abc4b2a76b9719d911017c592\"";

TEST_F(S3NamesTest, ARemovalIsAboutTheBytesThatTheClientMeans) {
  Start();
  MakeBucket("bucket");
  Put("/bucket/r(1)", "hello");
  const auto remove = [this](const std::string& tag) {
    return curl_.Send("DELETE", "/bucket/r%281%29", "", {{"If-Match", tag}}).status;
  };
  EXPECT_EQ(curl_.Send("GET", "/bucket/r%281%29").body, "hello");  // which finds its tag out
  EXPECT_EQ(remove("\"00000000000000000000000000000000\""), 412);
  EXPECT_EQ(Get("/bucket/r(1)"), "hello");
  EXPECT_EQ(remove(kTagOfHello), 204);
  EXPECT_EQ(Outcome(Send("GET", "/bucket/r(1)")), "404 NoSuchKey");
}

TEST_F(S3NamesTest, ACopyOntoItselfKnowsItsDigest) {
  Start();
  MakeBucket("bucket");
  Put("/bucket/r(1)", "hello");
  const Reply copied = curl_.Send("PUT", "/bucket/r%281%29", "",
                                  {{"x-amz-copy-source", "/bucket/r%281%29"}, {"x-amz-metadata-directive", "REPLACE"}});
  EXPECT_EQ(copied.status, 200) << copied.body;
  EXPECT_THAT(curl_.Send("GET", "/bucket?list-type=2").body, HasSubstr("5d41402abc4b2a76b9719d911017c592"));
  EXPECT_EQ(Get("/bucket/r(1)"), "hello");
}

}  // namespace
}  // namespace system_tests
