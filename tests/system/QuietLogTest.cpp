// What a healthy tansyd writes into its log, and what it still writes when somebody is refused.
#include <string>

#include "support/PictureSystemTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::Not;

class QuietLogTest : public PictureSystemTest {
 protected:
  // Objects that are new, overwritten, read and removed.
  void UseObjects() {
    MakeBucket("b");
    for (int i = 0; i < 5; ++i) {
      Put("/b/k" + std::to_string(i), "text");
      Put("/b/k" + std::to_string(i), "other text");
      EXPECT_EQ(Get("/b/k" + std::to_string(i)), "other text");
    }
    EXPECT_EQ(Outcome(Send("DELETE", "/b/k1")), "200");
  }
};

TEST_F(QuietLogTest, ObjectsThatAreStoredAndReadLeaveNoErrors) {
  ASSERT_TRUE(server_.Start());
  UseObjects();
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), Not(HasSubstr(" error "))) << "nothing went wrong";
}

TEST_F(QuietLogTest, WhoeverIsRefusedIsInTheLog) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  EXPECT_EQ(SendPlain("GET", "/b/missing").status, 403);
  EXPECT_EQ(Send("GET", "/b/missing").status, 404);
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), HasSubstr("CObjectServer::CheckAuth]http header without Authorization!"));
  EXPECT_THAT(server_.GetLog(), HasSubstr("object name not exist[missing]"));
}

TEST_F(QuietLogTest, APictureThatIsReadByALinkLeavesNoErrors) {
  ASSERT_TRUE(server_.Start());
  const std::string address = Store("jpeg");
  EXPECT_EQ(Ask({"GET", SignedLink(address), {}, ""}).body, "jpeg");
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), Not(HasSubstr(" error ")));
}

TEST_F(QuietLogTest, WhoeverIsRefusedAPictureIsInTheLog) {
  ASSERT_TRUE(server_.Start());
  const std::string address = Store("jpeg");
  EXPECT_EQ(Ask({"GET", SignedLink(address, {"other", "key"}), {}, ""}).status, 401);
  EXPECT_EQ(Ask({"GET", "/Quorvane/Version", {}, ""}).status, 403);
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), HasSubstr("HandleDownloadPicture, check url auth failed"));
  EXPECT_THAT(server_.GetLog(), HasSubstr("HandleGetVersion, auth failed."));
}

TEST_F(QuietLogTest, EverythingIsInTheLogWhenItIsAskedFor) {
  Launch launch;
  launch.arguments = {"--log-level", "2"};
  ASSERT_TRUE(server_.Start(launch));
  UseObjects();
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), HasSubstr("query not found token!"));
  EXPECT_THAT(server_.GetLog(), HasSubstr("get Object[k1] failed, object not exist."));
}

}  // namespace
}  // namespace system_tests
