// Intake and routing: the queue's limit, the shape of paths, every row of the routing table and what falls through.
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ObjectServerFixture.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServerTasks.h"
#include "StorageServer/ServerMsgLoop.h"
#include "fakes/HeldLoop.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::CObjectServer;
using CloudStorage::CServerMsgLoop;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kReceived =
    "[%s]Server Callback, server_handle = %d, url = %s, ip = %s, size[%d:%d], error_code[%d][%s(%d)]";
constexpr const char* kExceeded = "[%s]message loop exceed[%d], server_handle = %d, url = %s, ip = %s[%s(%d)]";
constexpr const char* kParsed = "[%s]ParseUrl bucket_name[%s], object_name[%s], http_url[%s].[%s(%d)]";
constexpr const char* kNotSupported = "[%s]HandleObjectMsg str_resp[%s].[%s(%d)]";

class CObjectServerDispatchTest : public CObjectServerTest {
 protected:
  // The handler that checked this request, by the name in its log lines: the bucket is missing, so that each of them
  // stops at its first look at the catalogue.
  std::string HandlerOf(const std::string& method, const std::string& path, const std::string& query) {
    log_->Clear();
    Send({method, path, query, {}, {}});
    for (const LogLine& line : log_->Lines()) {
      if (line.text.find("not exist[") != std::string::npos) {
        const std::size_t begin = line.text.find("::Handle") + 2;
        return line.text.substr(begin, line.text.find(']') - begin);
      }
    }
    return log_->Count(kNotSupported) > 0 ? "none" : "?";
  }
};

TEST_F(CObjectServerDispatchTest, ALentThreadRunsReadsItself) {
  CFakeHttpServer::Instance().LendThreads(true);
  for (const char* method : {"GET", "DELETE"}) {
    log_->Clear();
    Send({method, "/none/key", "", {}, {}});
    const auto lines = log_->Find(kParsed);
    ASSERT_EQ(lines.size(), 1u) << method;
    EXPECT_EQ(lines[0].thread == std::this_thread::get_id(), std::string(method) == "GET") << method;
  }
}

TEST_F(CObjectServerDispatchTest, AThreadThatIsNotLentRunsNothing) {
  Send({"GET", "/none/key", "", {}, {}});
  const auto lines = log_->Find(kParsed);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].thread, std::this_thread::get_id());
}

TEST_F(CObjectServerDispatchTest, ReadsWaitForAPlaceEvenOnALentThread) {
  CFakeHttpServer& http = CFakeHttpServer::Instance();
  http.LendThreads(true);
  CHeldLoop held(CServerMsgLoop::Instance(), CServerMsgLoop::kThreads);
  const std::int32_t handle = http.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", "/none/key", "", {}, {}}));
  EXPECT_FALSE(http.IsAnswered(handle));
  held.Release();
  EXPECT_TRUE(http.WaitForAnswer(handle).IsThere());
}

TEST_F(CObjectServerDispatchTest, ParseUrl) {
  struct Case {
    const char* path;
    bool good;
    const char* bucket;
    const char* key;
  };
  const Case cases[] = {{"", false, "", ""},        {"b/k", false, "", ""},
                        {"/", true, "", ""},        {"/b", true, "b", ""},
                        {"/b/", true, "b", ""},     {"/b/k", true, "b", "k"},
                        {"/b/k/", false, "", ""},   {"/b/k/x", false, "", ""},
                        {"//", true, "", ""},       {"//k", true, "", "k"},
                        {"///", false, "", ""},     {"/b%2Fc/k%20", true, "b%2Fc", "k%20"},
                        {"/b/..", true, "b", ".."}, {"/\xff/\x01", true, "\xff", "\x01"}};
  for (const Case& c : cases) {
    std::string bucket = "old";
    std::string key = "old";
    EXPECT_EQ(CObjectServer::ParseUrl(bucket, key, c.path), c.good) << c.path;
    if (c.good) {
      EXPECT_EQ(bucket, c.bucket) << c.path;
      EXPECT_EQ(key, c.key) << c.path;
    }
  }
}

