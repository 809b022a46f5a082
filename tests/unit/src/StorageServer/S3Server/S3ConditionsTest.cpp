#include "StorageServer/S3Server/S3Conditions.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::CloudStorage::S3 {
namespace {

std::string Text(std::string_view header, std::uint64_t size) {
  const AskedRange range = ReadRange(header, size);
  if (range.kind == ERange::kPart) {
    return std::to_string(range.begin) + "+" + std::to_string(range.length);
  }
  return range.kind == ERange::kWhole ? "whole" : "none";
}

TEST(S3Range, ReadsEachForm) {
  EXPECT_EQ(Text("bytes=0-0", 10), "0+1");
  EXPECT_EQ(Text("bytes=2-5", 10), "2+4");
  EXPECT_EQ(Text("bytes=2-", 10), "2+8");
  EXPECT_EQ(Text("bytes=-3", 10), "7+3");
  EXPECT_EQ(Text("bytes=5-100", 10), "5+5");
  EXPECT_EQ(Text("bytes=-100", 10), "0+10");
  EXPECT_EQ(Text("Bytes=4294967290-", 4294967295U), "4294967290+5");
}

TEST(S3Range, TellsRangesOutsideOfTheObject) {
  EXPECT_EQ(Text("bytes=10-", 10), "none");
  EXPECT_EQ(Text("bytes=10-12", 10), "none");
  EXPECT_EQ(Text("bytes=-0", 10), "none");
  EXPECT_EQ(Text("bytes=0-", 0), "none");
  EXPECT_EQ(Text("bytes=-1", 0), "none");
}

TEST(S3Range, SendsAllForWhatIsNoSingleRange) {
  for (const char* const header : {"", "bytes", "bytes=", "bytes=-", "bytes=a-b", "bytes=5-4", "bytes=0-1,3-4",
                                   "items=0-1", "bytes=1-x", "bytes=--1"}) {
    EXPECT_EQ(Text(header, 10), "whole") << header;
  }
}

constexpr std::time_t kModified = 1369353600;  // Fri, 24 May 2013 00:00:00 GMT
constexpr const char* kBefore = "Thu, 23 May 2013 00:00:00 GMT";
constexpr const char* kThen = "Fri, 24 May 2013 00:00:00 GMT";

ECondition Check(const LowerHeaders& headers) {
  return CheckConditions(headers, {"abc", ""}, kModified);
}

TEST(S3Conditions, AreFoundWhateverElseARequestHas) {
  for (const char* name : {"if-match", "if-modified-since", "if-none-match", "if-unmodified-since"}) {
    EXPECT_TRUE(HasConditions({{name, "x"}})) << name;
    EXPECT_TRUE(HasConditions({{"accept", "x"}, {"host", "x"}, {name, "x"}, {"x-amz-date", "x"}})) << name;
  }
  EXPECT_FALSE(HasConditions({}));
  EXPECT_FALSE(HasConditions({{"accept", "x"}, {"host", "x"}, {"iffy", "x"}}));
  EXPECT_FALSE(HasConditions({{"accept", "x"}}));
}

TEST(S3Conditions, ComparesEntityTags) {
  EXPECT_EQ(Check({}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-match", "\"abc\""}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-match", "abc"}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-match", "*"}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-match", "\"x\", \"abc\""}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-match", "\"x\""}}), ECondition::kFailed);
  EXPECT_EQ(Check({{"if-none-match", "W/\"abc\""}}), ECondition::kNotModified);
  EXPECT_EQ(Check({{"if-none-match", "*"}}), ECondition::kNotModified);
  EXPECT_EQ(Check({{"if-none-match", "\"x\""}}), ECondition::kMet);
}

TEST(S3Conditions, KnowsAVersionByEitherTag) {
  const VersionTags tags{"abc", "def-1"};
  for (const char* tag : {"\"abc\"", "\"def-1\"", "\"x\", \"def-1\""}) {
    EXPECT_EQ(CheckConditions({{"if-match", tag}}, tags, kModified), ECondition::kMet) << tag;
    EXPECT_EQ(CheckConditions({{"if-none-match", tag}}, tags, kModified), ECondition::kNotModified) << tag;
    EXPECT_TRUE(MayWrite({{"if-match", tag}}, &tags)) << tag;
    EXPECT_FALSE(MayWrite({{"if-none-match", tag}}, &tags)) << tag;
  }
  EXPECT_EQ(CheckConditions({{"if-match", "\"x-1\""}}, tags, kModified), ECondition::kFailed);
  EXPECT_EQ(Check({{"if-match", "\"\""}}), ECondition::kFailed) << "without a stand-in there is no empty tag";
}

TEST(S3Conditions, ComparesTimes) {
  EXPECT_EQ(Check({{"if-modified-since", kThen}}), ECondition::kNotModified);
  EXPECT_EQ(Check({{"if-modified-since", kBefore}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-modified-since", "nonsense"}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-unmodified-since", kThen}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-unmodified-since", kBefore}}), ECondition::kFailed);
}

TEST(S3Conditions, LetsTagsGoBeforeTimes) {
  EXPECT_EQ(Check({{"if-match", "\"abc\""}, {"if-unmodified-since", kBefore}}), ECondition::kMet);
  EXPECT_EQ(Check({{"if-none-match", "\"x\""}, {"if-modified-since", kThen}}), ECondition::kMet);
}

TEST(S3Conditions, LetAWriteTakePlaceOrNot) {
  const VersionTags etag{"abc", ""};
  EXPECT_TRUE(MayWrite({}, nullptr));
  EXPECT_TRUE(MayWrite({}, &etag));
  EXPECT_TRUE(MayWrite({{"if-none-match", "*"}}, nullptr));
  EXPECT_FALSE(MayWrite({{"if-none-match", "*"}}, &etag));
  EXPECT_FALSE(MayWrite({{"if-none-match", "\"abc\""}}, &etag));
  EXPECT_TRUE(MayWrite({{"if-none-match", "\"def\""}}, &etag));
  EXPECT_TRUE(MayWrite({{"if-match", "\"abc\""}}, &etag));
  EXPECT_TRUE(MayWrite({{"if-match", "*"}}, &etag));
  EXPECT_FALSE(MayWrite({{"if-match", "\"def\""}}, &etag));
  EXPECT_FALSE(MayWrite({{"if-match", "*"}}, nullptr));
  EXPECT_FALSE(MayWrite({{"if-match", "W/\"abc\""}}, &etag)) << "a weak tag does not stand for the same bytes";
  EXPECT_TRUE(MayWrite({{"if-match", "W/\"abc\", \"abc\""}}, &etag));
  EXPECT_FALSE(MayWrite({{"if-none-match", "W/\"abc\""}}, &etag));
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
