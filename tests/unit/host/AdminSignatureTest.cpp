#include "AdminSignature.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "TansyNet/S3Signing.h"

namespace Tansy::Host {
namespace {

namespace S3Signing = TansyNet::S3Signing;

constexpr std::time_t kNow = 1369353600;  // 2013-05-24 00:00:00
const CredentialPair kKeys = {"access", "secret"};

struct Signing {
  std::string access_key = "access";
  std::string secret_key = "secret";
  std::string timestamp = "20130524T000000Z";
  std::string date = "20130524";
  std::string region = "us-east-1";
  std::vector<std::string> headers = {"host", "x-amz-content-sha256", "x-amz-date"};
  std::string digest = {};  // empty: that of the body
  std::string service = "tansy-admin";
};

TansyNet::HttpServerRecv Signed(const std::string& body, const Signing& how = {}) {
  TansyNet::HttpServerRecv message;
  message.method = "POST";
  message.url = "/admin/a%20b";
  message.query = "x=1&y=%2F";
  message.body = std::make_shared<const std::string>(body);
  message.headers = {{"Host", "127.0.0.1:9703"}, {"X-Amz-Date", how.timestamp}};
  const std::string digest = how.digest.empty() ? S3Signing::ToHex(S3Signing::Sha256(body)) : how.digest;
  message.headers["x-amz-content-sha256"] = digest;
  S3Signing::SignedRequest covered{"POST", "/admin/a b", {{"x", "1"}, {"y", "/"}}, {}, digest};
  std::string names;
  for (const std::string& name : how.headers) {
    const std::string value = name == "host" ? "127.0.0.1:9703" : name == "x-amz-date" ? how.timestamp : digest;
    covered.headers.emplace_back(name, value);
    names += (names.empty() ? "" : ";") + name;
  }
  const std::string scope = S3Signing::Scope(how.date, how.region, how.service);
  const std::string text = S3Signing::StringToSign(how.timestamp, scope, S3Signing::CanonicalRequest(covered));
  const std::string signature =
      S3Signing::Sign(S3Signing::SigningKey(how.secret_key, how.date, how.region, how.service), text);
  message.headers["Authorization"] = "AWS4-HMAC-SHA256 Credential=" + how.access_key + "/" + scope +
                                     ",SignedHeaders=" + names + ", Signature=" + signature;
  return message;
}

TEST(AdminSignatureTest, TakesWhatTheKeysHaveSigned) {
  EXPECT_TRUE(IsSigned(Signed("hello"), kKeys, kNow));
  EXPECT_TRUE(IsSigned(Signed(""), kKeys, kNow));
  EXPECT_TRUE(IsSigned(Signed("hello", {.region = "elsewhere"}), kKeys, kNow));
  TansyNet::HttpServerRecv bodiless = Signed("");
  bodiless.body = nullptr;
  EXPECT_TRUE(IsSigned(bodiless, kKeys, kNow));
}

TEST(AdminSignatureTest, TakesNothingElse) {
  EXPECT_FALSE(IsSigned(Signed("hello", {.secret_key = "other"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.access_key = "other"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.access_key = "", .secret_key = ""}), {}, kNow)) << "there are no keys";
  EXPECT_FALSE(IsSigned(Signed("hello", {.digest = "UNSIGNED-PAYLOAD"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.date = "20130523"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.timestamp = "20130524T000000"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.timestamp = "20130230T000000Z", .date = "20130230"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.headers = {"host", "x-amz-date"}}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.headers = {"x-amz-content-sha256", "x-amz-date"}}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.headers = {"host", "x-amz-content-sha256"}}), kKeys, kNow));
  for (const char* value :
       {"", "Basic YTpi", "AWS4-HMAC-SHA256", "AWS4-HMAC-SHA256 ", "AWS4-HMAC-SHA256 Credential=",
        "AWS4-HMAC-SHA256 Credential=access/20130524/r/tansy-admin/aws4_request, SignedHeaders=, Signature=",
        "AWS4-HMAC-SHA256 =,=,=", "AWS4-HMAC-SHA256 Credential=/////////"}) {
    TansyNet::HttpServerRecv message = Signed("hello");
    message.headers["Authorization"] = value;
    EXPECT_FALSE(IsSigned(message, kKeys, kNow)) << value;
  }
}

// A bucket may be called "admin", so a request to it could be one to the admin port too.
TEST(AdminSignatureTest, TakesNoSignatureThatWasMadeForTheS3Server) {
  EXPECT_FALSE(IsSigned(Signed("hello", {.service = "s3"}), kKeys, kNow));
  EXPECT_FALSE(IsSigned(Signed("hello", {.service = ""}), kKeys, kNow));
  TansyNet::HttpServerRecv renamed = Signed("hello", {.service = "s3"});
  std::string& claim = renamed.headers["Authorization"];
  claim.replace(claim.find("/s3/"), 4, "/tansy-admin/");
  EXPECT_FALSE(IsSigned(renamed, kKeys, kNow)) << "the name is signed, too";
}

TEST(AdminSignatureTest, CoversEveryPartOfTheRequest) {
  const auto is_signed = [](void (*change)(TansyNet::HttpServerRecv&)) {
    TansyNet::HttpServerRecv message = Signed("hello");
    change(message);
    return IsSigned(message, kKeys, kNow);
  };
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.method = "DELETE"; }));
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.url = "/admin/a"; }));
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.query = "x=2&y=%2F"; }));
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.query = ""; }));
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.headers["Host"] = "other"; }));
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.body = std::make_shared<std::string>("x"); }));
  EXPECT_FALSE(is_signed([](TansyNet::HttpServerRecv& message) { message.body = nullptr; }));
}

TEST(AdminSignatureTest, HoldsForAQuarterOfAnHour) {
  const TansyNet::HttpServerRecv message = Signed("hello");
  EXPECT_TRUE(IsSigned(message, kKeys, kNow + 900));
  EXPECT_TRUE(IsSigned(message, kKeys, kNow - 900));
  EXPECT_FALSE(IsSigned(message, kKeys, kNow + 901));
  EXPECT_FALSE(IsSigned(message, kKeys, kNow - 901));
}

}  // namespace
}  // namespace Tansy::Host
