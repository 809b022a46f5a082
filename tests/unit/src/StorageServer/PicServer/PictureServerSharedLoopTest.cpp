// The message loop belongs to the picture server; the object server uses it too.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "PictureServerFixture.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "TansyCloudStorage/PictureServer.h"

namespace Tansy::CloudStorage {
namespace {

class PictureServerSharedLoop : public PictureServerTest {
 protected:
  // An object request that needs no catalogue, because its path is not valid.
  static std::int32_t DeliverObjectRequest() {
    return Http().Deliver(&CObjectServer::RecvMsgCallBack, Request("GET", "/bucket/key/more"));
  }
  static bool IsObjectRequestServed() {
    const auto answer = Http().WaitForAnswer(DeliverObjectRequest());
    return answer.response.status == 400 && answer.body.find("URLNotSupport") != std::string::npos;
  }
  // Its client is told at once that it will not be served.
  static bool IsObjectRequestRefused() {
    const auto answer = Http().AnswerOf(DeliverObjectRequest());
    return answer.response.status == 500 && answer.body.find("ServerInternalError") != std::string::npos;
  }
};

TEST_F(PictureServerSharedLoop, InitServesObjectRequestsAndUninitEndsThat) {
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(StartServer(), 0);
    EXPECT_TRUE(IsObjectRequestServed());
    ASSERT_EQ(UninitPicServer(), 0);
    EXPECT_TRUE(IsObjectRequestRefused());
  }
}

TEST_F(PictureServerSharedLoop, AnInitThatFailsServesObjectRequestsAllTheSame) {
  Http().FailStart(1, 1001);
  ASSERT_EQ(StartServer(), 1001);
  EXPECT_TRUE(IsObjectRequestServed());
}

// Only the end of the picture server stops the loop.
TEST_F(PictureServerSharedLoop, DisablingThePictureServerLeavesObjectRequestsAlone) {
  StartServer();
  ASSERT_EQ(SetPicServerEnable(false), 0);
  EXPECT_TRUE(IsObjectRequestServed());
}

TEST_F(PictureServerSharedLoop, AnUninitWhoseListenersDoNotStopEndsObjectRequestsToo) {
  StartServer();
  Http().FailStop(1, 2001);
  ASSERT_EQ(UninitPicServer(), 2001);
  EXPECT_TRUE(IsObjectRequestRefused());
}

TEST_F(PictureServerSharedLoop, APictureRequestThatTheStoppedLoopDropsIsAnswered) {
  StartServer();
  ASSERT_EQ(UninitPicServer(), 0);
  ExpectError(Ask(Signed(Request("GET", "/pic", "id=7"))), -50004, 500);
}

}  // namespace
}  // namespace Tansy::CloudStorage
