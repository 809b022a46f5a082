// The web console as a browser meets it: its page, signing in, and what a page may ask for.
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class ConsoleTest : public TansydTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_admin = true;
    launch.with_s3 = true;
    ASSERT_TRUE(server_.Start(launch));
  }
  Reply Ask(const std::string& target, const HeaderList& headers = {}, const std::string& method = "GET",
            const std::string& body = "") const {
    return Call(server_.GetAdminPort(), {method, target, headers, body});
  }
};

TEST_F(ConsoleTest, ShowsItsPageUnderStrictRules) {
  const Reply page = Ask("/console/", {{"Host", "nas.example.org:9703"}});
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.Header("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(page.Header("Cache-Control"), "no-cache");
  EXPECT_EQ(page.Header("X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(page.Header("Referrer-Policy"), "no-referrer");
  EXPECT_EQ(page.Header("Cross-Origin-Opener-Policy"), "same-origin");
  const std::string s3 = "http://nas.example.org:" + std::to_string(server_.GetS3Port());
  EXPECT_THAT(page.Header("Content-Security-Policy"),
              AllOf(HasSubstr("default-src 'none'; script-src 'self'; style-src 'self'; "),
                    HasSubstr("connect-src 'self' " + s3 + ";"), HasSubstr("frame-ancestors 'none'"),
                    Not(HasSubstr("unsafe"))));
  EXPECT_THAT(page.body, HasSubstr("<html"));
}

TEST_F(ConsoleTest, LeadsThereFromTheFrontDoor) {
  for (const char* target : {"/", "/console"}) {
    const Reply reply = Ask(target);
    EXPECT_EQ(reply.status, 302) << target;
    EXPECT_EQ(reply.Header("Location"), "/console/");
  }
  EXPECT_EQ(Ask("/console/missing.js").status, 404);
  EXPECT_EQ(Ask("/console/..%2fmetrics").status, 404);
  EXPECT_EQ(Ask("/console/", {}, "POST", "x").status, 405);
}

TEST_F(ConsoleTest, NamesNoHostThatIsNone) {
  EXPECT_EQ(Ask("/console/", {{"Host", "nas;script-src *"}}).status, 400);
  EXPECT_EQ(Ask("/console/api/challenge", {{"Host", "a\"b"}}).status, 400);
}

}  // namespace
}  // namespace system_tests
