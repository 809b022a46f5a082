// What SIGHUP makes a running tansyd read again.
#include <csignal>
#include <fstream>
#include <string>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

class ReloadTest : public TansydTest {
 protected:
  void WriteSettings(const std::string& text) const { std::ofstream(server_.Data("tansyd.toml")) << text; }
  // Sends the signal and waits for this text in the log.
  bool ReloadAndRead(const std::string& text) {
    server_.Signal(SIGHUP);
    return WaitUntil([&] { return server_.GetLog().find(text) != std::string::npos; });
  }
  // A request that was signed long ago.
  std::string OutcomeOfOldRequest() {
    const Request request = Signed({"GET", "/", {{"Date", "Tue, 03 Nov 2020 08:05:09 GMT"}}, ""});
    return Outcome(Call(server_.GetObjectPort(), request));
  }
};

TEST_F(ReloadTest, TakesOverWhatARunningServerCan) {
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(OutcomeOfOldRequest(), "200");
  WriteSettings("require-date = 15\nlog-level = 2\n");
  ASSERT_TRUE(ReloadAndRead("require-date has changed, which counts from now on")) << server_.GetLog();
  EXPECT_EQ(OutcomeOfOldRequest(), "403 AccessDenied");
  EXPECT_TRUE(WaitUntil([&] { return server_.GetLog().find(" trace ") != std::string::npos; })) << "of level 2";
  WriteSettings("");
  server_.Signal(SIGHUP);
  EXPECT_TRUE(WaitUntil([&] { return OutcomeOfOldRequest() == "200"; })) << "what is not said is as ever";
}

TEST_F(ReloadTest, AnswersSayOnDemandHowLongTheyTook) {
  ASSERT_TRUE(server_.Start());
  const Request request = Signed({"GET", "/", {}, ""});
  EXPECT_EQ(Call(server_.GetObjectPort(), request).Header("Server-Timing"), "");
  WriteSettings("server-timing = \"on\"\n");
  ASSERT_TRUE(ReloadAndRead("server-timing has changed, which counts from now on")) << server_.GetLog();
  EXPECT_THAT(Call(server_.GetObjectPort(), request).Header("Server-Timing"),
              testing::MatchesRegex("receive;dur=[0-9.]+, queue;dur=[0-9.]+, handler;dur=[0-9.]+"));
}

TEST_F(ReloadTest, SaysWhatCountsFromTheNextStart) {
  ASSERT_TRUE(server_.Start());
  WriteSettings("wan-ip = \"192.0.2.1\"\nwan-object-port = 80\n");
  ASSERT_TRUE(ReloadAndRead("wan-object-port has changed, which counts from the next start")) << server_.GetLog();
  EXPECT_THAT(server_.GetLog(), testing::HasSubstr("wan-ip has changed, which counts from the next start"));
}

TEST_F(ReloadTest, KeepsWhatItHasWhenTheFileMakesNoSense) {
  ASSERT_TRUE(server_.Start());
  WriteSettings("require-date = 15\n");
  ASSERT_TRUE(ReloadAndRead("require-date has changed"));
  WriteSettings("require-date = 0\nlog-level = 77\n");
  ASSERT_TRUE(ReloadAndRead("the settings stay as they are")) << server_.GetLog();
  EXPECT_EQ(OutcomeOfOldRequest(), "403 AccessDenied") << "nothing of the file counts";
  WriteSettings("require-date = [\n");
  ASSERT_TRUE(WaitUntil([&] {
    server_.Signal(SIGHUP);
    const std::string log = server_.GetLog();
    return log.find("the settings stay as they are", log.find("the settings stay as they are") + 1) != log.npos;
  }));
  EXPECT_EQ(OutcomeOfOldRequest(), "403 AccessDenied");
}

TEST_F(ReloadTest, WhatTheCommandLineSaysGoesFirst) {
  Launch launch;
  launch.arguments = {"--require-date", "15"};
  ASSERT_TRUE(server_.Start(launch));
  WriteSettings("require-date = 0\n");
  ASSERT_TRUE(ReloadAndRead("log file and certificates read again"));
  EXPECT_EQ(OutcomeOfOldRequest(), "403 AccessDenied");
  EXPECT_THAT(server_.GetLog(), testing::Not(testing::HasSubstr("has changed")));
}

}  // namespace
}  // namespace system_tests