TEST_F(CObjectServerDispatchTest, EveryRowFindsItsHandler) {
  EXPECT_EQ(HandlerOf("GET", "/none/k", "metadata"), "HandleGetOneObiectMetadata");
  EXPECT_EQ(HandlerOf("GET", "/none/k", "bestnode"), "HandleGetBestNode");
  EXPECT_EQ(HandlerOf("PUT", "/none/k", ""), "HandleUploadObject");
  EXPECT_EQ(HandlerOf("POST", "/none/k", "uploads"), "HandleMultiUploadTaskCreate");
  EXPECT_EQ(HandlerOf("POST", "/none/k", "upload_id=1&part_number=1"), "HandleUploadPartObject");
  EXPECT_EQ(HandlerOf("POST", "/none/k", "upload_id=1"), "HandleFinishMutiUploadTask");
  EXPECT_EQ(HandlerOf("GET", "/none/k", "upload_id=1"), "HandleGetAllObjectTask");
  EXPECT_EQ(HandlerOf("GET", "/none/k", ""), "HandleDownloadObject");
  EXPECT_EQ(HandlerOf("DELETE", "/none/k", "deletefile"), "HandleRemoveObjectFile");
  EXPECT_EQ(HandlerOf("DELETE", "/none/k", ""), "HandleRemoveObject");
}

TEST_F(CObjectServerDispatchTest, BucketRowsFindTheirHandlers) {
  EXPECT_TRUE(IsXml(Put("/by-row-two", "<CreateBucketConfiguration/>"), ""));
  EXPECT_TRUE(catalogue_.IsBucketExist("by-row-two"));
  EXPECT_THAT(Get("/by-row-two", "property").body, HasSubstr("<Bucket><Owner>"));
  EXPECT_THAT(Get("/", "").body, HasSubstr("<ListAllMyBucketsResult>"));
  // With a key the property row still has the request, and takes the whole path for the name.
  EXPECT_TRUE(IsError(Get("/by-row-two/k", "property"), 404, "NoSuchBucket"));
  // A slash at the end is part of the new bucket's name.
  EXPECT_TRUE(IsXml(Put("/by-row-two/", "<CreateBucketConfiguration/>"), ""));
  EXPECT_TRUE(catalogue_.IsBucketExist("by-row-two/"));
}

TEST_F(CObjectServerDispatchTest, RowsThatMatchInPartFallThrough) {
  // Of the rows that ask for an exact query, a longer one is another request.
  EXPECT_EQ(HandlerOf("GET", "/none/k", "metadata=1"), "HandleDownloadObject");
  EXPECT_EQ(HandlerOf("GET", "/none/k", "bestnode&x=1"), "HandleDownloadObject");
  EXPECT_EQ(HandlerOf("DELETE", "/none/k", "deletefile=1"), "HandleRemoveObject");
  EXPECT_EQ(HandlerOf("DELETE", "/none/k", "anything"), "HandleRemoveObject");
  EXPECT_EQ(HandlerOf("GET", "/none/k", "x=1&token=y"), "HandleDownloadObject");
  EXPECT_EQ(HandlerOf("POST", "/none/k", "xupload_idx&xpart_numx"), "HandleUploadPartObject");
  EXPECT_EQ(HandlerOf("GET", "/none/k", "upload_id=1&part_number=1"), "HandleGetAllObjectTask");

  EXPECT_EQ(HandlerOf("POST", "/none/k", "metadata"), "none");
  EXPECT_EQ(HandlerOf("POST", "/none/k", ""), "none");
  EXPECT_EQ(HandlerOf("POST", "/none/k", "part_number=1"), "none");
  EXPECT_EQ(HandlerOf("POST", "/none/k", "uploads=1"), "none");
  EXPECT_EQ(HandlerOf("PUT", "/none/k", "x=1"), "none");
  EXPECT_EQ(HandlerOf("PUT", "/none", "x=1"), "none");
  EXPECT_EQ(HandlerOf("PUT", "/", ""), "none");
  EXPECT_EQ(HandlerOf("PUT", "//k", ""), "none");
  EXPECT_EQ(HandlerOf("GET", "/none", ""), "none");
  EXPECT_EQ(HandlerOf("GET", "/none", "metadata"), "none");
  EXPECT_EQ(HandlerOf("GET", "/", "property"), "none");
  EXPECT_EQ(HandlerOf("GET", "//k", ""), "none");
  EXPECT_EQ(HandlerOf("GET", "/", "x"), "none");
  EXPECT_EQ(HandlerOf("DELETE", "/none", ""), "none");
  EXPECT_EQ(HandlerOf("DELETE", "/none", "deletefile"), "none");
  EXPECT_EQ(HandlerOf("HEAD", "/none/k", ""), "none");
  EXPECT_EQ(HandlerOf("get", "/none/k", ""), "none");
  EXPECT_EQ(HandlerOf("", "/none/k", ""), "none");
}

