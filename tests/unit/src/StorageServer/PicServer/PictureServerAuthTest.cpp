// Request signatures: the Authorization header and the signature of a query.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "PictureServerFixture.h"
#include "StorageServer/ServerComm.h"
#include "TansyCloudStorage/ObjectServer.h"

namespace Tansy::CloudStorage {
namespace {

constexpr const char* kDateValue = "Tue,  3 Nov 2026 08:05:09 GMT";
constexpr const char* kNoHeader = "[%s]http header without Authorization![%s(%d)]";
constexpr const char* kHeader = "[%s]http header Authorization=%s[%s(%d)]";
constexpr const char* kInvalid1 = "[%s]http header Authorization invalid 1! Authorization=%s[%s(%d)]";
constexpr const char* kInvalid2 = "[%s]http header Authorization invalid 2! Authorization=%s gauth_prefix=%s[%s(%d)]";
constexpr const char* kInvalid3 =
    "[%s]http header Authorization invalid 3! Authorization=%s recv_ak=%s server_ak=%s[%s(%d)]";
constexpr const char* kWrongSignature = "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]";

class PictureServerAuth : public PictureServerTest {
 protected:
  void SetUp() override {
    PictureServerTest::SetUp();
    StartServer();
    store.picture = "bytes";
  }

  Tests::FakeAnswer AskWith(const std::string& authorization) {
    auto request = Request("GET", kVersionPath);
    request.headers["Date"] = kDateValue;
    request.headers["Authorization"] = authorization;
    log_->Clear();
    return Ask(request);
  }

  // Asks for a picture whose query ends with these signed-in parameters.
  Tests::FakeAnswer AskQuery(const std::string& query) {
    log_->Clear();
    return Ask(Request("GET", "/pic", query));
  }
  static std::string Escaped(const std::string& signature) {
    std::string escaped;
    for (const char c : signature) {
      escaped += c == '+' ? "%2B" : c == '/' ? "%2F" : c == '=' ? "%3D" : std::string(1, c);
    }
    return escaped;
  }
  // The query "<signed_part>&AccessKeyId=access&Expires=5&Signature=...".
  static std::string SignedQuery(const std::string& signed_part, const std::string& expires = "5") {
    const std::string signature = SignHmacSha1("GET\n\n\n" + expires + "\n\n/pic?" + signed_part, "secret");
    return signed_part + "&AccessKeyId=access&Expires=" + expires + "&Signature=" + Escaped(signature);
  }

