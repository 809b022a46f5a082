#include "ConsolePlace.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::Host {
namespace {

constexpr std::uint16_t kS3 = 9702;
constexpr std::uint16_t kS3Https = 9745;

std::string S3Of(const std::string& host, bool is_secure, std::uint16_t s3 = kS3, std::uint16_t s3_https = kS3Https) {
  const auto place = FindConsolePlace(host, is_secure, s3, s3_https);
  return place.has_value() ? place->s3 : "no place";
}

TEST(ConsolePlaceTest, TheS3ServerIsAtTheHostThatWasAskedFor) {
  EXPECT_EQ(S3Of("127.0.0.1:9703", false), "http://127.0.0.1:9702");
  EXPECT_EQ(S3Of("nas.example.org:9703", true), "https://nas.example.org:9745");
  EXPECT_EQ(S3Of("nas", false), "http://nas:9702");
  EXPECT_EQ(S3Of("[::1]:9703", false), "http://[::1]:9702");
  EXPECT_EQ(S3Of("[fd00::5]", true), "https://[fd00::5]:9745");
}

TEST(ConsolePlaceTest, APageThatCameByHttpsUsesHttpsOnly) {
  EXPECT_EQ(S3Of("nas:9703", true, kS3, 0), "") << "browsers refuse it to ask by HTTP";
  EXPECT_EQ(S3Of("127.0.0.1:9703", false, 0, kS3Https), "https://127.0.0.1:9745");
  EXPECT_EQ(S3Of("127.0.0.1:9703", false, 0, 0), "");
}

TEST(ConsolePlaceTest, LeavesUsualPortsOutAsBrowsersDo) {
  EXPECT_EQ(S3Of("nas:9703", false, 80), "http://nas");
  EXPECT_EQ(S3Of("nas:9703", true, kS3, 443), "https://nas");
  EXPECT_EQ(S3Of("nas:9703", false, 443), "http://nas:443");
  EXPECT_EQ(FindConsolePlace("nas:9703", false, 80, 0)->s3_host, "nas");
}

TEST(ConsolePlaceTest, KnowsTheOriginOfThePage) {
  EXPECT_EQ(FindConsolePlace("nas:9703", true, kS3, kS3Https)->origin, "https://nas:9703");
  EXPECT_EQ(FindConsolePlace("127.0.0.1:9703", false, kS3, kS3Https)->origin, "http://127.0.0.1:9703");
}

TEST(ConsolePlaceTest, TakesNothingButAHost) {
  for (const char* host :
       {"",         ":9703",  "nas:",       "nas:x",    "nas:123456",  "nas 9703",  "nas;script-src *",
        "nas/evil", "nas'",   "a\"b",       "a,b",      "[::1",        "::1",       "[::1]x",
        "[]",       "[:9703", "[nas]:9703", "user@nas", "nas\r\nX: y", "n\xC3\xA4s"}) {
    EXPECT_FALSE(FindConsolePlace(host, false, kS3, kS3Https).has_value()) << host;
  }
  EXPECT_FALSE(FindConsolePlace(std::string(256, 'a'), false, kS3, kS3Https).has_value());
  EXPECT_TRUE(FindConsolePlace(std::string(255, 'a'), false, kS3, kS3Https).has_value());
}

TEST(ConsolePlaceTest, ThePolicyLetsThePageReachItselfAndTheS3ServerOnly) {
  const auto place = FindConsolePlace("nas:9703", true, kS3, kS3Https);
  EXPECT_EQ(ConsolePolicy(*place),
            "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data: https://nas:9745; "
            "media-src blob: https://nas:9745; connect-src 'self' https://nas:9745; font-src 'self'; "
            "frame-src blob: https://nas:9745; frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
  const auto without = FindConsolePlace("nas:9703", true, kS3, 0);
  EXPECT_EQ(ConsolePolicy(*without),
            "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; media-src blob:; "
            "connect-src 'self'; font-src 'self'; frame-src blob:; frame-ancestors 'none'; base-uri 'none'; "
            "form-action 'none'");
}

}  // namespace
}  // namespace Tansy::Host
