// Intake, routing and answers.
#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "PictureServerFixture.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/ServerMsgLoop.h"
#include "fakes/HeldLoop.h"

namespace Tansy::CloudStorage {
namespace {

constexpr std::size_t kLimit = 20001;

class PictureServerDispatch : public PictureServerTest {
 protected:
  void SetUp() override {
    PictureServerTest::SetUp();
    StartServer();
  }
};

TEST_F(PictureServerDispatch, EachRouteReachesItsHandler) {
  // Without a signature each handler says in its own words that it refuses.
  const std::vector<std::pair<TansyNet::HttpServerRecv, std::string>> routes = {
      {Request("GET", "/Quorvane/BestNode"), "[%s]HandleGetBestNode, auth failed.[%s(%d)]"},
      {Request("GET", "/pic"), "[%s]HandleDownloadPicture, check url auth failed[%s(%d)]"},
      {Request("POST", "/Quorvane/Picture/Write"), "[%s]HandleUploadPicture, check auth failed[%s(%d)]"},
      {Request("GET", "/Quorvane/PoolList"), "[%s]HandleGetPoolList, auth failed.[%s(%d)]"},
      {Request("GET", "/Quorvane/Version"), "[%s]HandleGetVersion, auth failed.[%s(%d)]"},
  };
  for (const auto& [request, format] : routes) {
    log_->Clear();
    ExpectError(Ask(request), -58002, 403);
    const std::string handler = format.substr(4, format.find(',') - 4);
    ExpectLog(format, logging::kError, "CPictureServer::" + handler);
  }
}

TEST_F(PictureServerDispatch, AnythingElseIsAProtocolError) {
  const std::vector<std::pair<std::string, std::string>> others = {
      {"POST", "/Quorvane/BestNode"},
      {"GET", "/Quorvane/Picture/Write"},
      {"PUT", "/Quorvane/Picture/Write"},
      {"GET", "/quorvane/Version"},
      {"GET", "/Quorvane/version"},
      {"get", "/Quorvane/Version"},
      {"GET", "/Quorvane/Version/"},
      {"GET", "/Quorvane"},
      {"GET", "/"},
      {"GET", ""},
      {"GET", "/pic/"},
      {"GET", "/pics"},
      {"HEAD", "/pic"},
      {"DELETE", "/pic"},
      {"POST", "/pic"},
      {"GET", "/Quorvane/Version?query"},
      {"", "/Quorvane/Version"},
      {"GET", "//Quorvane/Version"},
  };
  for (const auto& [method, path] : others) {
    const auto answer = Ask(Signed(Request(method, path)));
    ExpectError(answer, -50001, 400);
  }
}

TEST_F(PictureServerDispatch, TheQueryPlaysNoPartInRouting) {
  EXPECT_EQ(Ask(Signed(Request("GET", kVersionPath, "anything=1"))).response.status, 200);
}

TEST_F(PictureServerDispatch, EveryRequestIsTraced) {
  const auto handle = Http().Deliver(&CPictureServer::RecvMsgCallBack, Request("GET", "/x"));
  Http().WaitForAnswer(handle);
  const std::string format = "[%s]Server Callback, server_handle = %d, url = %s, ip = %s[%s(%d)]";
  ExpectLog(format, logging::kTrace, "CPictureServer::RecvMsgCallBack");
  EXPECT_NE(log_->Text(format).find("]Server Callback, server_handle = " + std::to_string(handle) +
                                    ", url = /x, ip = 198.51.100.9["),
            std::string::npos);
}

TEST_F(PictureServerDispatch, ASignedRequestIsAnsweredOnTheLoopsThreads) {
  Tests::CHeldLoop held(CServerMsgLoop::Instance(), 4);
  const auto handle = Http().Deliver(&CPictureServer::RecvMsgCallBack, Signed(Request("GET", kVersionPath)));
  EXPECT_FALSE(Http().WaitForAnswer(handle, 30).IsThere());
  held.Release();
  EXPECT_EQ(Http().WaitForAnswer(handle).response.status, 200);
}

TEST_F(PictureServerDispatch, ARequestIsRefusedWithoutBeingQueuedWhenTheLoopHoldsItsLimit) {
  auto& loop = CServerMsgLoop::Instance();
  Tests::CHeldLoop held(loop, 4);
  while (loop.GetWorkTaskCount() < kLimit - 1) {
    Tests::Post(loop, [] {});
  }
  // One request below the limit is still queued,
  const auto queued = Http().Deliver(&CPictureServer::RecvMsgCallBack, Signed(Request("GET", kVersionPath)));
  EXPECT_FALSE(Http().IsAnswered(queued));
  EXPECT_EQ(loop.GetWorkTaskCount(), kLimit);
  EXPECT_EQ(log_->Count("[%s]RecvMsgCallBack, msg loop exceed.[%s(%d)]"), 0u);
  // and one at the limit is answered at once.
  const auto refused = Http().Deliver(&CPictureServer::RecvMsgCallBack, Signed(Request("GET", kVersionPath)));
  ExpectError(Http().AnswerOf(refused), -50004, 500);
  EXPECT_EQ(loop.GetWorkTaskCount(), kLimit);
  ExpectLog("[%s]RecvMsgCallBack, msg loop exceed.[%s(%d)]", logging::kError, "CPictureServer::RecvMsgCallBack");
  held.Release();
  EXPECT_EQ(Http().WaitForAnswer(queued).response.status, 200);
}

TEST_F(PictureServerDispatch, AFailingSendIsLogged) {
  Http().FailSends(1007);
  const auto handle = Http().Deliver(&CPictureServer::RecvMsgCallBack, Signed(Request("GET", kVersionPath)));
  Http().WaitForAnswer(handle);
  Tests::CHeldLoop(CServerMsgLoop::Instance(), 4).Release();  // the handler is through
  const std::string format = "[%s]HttpServerSynSend error, revalue = %d, handle = %d[%s(%d)]";
  ExpectLog(format, logging::kError, "CPictureServer::SendPicMsgRsp");
  EXPECT_NE(log_->Text(format).find("revalue = 1007, handle = " + std::to_string(handle) + "["), std::string::npos);
}

TEST_F(PictureServerDispatch, AHandlerThatRunsOutOfMemoryStillAnswers) {
  StorageServerConfig_V1 config = MakeConfig();
  config.save_object = [](std::string&, const char*, std::uint32_t, int) -> int { throw std::bad_alloc(); };
  CPictureServer::Instance().Init(config);
  ExpectError(Ask(Upload("bytes", "5")), -50004, 500);
  EXPECT_EQ(log_->Count("[%s]handle picture msg failed[%s], url[%s].[%s(%d)]", logging::kError), 1u);
}

TEST_F(PictureServerDispatch, AnUploadInPiecesIsRefusedAtItsFirstPiece) {
  const std::string body(100, 'x');
  auto request = Signed(Request("PUT", kWritePath));
  const auto handle = Http().NewHandle();
  EXPECT_EQ(Http().Stream(handle, &CPictureServer::RecvMsgCallBack, request, body, {40, 40}), 1u);
  ExpectError(Http().WaitForAnswer(handle), -50001, 400);
}

TEST_F(PictureServerDispatch, ManyRequestsAtOnceAreEachAnsweredOnce) {
  std::vector<std::int32_t> handles;
  for (int i = 0; i < 500; ++i) {
    handles.push_back(Http().Deliver(&CPictureServer::RecvMsgCallBack,
                                     i % 2 == 0 ? Signed(Request("GET", kVersionPath)) : Request("GET", "/none")));
  }
  for (std::size_t i = 0; i < handles.size(); ++i) {
    const auto answer = Http().WaitForAnswer(handles[i]);
    EXPECT_EQ(answer.attempts, 1);
    EXPECT_EQ(answer.response.status, i % 2 == 0 ? 200 : 400);
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