  void ExpectText(const char* format, const std::string& part) {
    EXPECT_NE(log_->Text(format).find(part), std::string::npos) << log_->Text(format);
  }
};

TEST_F(PictureServerAuth, AnEmptyKeyIsNoKey) {
  const std::string text = "GET\n\n\n" + std::string(kDateValue) + "\n\n" + kVersionPath;
  for (const auto& [ak, sk] : {std::pair("", ""), std::pair("access", ""), std::pair("", "secret")}) {
    StorageServerConfig_V1 config = MakeConfig();
    config.ak = ak;
    config.sk = sk;
    StartServer(config);
    ExpectError(AskWith(std::string("quorvane ") + ak + ":" + SignHmacSha1(text, sk)), -58002, 403);
    const std::string signature = SignHmacSha1("GET\n\n\n5\n\n/pic?id=7", sk);
    ExpectError(AskQuery(std::string("id=7&AccessKeyId=") + ak + "&Expires=5&Signature=" + Escaped(signature)), -58002,
                403);
  }
}

TEST_F(PictureServerAuth, AHeaderOutsideTheWindowOfDatesIsRefusedAndALinkIsNot) {
  const std::string text = "GET\n\n\n" + std::string(kDateValue) + "\n\n" + kVersionPath;
  const std::string authorization = "quorvane access:" + SignHmacSha1(text, "secret");
  ASSERT_EQ(SetSignatureDateWindow(15), 0);
  EXPECT_EQ(AskWith(authorization).response.status, 200);
  clock_.Advance(15 * 60 + 1);
  EXPECT_EQ(AskWith(authorization).response.status, 403);
  ExpectLog("[%s]http header Date refused! Date=%s window=%d minutes[%s(%d)]", logging::kError,
            "CPictureServer::CheckAuth");
  EXPECT_EQ(AskQuery(SignedQuery("id=7")).body, "bytes");
  ASSERT_EQ(SetSignatureDateWindow(0), 0);
  EXPECT_EQ(AskWith(authorization).response.status, 200);
}

// Signatures computed elsewhere.
TEST_F(PictureServerAuth, KnownHeaderSignatures) {
  EXPECT_EQ(AskWith("quorvane access:9qeOBqmLa1QFaRr8PVkiXu2nWIw=").response.status, 200);
  ExpectLog(kHeader, logging::kTrace, "CPictureServer::CheckAuth");
  ExpectText(kHeader, "]http header Authorization=quorvane access:9qeOBqmLa1QFaRr8PVkiXu2nWIw=[");

  auto request = Upload("abc", "3");
  request.query = "a=1&b";
  request.headers["Content-MD5"] = "md5";
  request.headers["a-x-qvs-1"] = "one";
  request.headers["x-qvs-2"] = "two";
  request.headers["Authorization"] = "quorvane access:RlhWNzIZPufq1s58slsE7DLttOY=";
  EXPECT_EQ(Ask(request).response.status, 200);
}

TEST_F(PictureServerAuth, NoHeader) {
  log_->Clear();
  ExpectError(Ask(Request("GET", kVersionPath)), -58002, 403);
  ExpectLog(kNoHeader, logging::kError, "CPictureServer::CheckAuth");
  EXPECT_EQ(log_->Count(kHeader), 0u);
}

TEST_F(PictureServerAuth, AHeaderWithoutAColon) {
  for (const char* value : {"", "quorvane access", "Basic abc"}) {
    ExpectError(AskWith(value), -58002, 403);
    ExpectLog(kInvalid1, logging::kError, "CPictureServer::CheckAuth");
    ExpectText(kInvalid1, "Authorization=" + std::string(value) + "[");
  }
}

TEST_F(PictureServerAuth, AHeaderWithoutTheSchemeWordOrItsBlank) {
  for (const char* value : {"access:x", "quorvaneaccess:x", "Quorvane access:x", "quorvane:x", "quorvane\taccess:x",
                            ":quorvane access", "a:b quorvane access:x", "quorvane:"}) {
    ExpectError(AskWith(value), -58002, 403);
    ExpectLog(kInvalid2, logging::kError, "CPictureServer::CheckAuth");
    ExpectText(kInvalid2, "Authorization=" + std::string(value) + " gauth_prefix=quorvane[");
  }
}

TEST_F(PictureServerAuth, AnotherAccessKey) {
  for (const char* ak : {"other", "", " access", "Access", "access "}) {
    ExpectError(AskWith("quorvane " + std::string(ak) + ":x"), -58003, 401);
    ExpectLog(kInvalid3, logging::kError, "CPictureServer::CheckAuth");
    ExpectText(kInvalid3, "Authorization=quorvane " + std::string(ak) + ":x recv_ak=" + ak + " server_ak=access[");
  }
}

TEST_F(PictureServerAuth, AWrongSignature) {
  ExpectError(AskWith("quorvane access:wrong"), -58002, 403);
  ExpectLog(kWrongSignature, logging::kError, "CPictureServer::CheckAuth");
  ExpectText(kWrongSignature, "Authorization=quorvane access:wrong sign_str=GET\n\n\n" + std::string(kDateValue) +
                                  "\n\n/Quorvane/Version server_sk=secret[");
}

TEST_F(PictureServerAuth, TextBeforeTheSchemeWordIsForgiven) {
  const std::string good = AuthorizationFor("GET\n\n\n" + std::string(kDateValue) + "\n\n/Quorvane/Version");
  EXPECT_EQ(AskWith("  " + good).response.status, 200);
}

TEST_F(PictureServerAuth, WhateverIsSignedCounts) {
  const auto ok = Signed(Request("GET", kVersionPath, "a=1"));
  ASSERT_EQ(Ask(ok).response.status, 200);
  auto changed = ok;
  changed.query = "a=2";
  ExpectError(Ask(changed), -58002, 403);
  changed = ok;
  changed.headers["Date"] = "Wed,  4 Nov 2026 08:05:09 GMT";
  ExpectError(Ask(changed), -58002, 403);
  changed = ok;
  changed.url = kPoolsPath;
  ExpectError(Ask(changed), -58002, 403);
  changed = ok;
  changed.headers["Content-Type"] = "text/plain";
  ExpectError(Ask(changed), -58002, 403);
  changed = ok;
  changed.headers["Content-MD5"] = "x";
  ExpectError(Ask(changed), -58002, 403);
  changed = ok;
  changed.headers["x-qvs-a"] = "x";
  ExpectError(Ask(changed), -58002, 403);
  changed = ok;
  changed.headers["X-Other"] = "x";
  EXPECT_EQ(Ask(changed).response.status, 200);
}

TEST_F(PictureServerAuth, TheOtherSpellingOfTheDigestHeaderIsSecondChoice) {
  auto request = Request("GET", kVersionPath);
  request.headers["Date"] = kDateValue;
  request.headers["Content-Md5"] = "second";
  const std::string rest = "\n\n" + std::string(kDateValue) + "\n\n/Quorvane/Version";
  request.headers["Authorization"] = AuthorizationFor("GET\nsecond" + rest);
  EXPECT_EQ(Ask(request).response.status, 200);
  request.headers["Content-MD5"] = "first";
  ExpectError(Ask(request), -58002, 403);
  request.headers["Authorization"] = AuthorizationFor("GET\nfirst" + rest);
  EXPECT_EQ(Ask(request).response.status, 200);
}

TEST_F(PictureServerAuth, OfAFormOnlyTheTypeIsSigned) {
  for (const char* type : {"multipart/form-data", "multipart/form-data; boundary=x", "x; multipart/form-data"}) {
    auto request = Request("GET", kVersionPath);
    request.headers["Date"] = kDateValue;
    request.headers["Content-Type"] = type;
    request.headers["Authorization"] =
        AuthorizationFor("GET\n\nmultipart/form-data\n" + std::string(kDateValue) + "\n\n/Quorvane/Version");
    EXPECT_EQ(Ask(request).response.status, 200) << type;
  }
}

TEST_F(PictureServerAuth, KnownQuerySignature) {
  EXPECT_EQ(AskQuery("id=7&AccessKeyId=access&Expires=1793693109&Signature=3CS9CdKKeW5f41yx5ZJck2TTwGs%3D").body,
            "bytes");
}

TEST_F(PictureServerAuth, AQueryWithoutASignature) {
  ExpectError(AskQuery("id=7&AccessKeyId=access"), -58002, 403);
  ExpectLog("[%s]not Signature[%s(%d)]", logging::kError, "CPictureServer::CheckUrlAuth");
  ExpectError(AskQuery(""), -58002, 403);
  ExpectLog("[%s]not Signature[%s(%d)]", logging::kError, "CPictureServer::CheckUrlAuth");
}

TEST_F(PictureServerAuth, TheAlgorithmOneIsRefusedAndEveryOtherPasses) {
  const std::string query = SignedQuery("id=7");
  ExpectError(AskQuery(query + "&Algorithm=1"), -58002, 403);
  ExpectLog("[%s]not Algorithm[%s(%d)]", logging::kError, "CPictureServer::CheckUrlAuth");
  for (const char* other :
       {"&Algorithm=0", "&Algorithm=", "&Algorithm=01", "&Algorithm=HmacSHA1", "&algorithm=1", ""}) {
    EXPECT_EQ(AskQuery(query + other).body, "bytes") << other;
  }
  // The algorithm comes before the access key.
  ExpectError(AskQuery("id=7&AccessKeyId=other&Signature=x&Algorithm=1"), -58002, 403);
}

TEST_F(PictureServerAuth, AQueryOfAnotherAccessKey) {
  constexpr const char* kOther = "[%s]ak not equal, server=%s, recv=%s[%s(%d)]";
  ExpectError(AskQuery("id=7&AccessKeyId=other&Signature=x"), -58003, 401);
  ExpectLog(kOther, logging::kError, "CPictureServer::CheckUrlAuth");
  ExpectText(kOther, "]ak not equal, server=access, recv=other[");
}

TEST_F(PictureServerAuth, AQueryWithoutAnAccessKey) {
  ExpectError(AskQuery("id=7&Signature=x"), -58002, 403);
  ExpectLog("[%s]not AccessKeyId[%s(%d)]", logging::kError, "CPictureServer::CheckUrlAuth");
}

TEST_F(PictureServerAuth, AnAccessKeyThatComesFirst) {
  ExpectError(AskQuery("AccessKeyId=access&Signature=x"), -58002, 403);
  ExpectLog("[%s]error not AccessKeyId[%s(%d)]", logging::kError, "CPictureServer::CheckUrlAuth");
}

TEST_F(PictureServerAuth, AQueryWithAWrongSignature) {
  ExpectError(AskQuery("id=7&AccessKeyId=access&Expires=5&Signature=wrong"), -58002, 403);
  ExpectLog(kWrongSignature, logging::kError, "CPictureServer::CheckUrlAuth");
  ExpectText(kWrongSignature, "Authorization=wrong sign_str=GET\n\n\n5\n\n/pic?id=7 server_sk=secret[");
}

TEST_F(PictureServerAuth, OnlyWhatStandsBeforeTheAccessKeyIsSigned) {
  const std::string query = SignedQuery("id=7&size=big");
  EXPECT_EQ(AskQuery(query).body, "bytes");
  EXPECT_EQ(AskQuery(query + "&more=1").body, "bytes");
  ExpectError(AskQuery("x" + query), -58002, 403);
}

TEST_F(PictureServerAuth, TheExpiryIsSignedAndNeverComparedWithTheClock) {
  EXPECT_EQ(AskQuery(SignedQuery("id=7", "1")).body, "bytes");  // long ago
  EXPECT_EQ(AskQuery(SignedQuery("id=7", "later")).body, "bytes");
  std::string query = SignedQuery("id=7", "5");
  query.replace(query.find("Expires=5"), 9, "Expires=6");
  ExpectError(AskQuery(query), -58002, 403);
}

TEST_F(PictureServerAuth, AQueryMayLackTheExpiry) {
  const std::string signature = SignHmacSha1("GET\n\n\n\n\n/pic?id=7", "secret");
  EXPECT_EQ(AskQuery("id=7&AccessKeyId=access&Signature=" + Escaped(signature)).body, "bytes");
}

TEST_F(PictureServerAuth, TheQuerySignatureSignsTypeDigestAndExtensionsToo) {
  auto request = Request("GET", "/pic");
  request.headers["Content-Type"] = "multipart/form-data; boundary=x";
  request.headers["Content-MD5"] = "md5";
  request.headers["Date"] = kDateValue;  // not signed here
  request.headers["x-qvs-a"] = "one";
  const std::string signature = SignHmacSha1("GET\nmd5\nmultipart/form-data\n5\none\n/pic?id=7", "secret");
  request.query = "id=7&AccessKeyId=access&Expires=5&Signature=" + Escaped(signature);
  EXPECT_EQ(Ask(request).body, "bytes");
}

TEST_F(PictureServerAuth, AQuerySignatureOpensNothingButPictures) {
  const std::string signature = SignHmacSha1("GET\n\n\n5\n\n/Quorvane/Version?id=7", "secret");
  ExpectError(Ask(Request("GET", kVersionPath, "id=7&AccessKeyId=access&Expires=5&Signature=" + Escaped(signature))),
              -58002, 403);
}

TEST_F(PictureServerAuth, AnEmptySignatureNeverMatches) {
  ExpectError(AskWith("quorvane access:"), -58002, 403);
  ExpectError(AskQuery("id=7&AccessKeyId=access&Signature="), -58002, 403);
}

}  // namespace
}  // namespace Tansy::CloudStorage
