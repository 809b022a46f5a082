#include "AccessLog.h"

#include <gtest/gtest.h>

#include <string>

#include "StartFailure.h"
#include "TansyNet/Operation.h"
#include "TansyProto/RapidJsonProto.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

TansyNet::COperation tested_operation("s3", "GetObject");

TansyNet::FinishedRequest Request() {
  TansyNet::FinishedRequest request;
  request.id = "0123456789ABCDEF";
  request.ip = "192.0.2.1";
  request.line = "GET /b/k";
  request.query = "X-Amz-Date=1&X-Amz-Signature=abc";
  request.user_agent = "tester/1 \"x\"";
  request.operation = &tested_operation;
  request.status = 206;
  request.bytes_in = 7;
  request.bytes_out = 4096;
  request.delivered = 1'000'000;
  request.opened = 3'500'000;
  request.answered = 5'000'000;
  request.ended = 9'250'000;
  return request;
}

constexpr std::int64_t kTime = 1795352709;  // 22 November 2026, 13:05:09

TEST(AccessLogTest, WritesTheCombinedFormat) {
  EXPECT_EQ(
      AccessLine(EAccessLogFormat::kCombined, Request(), kTime),
      "192.0.2.1 - - [22/Nov/2026:13:05:09 +0000] \"GET /b/k?X-Amz-Date=1&X-Amz-Signature=... HTTP/1.1\" 206 4096 "
      "\"-\" \"tester/1 \\\"x\\\"\" id=0123456789ABCDEF op=s3.GetObject in=7 ms=9.250 queue=2.500 handler=1.500 "
      "send=4.250");
}

TEST(AccessLogTest, SaysThatAnAnswerWasCut) {
  TansyNet::FinishedRequest request = Request();
  request.is_whole = false;
  EXPECT_TRUE(AccessLine(EAccessLogFormat::kCombined, request, kTime).ends_with(" cut"));
}

TEST(AccessLogTest, WritesJsonWhateverAClientSent) {
  TansyNet::FinishedRequest request = Request();
  request.line = "GET /b/\"\\\x01\xff";
  request.user_agent = "x\n{\"status\":200}";
  const std::string line = AccessLine(EAccessLogFormat::kJson, request, kTime);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  TansyProto::CRapidJsonProto json;
  ASSERT_TRUE(json.Parse(line)) << line;
  EXPECT_EQ(json.GetString("/time"), "2026-11-22T13:05:09Z");
  EXPECT_EQ(json.GetInt("/status"), 206);
  EXPECT_EQ(json.GetString("/operation"), "s3.GetObject");
  EXPECT_EQ(json.GetString("/user_agent"), "x\n{\"status\":200}");
  EXPECT_EQ(json.GetInt("/bytes_out"), 4096);
  EXPECT_EQ(json.GetString("/queue_ms"), "2.5");
  EXPECT_EQ(json.GetString("/request"), "GET /b/\"\\\x01\u00ff?X-Amz-Date=1&X-Amz-Signature=...");
}

TEST(AccessLogTest, ARequestThatNobodyTookHasNoTimesOfAHandler) {
  TansyNet::FinishedRequest request;
  request.ip = "::1";
  request.line = "";
  request.status = 400;
  request.answered = 2'000'000;
  request.ended = 2'000'000;
  EXPECT_EQ(AccessLine(EAccessLogFormat::kCombined, request, 0),
            "::1 - - [01/Jan/1970:00:00:00 +0000] \" HTTP/1.1\" 400 0 \"-\" \"-\" id=- op=- in=0 ms=2.000 queue=0.000 "
            "handler=0.000 send=0.000");
}

TEST(AccessLogTest, CutsWhatSignsALinkOutOfItsQuery) {
  EXPECT_EQ(HarmlessQuery("token=abc:def&expires=1"), "token=...&expires=1");
  EXPECT_EQ(HarmlessQuery("a=1&Signature=x%3D&AWSAccessKeyId=k"), "a=1&Signature=...&AWSAccessKeyId=k");
  EXPECT_EQ(HarmlessQuery("X-Amz-Signature=1&X-Amz-Security-Token=2"), "X-Amz-Signature=...&X-Amz-Security-Token=...");
  EXPECT_EQ(HarmlessQuery("uploads"), "uploads");
  EXPECT_EQ(HarmlessQuery("&&x"), "&&x");
  EXPECT_EQ(HarmlessQuery(""), "");
}

TEST(AccessLogTest, AFileThatCannotBeOpenedEndsTheStart) {
  EXPECT_THROW(CAccessLog("/nonexistent/folder/access.log", EAccessLogFormat::kCombined), CStartFailure);
}

}  // namespace
}  // namespace Tansy::Host
