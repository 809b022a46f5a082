#include "CheckRequest.h"

#include <sstream>

#include "CatalogueFixture.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

class CheckRequestTest : public CatalogueFixture {
 protected:
  // Asks while `server` does at each look what a running server would do. The server ends after a while.
  std::string Ask(const std::function<void()>& server) {
    int looks = 0;
    try {
      exit_code_ = AskForCheck(
          {},
          [&] {
            server();
            return ++looks < most_looks_;
          },
          out_);
    } catch (const CStartFailure& failure) {
      return failure.what();
    }
    return "";
  }

  std::ostringstream out_;
  int exit_code_ = -1;
  int most_looks_ = 200;
};

TEST_F(CheckRequestTest, TheAnswerOfTheRunningServerIsHandedOn) {
  EXPECT_EQ(Ask([this] { AnswerCheckRequest(*store_, Database(), {}, [] { return false; }); }), "");
  EXPECT_EQ(exit_code_, kExitDone);
  EXPECT_THAT(out_.str(), HasSubstr("check: 0 rows"));
  EXPECT_FALSE(temp_.Exists("check.request"));
  EXPECT_FALSE(temp_.Exists("check.answer"));
}

// A full disk has no room for the answer, and a server that starts just then forgets requests.
TEST_F(CheckRequestTest, ARequestThatIsGoneWithoutAnAnswerIsNotWaitedFor) {
  EXPECT_THAT(Ask([] { ForgetCheckRequests(); }), HasSubstr("gave no answer"));
}

TEST_F(CheckRequestTest, AServerThatEndsIsNotWaitedFor) {
  most_looks_ = 2;
  EXPECT_THAT(Ask([] {}), HasSubstr("ended before it had answered"));
  EXPECT_FALSE(temp_.Exists("check.request"));
}

}  // namespace
}  // namespace Tansy::Host
