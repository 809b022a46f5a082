#include "NewKeyRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace Tansy::Host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What is said about a request; empty when it is taken.
std::string Wrong(const std::string& json) {
  Key key;
  return ReadNewKey(key, json);
}

TEST(NewKeyRequestTest, ReadsAllRights) {
  Key key;
  EXPECT_EQ(ReadNewKey(key, R"({"name":"guest","buckets":["photos","more"],"read_only":true,"expires":1800000000})"),
            "");
  EXPECT_EQ(key.name, "guest");
  EXPECT_THAT(key.buckets, ElementsAre("photos", "more"));
  EXPECT_TRUE(key.read_only);
  EXPECT_EQ(key.expires, 1800000000);
}

TEST(NewKeyRequestTest, WhatIsMissingLimitsNothing) {
  for (const char* json : {R"({"name":"all"})", R"({"name":"all","buckets":[],"read_only":false,"expires":0})"}) {
    Key key;
    EXPECT_EQ(ReadNewKey(key, json), "") << json;
    EXPECT_EQ(key.name, "all");
    EXPECT_THAT(key.buckets, IsEmpty());
    EXPECT_FALSE(key.read_only);
    EXPECT_EQ(key.expires, 0);
  }
}

// Each of these would otherwise make a key that may do more than was meant.
TEST(NewKeyRequestTest, BucketsAreAListOfTexts) {
  for (const char* buckets : {R"("photos")", "1", "true", "null", "{}", R"({"1":"photos"})", R"([1])",
                              R"(["photos",null])", R"(["photos",["more"]])", R"(["photos",{}])"}) {
    EXPECT_THAT(Wrong(std::string(R"({"name":"guest","buckets":)") + buckets + "}"), HasSubstr("buckets has to be"))
        << buckets;
  }
}

TEST(NewKeyRequestTest, ReadOnlyIsABoolean) {
  for (const char* value : {"1", "0", R"("yes")", R"("true")", "null", "[true]", "{}"}) {
    EXPECT_THAT(Wrong(std::string(R"({"name":"guest","read_only":)") + value + "}"), HasSubstr("read_only has to be"))
        << value;
  }
}

TEST(NewKeyRequestTest, TheEndIsAnInteger) {
  for (const char* value : {R"("2027-01-31")", R"("1800000000")", "1.8e9", "1800000000.0", "9223372036854775808",
                            "true", "null", "[1800000000]", "{}"}) {
    EXPECT_THAT(Wrong(std::string(R"({"name":"guest","expires":)") + value + "}"), HasSubstr("expires has to be"))
        << value;
  }
}

TEST(NewKeyRequestTest, TheNameIsAText) {
  for (const char* json : {"{}", R"({"name":1})", R"({"name":null})", R"({"name":["guest"]})", "[]", R"("guest")"}) {
    EXPECT_THAT(Wrong(json), HasSubstr("name has to be a text")) << json;
  }
}

TEST(NewKeyRequestTest, NoMemberIsPassedOver) {
  for (const char* member : {R"("bucket":["photos"])", R"("readonly":true)", R"("Expires":1)", R"("":{})",
                             R"("access_key":"x")", R"("until":null)"}) {
    EXPECT_THAT(Wrong(std::string(R"({"name":"guest",)") + member + "}"), HasSubstr("there is no ")) << member;
  }
  EXPECT_THAT(Wrong(R"({"name":"guest","bucket":1})"), HasSubstr("no bucket: a key has name, buckets"));
  EXPECT_EQ(Wrong(R"({"name":"guest","read_only":true,"read_only":false})"), "say read_only once");
}

TEST(NewKeyRequestTest, TextThatIsNoJsonIsRefused) {
  for (const char* text : {"", "{", "name=guest"}) {
    EXPECT_EQ(Wrong(text), "send JSON") << text;
  }
}

}  // namespace
}  // namespace Tansy::Host
