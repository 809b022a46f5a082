#include "StorageServer/S3Server/S3Attributes.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::CloudStorage::S3 {
namespace {

TEST(S3Attributes, ComeBackAsTheyWereGiven) {
  Attributes given;
  ASSERT_FALSE(TakeHeaders(given, {{"content-type", "text/plain; charset=utf-8"},
                                   {"content-encoding", "gzip"},
                                   {"x-amz-meta-a", "100% \xC3\xA9:\t\x01 end "},
                                   {"x-amz-meta-empty", ""},
                                   {"host", "h"},
                                   {"authorization", "secret"}}));
  given.etag = "abc";
  const std::string text = ToText(given);
  for (const char c : text) {
    EXPECT_TRUE((c >= 0x20 && c < 0x7f) || c == '\n');
  }
  const Attributes read = FromText(text);
  EXPECT_EQ(read.etag, "abc");
  EXPECT_EQ(read.headers, given.headers);
  EXPECT_EQ(read.headers.size(), 4U);
}

// There may be millions of them in memory.
TEST(S3Attributes, AreShort) {
  Attributes given;
  given.etag = "0123456789abcdef0123456789abcdef";
  given.headers = {{"content-type", "image/jpeg"}, {"x-amz-meta-a", "1"}};
  EXPECT_EQ(ToText(given), "ASNFZ4mrze8BI0VniavN7w\n4:image/jpeg\n-a:1");
  EXPECT_EQ(ETagOfText(ToText(given)), given.etag);
  EXPECT_EQ(FromText(ToText(given)).headers, given.headers);
}

TEST(S3Attributes, KeepTagsAndNamesOfEveryForm) {
  for (const std::string& etag :
       {std::string(32, '0'), std::string(32, 'f'), std::string(32, 'F'), std::string(31, 'a'),
        std::string(22, 'a') + "-3", std::string("0123456789abcdef0123456789abcdef-10000"), std::string()}) {
    Attributes given;
    given.etag = etag;
    for (const char* name : {"cache-control", "content-disposition", "content-encoding", "content-language",
                             "content-type", "expires", "x-amz-meta-", "x-amz-meta-content-type", "other", "7"}) {
      given.headers[name] = name;
    }
    EXPECT_EQ(FromText(ToText(given)).etag, etag);
    EXPECT_EQ(FromText(ToText(given)).headers, given.headers);
  }
}

TEST(S3Attributes, ForgetHowTheBodyWasSent) {
  for (const auto& [sent, kept] :
       {std::pair("aws-chunked", ""), std::pair("gzip, AWS-chunked", "gzip"), std::pair("aws-chunked,br", "br")}) {
    Attributes attributes;
    ASSERT_FALSE(TakeHeaders(attributes, {{"content-encoding", sent}}));
    EXPECT_EQ(attributes.headers.count("content-encoding"), std::string(kept).empty() ? 0U : 1U) << sent;
    if (!attributes.headers.empty()) {
      EXPECT_EQ(attributes.headers["content-encoding"], kept);
    }
  }
}

TEST(S3Attributes, AreOfLimitedLength) {
  Attributes attributes;
  EXPECT_FALSE(TakeHeaders(attributes, {{"x-amz-meta-a", std::string(2047, 'v')}}));
  EXPECT_EQ(TakeHeaders(attributes, {{"x-amz-meta-a", std::string(2048, 'v')}}).error, EError::kMetadataTooLarge);
  EXPECT_EQ(TakeHeaders(attributes, {{"expires", std::string(5000, 'v')}}).error, EError::kMetadataTooLarge);
}

TEST(S3Attributes, AreNoneForATextOfAnotherForm) {
  EXPECT_EQ(FromText("").etag, "");
  EXPECT_TRUE(FromText("").headers.empty());
  EXPECT_TRUE(FromText("etag\nno colon\n\n").headers.empty());
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
