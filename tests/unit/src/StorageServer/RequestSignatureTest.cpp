#include "StorageServer/RequestSignature.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace Tansy::CloudStorage {
namespace {

TansyNet::HttpServerRecv Request() {
  TansyNet::HttpServerRecv request;
  request.method = "PUT";
  request.url = "/bucket/key";
  return request;
}

TEST(HeaderOrEmpty, FindsANameAsItIsSpelled) {
  const TansyNet::Headers headers = {{"Date", "today"}, {"Empty", ""}};
  EXPECT_EQ(HeaderOrEmpty(headers, "Date"), "today");
  EXPECT_EQ(HeaderOrEmpty(headers, "Empty"), "");
  EXPECT_EQ(HeaderOrEmpty(headers, "date"), "");
  EXPECT_EQ(HeaderOrEmpty({}, "Date"), "");
}

TEST(QueryOf, EndsWithTheToken) {
  auto request = Request();
  for (const auto& [query, part] :
       {std::pair("", ""), std::pair("a=1&b=2", "a=1&b=2"), std::pair("token=T&a=1", "token=T&a=1"),
        std::pair("a=1&token=T", "a=1&token=T"), std::pair("a=1&token=T&a=2&b=3", "a=1&token=T"),
        std::pair("a=1&token=&a=2", "a=1&token="), std::pair("a=1&token=T&token=U", "a=1&token=T")}) {
    request.query = query;
    EXPECT_EQ(QueryOf(request), part) << query;
  }
}

TEST(ParseAuthorization, TakesAccessKeyAndSignatureApart) {
  Authorization authorization;
  EXPECT_EQ(ParseAuthorization(authorization, "quorvane ak:c2ln:bmF0dXJl="), AuthorizationForm::kValid);
  EXPECT_EQ(authorization.ak, "ak");
  EXPECT_EQ(authorization.signature, "c2ln:bmF0dXJl=");
  EXPECT_EQ(ParseAuthorization(authorization, "quorvane :"), AuthorizationForm::kValid);
  EXPECT_EQ(authorization.ak, "");
  EXPECT_EQ(authorization.signature, "");
  EXPECT_EQ(ParseAuthorization(authorization, "x quorvane a b:s"), AuthorizationForm::kValid);
  EXPECT_EQ(authorization.ak, "a b");
}

TEST(ParseAuthorization, SaysWhatIsMissing) {
  Authorization authorization;
  for (const char* value : {"", "quorvane ak", "quorvane"}) {
    EXPECT_EQ(ParseAuthorization(authorization, value), AuthorizationForm::kNoColon) << value;
  }
  for (const char* value :
       {":", "ak:s", "quorvaneak:s", "quorvane:s", "QUORVANE ak:s", ":quorvane ak", "a:quorvane :", "quorvane\tak:s"}) {
    EXPECT_EQ(ParseAuthorization(authorization, value), AuthorizationForm::kNoScheme) << value;
  }
}

TEST(BuildSignText, EmptyValuesStayAsEmptyLines) {
  EXPECT_EQ(BuildSignText(Request(), "", "", ""), "PUT\n\n\n\n\n/bucket/key");
}

TEST(BuildSignText, EveryPartHasItsPlace) {
  auto request = Request();
  request.headers = {{"Content-MD5", "digest"}, {"Content-Type", "not asked"}, {"Date", "not asked"}};
  EXPECT_EQ(BuildSignText(request, "type", "date", "a=1&b"), "PUT\ndigest\ntype\ndate\n\n/bucket/key?a=1&b");
}

TEST(BuildSignText, TheStandardDigestHeaderComesFirstEvenWhenItIsEmpty) {
  auto request = Request();
  request.headers = {{"Content-Md5", "second"}};
  EXPECT_EQ(BuildSignText(request, "", "", ""), "PUT\nsecond\n\n\n\n/bucket/key");
  request.headers["Content-MD5"] = "";
  EXPECT_EQ(BuildSignText(request, "", "", ""), "PUT\n\n\n\n\n/bucket/key");
}

TEST(BuildSignText, ExtensionHeadersInTheOrderOfTheirNames) {
  auto request = Request();
  request.headers = {{"x-qvs-b", "two"}, {"a-x-qvs", "one"}, {"x-qvs-c", ""}, {"X-Qvs-D", "other"}};
  EXPECT_EQ(BuildSignText(request, "", "", ""), "PUT\n\n\n\none\ntwo\n\n/bucket/key");
}

TEST(BuildSignText, OnlyTheGivenPartOfTheQueryIsSigned) {
  auto request = Request();
  request.query = "a=1&AccessKeyId=ak";
  EXPECT_EQ(BuildSignText(request, "", "", "a=1"), "PUT\n\n\n\n\n/bucket/key?a=1");
}

}  // namespace
}  // namespace Tansy::CloudStorage