TEST_F(CObjectServerDispatchTest, WhatNoRowTakesIsNotSupported) {
  EXPECT_TRUE(IsError(Get("/b", ""), 400, "URLNotSupport"));
  EXPECT_EQ(log_->Count(kNotSupported, logging::kTrace), 1u);
  EXPECT_THAT(log_->Text(kNotSupported), HasSubstr("str_resp[" + ErrorBody("URLNotSupport", "URLNotSupport") + "]"));
  EXPECT_TRUE(IsError(Post("/b/o", "metadata"), 400, "URLNotSupport"));
}

TEST_F(CObjectServerDispatchTest, APathOfAnotherShapeIsNotSupported) {
  EXPECT_TRUE(IsError(Get("/b/o/x"), 400, "URLNotSupport"));
  EXPECT_EQ(log_->Count(kNotSupported, logging::kError), 1u);
  EXPECT_TRUE(IsError(Get(""), 400, "URLNotSupport"));
  EXPECT_TRUE(IsError(Get("b/o"), 400, "URLNotSupport"));
}

TEST_F(CObjectServerDispatchTest, RequestsAreTraced) {
  TansyNet::HttpServerRecv msg = Message({"GET", "/b/o", "", "abc", {}});
  msg.content_length = 7;
  const std::int32_t handle = http_.Deliver(&CObjectServer::RecvMsgCallBack, msg);
  http_.WaitForAnswer(handle);
  EXPECT_EQ(log_->Count(kReceived, logging::kTrace), 1u);
  EXPECT_THAT(log_->Text(kReceived),
              StartsWith("[Tansy::CloudStorage::CObjectServer::RecvMsgCallBack]Server Callback, server_handle = " +
                         std::to_string(handle) + ", url = /b/o, ip = 192.0.2.1, size[7:3], error_code[0]["));
  EXPECT_EQ(log_->Count(kParsed, logging::kTrace), 1u);
  EXPECT_THAT(log_->Text(kParsed), HasSubstr("ParseUrl bucket_name[b], object_name[o], http_url[/b/o]."));
}

// Fills the loop up to this many tasks, waiting and running, and holds them.
class CFullLoop {
 public:
  explicit CFullLoop(std::size_t tasks) : held_(CServerMsgLoop::Instance(), 4) {
    while (CServerMsgLoop::Instance().GetWorkTaskCount() < tasks) {
      Post(CServerMsgLoop::Instance(), [] {});
    }
  }
  void Release() { held_.Release(); }

 private:
  CHeldLoop held_;
};

TEST_F(CObjectServerDispatchTest, AFullLoopRefusesAtOnce) {
  CFullLoop loop(20001);
  const std::int32_t handle = http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", "/b/o", "", "", {}}));
  EXPECT_TRUE(IsError(http_.AnswerOf(handle), 500, "ServerInternalError"));
  EXPECT_EQ(CServerMsgLoop::Instance().GetWorkTaskCount(), 20001u);
  EXPECT_EQ(log_->Count(kExceeded, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kExceeded), HasSubstr("message loop exceed[20001], server_handle = " + std::to_string(handle) +
                                               ", url = /b/o, ip = 192.0.2.1["));
}

TEST_F(CObjectServerDispatchTest, OneTaskLessIsQueued) {
  CFullLoop loop(20000);
  const std::int32_t handle = http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", "/b/o", "", "", {}}));
  EXPECT_FALSE(http_.IsAnswered(handle));
  EXPECT_EQ(CServerMsgLoop::Instance().GetWorkTaskCount(), 20001u);
  loop.Release();
  EXPECT_TRUE(IsError(http_.WaitForAnswer(handle), 404, "NoSuchBucket"));
}

