#include <gtest/gtest.h>

#include <string>

#include "TansyNet/wire/HeaderNames.h"

namespace {

using TansyNet::EqualNoCase;
using TansyNet::StandardHeaderName;

TEST(HeaderNames, StandardNamesGetTheirStandardSpelling) {
  EXPECT_EQ(StandardHeaderName("authorization"), "Authorization");
  EXPECT_EQ(StandardHeaderName("HOST"), "Host");
  EXPECT_EQ(StandardHeaderName("content-type"), "Content-Type");
  EXPECT_EQ(StandardHeaderName("content-length"), "Content-Length");
  EXPECT_EQ(StandardHeaderName("range"), "Range");
  EXPECT_EQ(StandardHeaderName("date"), "Date");
  EXPECT_EQ(StandardHeaderName("etag"), "ETag");
  EXPECT_EQ(StandardHeaderName("te"), "TE");
  EXPECT_EQ(StandardHeaderName("www-authenticate"), "WWW-Authenticate");
  EXPECT_EQ(StandardHeaderName("access-control-allow-credentials"), "Access-Control-Allow-Credentials");
}

TEST(HeaderNames, OneSpellingOfTheDigestStaysItself) {
  EXPECT_EQ(StandardHeaderName("Content-Md5"), "Content-Md5");
  EXPECT_EQ(StandardHeaderName("content-md5"), "Content-MD5");
  EXPECT_EQ(StandardHeaderName("CONTENT-MD5"), "Content-MD5");
  EXPECT_EQ(StandardHeaderName("Content-MD5"), "Content-MD5");
}

TEST(HeaderNames, OtherNamesStayAsTheyAre) {
  EXPECT_EQ(StandardHeaderName("x-qvs-Meta"), "x-qvs-Meta");
  EXPECT_EQ(StandardHeaderName("object-size"), "object-size");
  EXPECT_EQ(StandardHeaderName("hosts"), "hosts");
  EXPECT_EQ(StandardHeaderName(""), "");
  const std::string longer(1000, 'a');
  EXPECT_EQ(StandardHeaderName(longer), longer);
}

TEST(HeaderNames, ComparesAsciiLettersOnly) {
  EXPECT_TRUE(EqualNoCase("", ""));
  EXPECT_TRUE(EqualNoCase("aZ-1", "Az-1"));
  EXPECT_FALSE(EqualNoCase("a", "ab"));
  EXPECT_FALSE(EqualNoCase("@", "`"));
  EXPECT_FALSE(EqualNoCase("\xc4", "\xe4"));
}

}  // namespace