TEST_F(CObjectServerDispatchTest, AFullLoopEndsARunningUpload) {
  const std::string bucket = NewBucket();
  const std::int32_t handle = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", "/" + bucket + "/k", "", "", {}});
  msg.content_length = 20 << 20;
  http_.DeliverPiece(handle, &CObjectServer::RecvMsgCallBack, msg, "first piece", false);
  auto& streams = CloudStorage::details::CBigFileStreamMgr::Instance();
  EXPECT_FALSE(streams.IsStreamAbsent(static_cast<std::uint32_t>(handle)));
  {
    CFullLoop loop(20001);
    http_.DeliverPiece(handle, &CObjectServer::RecvMsgCallBack, msg, "second piece", false);
    EXPECT_TRUE(IsError(http_.AnswerOf(handle), 500, "ServerInternalError"));
    EXPECT_TRUE(streams.IsStreamAbsent(static_cast<std::uint32_t>(handle)));
    // A late piece gets no second answer while the loop is still full.
    http_.DeliverPiece(handle, &CObjectServer::RecvMsgCallBack, msg, "late piece", false);
    EXPECT_EQ(http_.AnswerOf(handle).attempts, 1);
  }
  // A late piece makes no new stream and no second answer.
  http_.DeliverPiece(handle, &CObjectServer::RecvMsgCallBack, msg, "third piece", true);
  EXPECT_TRUE(streams.IsStreamAbsent(static_cast<std::uint32_t>(handle)));
  EXPECT_EQ(http_.AnswerOf(handle).attempts, 1);
}

// Stops the loop for as long as it lives.
class CStoppedLoop {
 public:
  CStoppedLoop() { CServerMsgLoop::Instance().Stop(false); }
  ~CStoppedLoop() {
    EXPECT_TRUE(CServerMsgLoop::Instance().Start(CServerMsgLoop::kThreads, CServerMsgLoop::kThreads, 5));
  }
};

TEST_F(CObjectServerDispatchTest, AStoppedLoopAnswersWhatItDrops) {
  const std::string bucket = NewBucket();
  TansyNet::HttpServerRecv msg = Signed({"PUT", "/" + bucket + "/k", "", "", {}});
  msg.content_length = 20 << 20;
  const std::int32_t request = http_.NewHandle();
  const std::int32_t upload = http_.NewHandle();
  const std::int32_t whole_upload = http_.NewHandle();
  auto held = std::make_unique<CHeldLoop>(CServerMsgLoop::Instance(), CServerMsgLoop::kThreads);
  // These wait behind the held threads when the loop is stopped.
  http_.DeliverAs(request, &CObjectServer::RecvMsgCallBack, Signed({"GET", "/b/o", "", "", {}}));
  http_.DeliverPiece(upload, &CObjectServer::RecvMsgCallBack, msg, "piece", false, false);
  http_.DeliverPiece(whole_upload, &CObjectServer::RecvMsgCallBack, msg, "last piece", true, false);
  std::thread release([&] {
    while (!http_.IsAnswered(request)) {
      std::this_thread::yield();
    }
    held->Release();
  });
  const CStoppedLoop stopped;
  release.join();
  for (const std::int32_t handle : {request, upload, whole_upload}) {
    EXPECT_TRUE(IsError(http_.WaitForAnswer(handle), 500, "ServerInternalError")) << handle;
  }
  EXPECT_EQ(CloudStorage::details::CBigFileStreamMgr::Instance().EndOf(static_cast<std::uint32_t>(upload)),
            CloudStorage::details::StreamEnd::kAnswered);
  // These come while the loop is stopped.
  const std::int32_t late = http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", "/b/o", "", "", {}}));
  EXPECT_TRUE(IsError(http_.AnswerOf(late), 500, "ServerInternalError"));
  const std::int32_t late_upload = http_.NewHandle();
  http_.DeliverPiece(late_upload, &CObjectServer::RecvMsgCallBack, msg, "piece", false);
  EXPECT_TRUE(IsError(http_.AnswerOf(late_upload), 500, "ServerInternalError"));
}

TEST_F(CObjectServerDispatchTest, AStartedAgainLoopStoresPiecesAgain) {
  { const CStoppedLoop stopped; }
  const std::string bucket = NewBucket();
  const std::string body = Pattern(11 << 20);
  const std::int32_t handle = http_.NewHandle();
  http_.Stream(handle, &CObjectServer::RecvMsgCallBack, Signed({"PUT", "/" + bucket + "/k", "", "", {}}), body,
               {4 << 20, 4 << 20});
  EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle), ""));
}

TEST_F(CObjectServerDispatchTest, AnAnswerThatCannotBeSentIsLogged) {
  http_.FailSends(1007);
  const std::int32_t handle = http_.NewHandle();
  EXPECT_EQ(server_.HandleObjectMsg(handle, Signed({"GET", "/b/o", "", "", {}})), 1007);
  http_.FailSends(0);
  EXPECT_THAT(log_->Text("[%s]HttpServerSynSend error, revalue = %d, handle = %d[%s(%d)]"),
              HasSubstr("revalue = 1007, handle = " + std::to_string(handle) + "["));
}

}  // namespace
}  // namespace Tansy::Tests
