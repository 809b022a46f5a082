// Signatures: the Authorization header and the token of a query.
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <gmock/gmock.h>

#include <ctime>
#include <utility>

#include "ObjectServerFixture.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/Encrypt.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

using ::testing::HasSubstr;

constexpr const char* kNoToken = "[%s]query not found token![%s(%d)]";
constexpr const char* kTokenNotBehind = "[%s]http_query not found token![%s(%d)]";
constexpr const char* kNoHeader = "[%s]http header without Authorization![%s(%d)]";
constexpr const char* kInvalid1 = "[%s]http header Authorization invalid 1! Authorization=%s[%s(%d)]";
constexpr const char* kInvalid2 = "[%s]http header Authorization invalid 2! Authorization=%s gauth_prefix=%s[%s(%d)]";
constexpr const char* kWrongAk = "[%s]ak not equal, server=%s, recv=%s[%s(%d)]";
constexpr const char* kWrongSignature = "[%s]CheckHMACResult failed! Authorization=%s sign_str=%s server_sk=%s[%s(%d)]";

// This does not use the server's own helper.
std::string Hmac(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha1(), "secret-key", 10, reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &size);
  std::string base64(64, '\0');
  base64.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()), digest, static_cast<int>(size))));
  return base64;
}

class CObjectServerAuthTest : public CObjectServerTest {
 protected:
  static TansyNet::HttpServerRecv Request(const std::string& authorization, TansyNet::Headers headers = {}) {
    TansyNet::HttpServerRecv msg = Message({"GET", "/b/k", "", "", std::move(headers)});
    if (!authorization.empty()) {
      msg.headers["Authorization"] = authorization;
    }
    return msg;
  }
  static std::string Token(const std::string& text) { return TansyBase::Encrypt::Base64Encode(text); }
  // A token as it travels in a query.
  static std::string Escaped(const std::string& token) {
    std::string text;
    for (const char c : token) {
      text += c == '+' ? "%2B" : c == '/' ? "%2F" : c == '=' ? "%3D" : std::string(1, c);
    }
    return text;
  }
  static TansyNet::HttpServerRecv TokenRequest(const std::string& query) {
    return Message({"GET", "/b/k", query, "", {}});
  }
};

TEST_F(CObjectServerAuthTest, AFixedExample) {
  // printf 'GET\n\n\nTue,  3 Nov 2026 08:05:09 GMT\n\n/b/k' | openssl dgst -sha1 -hmac secret-key -binary | base64
  const auto msg =
      Request("quorvane access-key:GzTD13H/DqZnVTEv5Y7MlXoCjhQ=", {{"Date", "Tue,  3 Nov 2026 08:05:09 GMT"}});
  EXPECT_EQ(server_.CheckAuth(msg), 0);
}

TEST_F(CObjectServerAuthTest, EveryPartOfTheRequestIsSigned) {
  TansyNet::HttpServerRecv msg = Message({"PUT", "/b/k", "a=1&b=%20", "body", {}});
  msg.headers = {{"Content-MD5", "md5"}, {"Content-Type", "text/plain"}, {"Date", "now"}};
  msg.headers["Authorization"] = "quorvane access-key:" + Hmac("PUT\nmd5\ntext/plain\nnow\n\n/b/k?a=1&b=%20");
  EXPECT_EQ(server_.CheckAuth(msg), 0);

  const auto refused = [&](auto change) {
    TansyNet::HttpServerRecv changed = msg;
    change(changed);
    return server_.CheckAuth(changed) == -1;
  };
  EXPECT_TRUE(refused([](auto& m) { m.method = "POST"; }));
  EXPECT_TRUE(refused([](auto& m) { m.url = "/b/l"; }));
  EXPECT_TRUE(refused([](auto& m) { m.query = "a=1&b= "; }));
  EXPECT_TRUE(refused([](auto& m) { m.headers["Content-MD5"] = "other"; }));
  EXPECT_TRUE(refused([](auto& m) { m.headers.erase("Content-Type"); }));
  EXPECT_TRUE(refused([](auto& m) { m.headers["Date"] = "later"; }));
  EXPECT_TRUE(refused([](auto& m) { m.headers["x-qvs-a"] = "extension"; }));
}

TEST_F(CObjectServerAuthTest, TheOtherSpellingOfMd5CountsWhenItIsAlone) {
  EXPECT_EQ(
      server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\nsmall\n\n\n\n/b/k"), {{"Content-Md5", "small"}})),
      0);
  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\nbig\n\n\n\n/b/k"),
                                      {{"Content-MD5", "big"}, {"Content-Md5", "small"}})),
            0);
  // An empty value counts as present.
  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k"),
                                      {{"Content-MD5", ""}, {"Content-Md5", "small"}})),
            0);
}

TEST_F(CObjectServerAuthTest, ExtensionHeadersComeInTheOrderOfTheirNames) {
  const TansyNet::Headers headers = {{"x-qvs-b", "second"}, {"x-qvs-a", "first"}, {"my-x-qvs", "zeroth"}};
  EXPECT_EQ(
      server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\n\n\n\nzeroth\nfirst\nsecond\n/b/k"), headers)), 0);
}

TEST_F(CObjectServerAuthTest, NoHeader) {
  EXPECT_EQ(server_.CheckAuth(Request("")), -1);
  EXPECT_EQ(log_->Count(kNoToken, logging::kError), 1u);
  EXPECT_EQ(log_->Count(kNoHeader, logging::kError), 1u);
}

TEST_F(CObjectServerAuthTest, HeaderWithoutColon) {
  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key")), -1);
  EXPECT_EQ(log_->Count(kInvalid1, logging::kError), 1u);
}

TEST_F(CObjectServerAuthTest, HeadersOfAnotherShape) {
  const std::string signature = Hmac("GET\n\n\n\n\n/b/k");
  for (const std::string& value :
       {"quorvaneaccess-key:" + signature, "Basic access-key:" + signature, ":quorvane access-key" + signature,
        std::string("quorvane:"), "access-key:quorvane " + signature, std::string(":quorvane")}) {
    log_->Clear();
    EXPECT_EQ(server_.CheckAuth(Request(value)), -1) << value;
    EXPECT_EQ(log_->Count(kInvalid2, logging::kError), 1u) << value;
    EXPECT_THAT(log_->Text(kInvalid2), HasSubstr("Authorization=" + value + " gauth_prefix=quorvane["));
  }
}

TEST_F(CObjectServerAuthTest, TheSchemeWordMayStandAnywhere) {
  EXPECT_EQ(server_.CheckAuth(Request("  quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k"))), 0);
}

TEST_F(CObjectServerAuthTest, WrongKeysAndSignatures) {
  EXPECT_EQ(server_.CheckAuth(Request("quorvane other:" + Hmac("GET\n\n\n\n\n/b/k"))), -1);
  EXPECT_EQ(log_->Count(kWrongAk, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kWrongAk), HasSubstr("server=access-key, recv=other["));
  EXPECT_EQ(server_.CheckAuth(Request("quorvane  access-key:" + Hmac("GET\n\n\n\n\n/b/k"))), -1);
  EXPECT_THAT(log_->Text(kWrongAk), HasSubstr("server=access-key, recv= access-key["));

  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:AAAA")), -1);
  EXPECT_EQ(log_->Count(kWrongSignature, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kWrongSignature), HasSubstr("Authorization=quorvane access-key:AAAA sign_str=GET"));
  EXPECT_THAT(log_->Text(kWrongSignature), HasSubstr("server_sk=secret-key["));
  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:")), -1);
  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k") + ":")), -1);
}

TEST_F(CObjectServerAuthTest, ATokenBehindAnotherParameterIsEnough) {
  const std::string signature = Hmac("GET\n\n\n\n\n/b/k?a=1");
  const std::string token = Escaped(Token("quorvane anybody:" + signature));
  EXPECT_EQ(server_.CheckUrlAuth(TokenRequest("a=1&token=" + token)), 0);
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + token)), 0);
  // What follows the token is not signed, and neither is the access key in it.
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + token + "&b=2")), 0);
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=2&token=" + token)), -1);
}

TEST_F(CObjectServerAuthTest, ATokenThatComesFirstIsRefused) {
  const std::string token = Escaped(Token("quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k")));
  EXPECT_EQ(server_.CheckUrlAuth(TokenRequest("token=" + token)), -1);
  EXPECT_EQ(log_->Count(kTokenNotBehind, logging::kError), 1u);
}

TEST_F(CObjectServerAuthTest, ATokenWithoutTheSchemeWordIsRefused) {
  const std::string signature = Hmac("GET\n\n\n\n\n/b/k?a=1");
  const std::string token = Escaped(Token("access-key:" + signature));
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + token)), -1);
  EXPECT_EQ(log_->Count(kWrongSignature, logging::kError), 1u);
  const std::string value = Token("access-key:" + signature);
  EXPECT_THAT(
      log_->Text(kWrongSignature),
      HasSubstr("CObjectServer::CheckUrlAuth]CheckHMACResult failed! Authorization=" + value + " sign_str=GET"));
  EXPECT_THAT(log_->Text(kWrongSignature), HasSubstr("/b/k?a=1 server_sk=secret-key["));
  EXPECT_EQ(log_->Count(kNoHeader, logging::kError), 1u);
  EXPECT_EQ(log_->Lines().back().format, kNoHeader) << "the header is looked at last";
}

TEST_F(CObjectServerAuthTest, AGoodTokenIsEnoughWhateverTheHeaderSays) {
  const std::string token = Escaped(Token("quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k?a=1")));
  TansyNet::HttpServerRecv msg = TokenRequest("a=1&token=" + token);
  msg.headers["Authorization"] = "nonsense";
  EXPECT_EQ(server_.CheckAuth(msg), 0);
  EXPECT_EQ(log_->Lines().size(), 0u);
}

TEST_F(CObjectServerAuthTest, ATokenIsNeverTheBareSignature) {
  const std::string signature = Hmac("GET\n\n\n\n\n/b/k?a=1");
  for (const std::string& token : {signature, "!" + signature, Token(signature), Token("quorvane " + signature)}) {
    log_->Clear();
    EXPECT_EQ(server_.CheckUrlAuth(TokenRequest("a=1&token=" + Escaped(token))), -1) << token;
    EXPECT_THAT(log_->Text(kWrongSignature), HasSubstr("Authorization=" + token + " sign_str=GET"));
  }
}

TEST_F(CObjectServerAuthTest, TheDateIsNotComparedWithTheClock) {
  for (const char* date : {"Thu,  1 Jan 1970 00:00:00 GMT", "Fri, 31 Dec 2199 23:59:59 GMT", "never"}) {
    const std::string text = std::string("GET\n\n\n") + date + "\n\n/b/k";
    EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:" + Hmac(text), {{"Date", date}})), 0) << date;
  }
}

// A server's record with other keys, as long as it lives.
class CObjectServerKeysTest : public CObjectServerAuthTest {
 protected:
  void UseKeys(const std::string& ak, const std::string& sk) {
    auto config = Config();
    config.ak = ak;
    config.sk = sk;
    EXPECT_EQ(server_.Init(config), 0);
  }
};

TEST_F(CObjectServerKeysTest, AnEmptyKeyIsNoKey) {
  const std::string text = "GET\n\n\n\n\n/b/k";
  const std::string under_none = CloudStorage::SignHmacSha1(text, "");
  const std::string token_under_none = CloudStorage::SignHmacSha1(text + "?a=1", "");
  for (const auto& [ak, sk] : {std::pair("", ""), std::pair("access-key", ""), std::pair("", "secret-key")}) {
    UseKeys(ak, sk);
    const std::string scheme = std::string("quorvane ") + ak + ":";
    EXPECT_EQ(server_.CheckAuth(Request(scheme + under_none)), -1) << ak << "/" << sk;
    EXPECT_EQ(server_.CheckAuth(Request(scheme + Hmac(text))), -1) << ak << "/" << sk;
    EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + Escaped(Token(scheme + token_under_none)))), -1);
    EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + Escaped(Token(scheme + Hmac(text + "?a=1"))))), -1);
  }
}

// A window for dates, and a clock that stands at the date of every signed request here.
class CObjectServerDateTest : public CObjectServerAuthTest {
 protected:
  CObjectServerDateTest() { EXPECT_EQ(CloudStorage::SetSignatureDateWindow(15), 0); }
  ~CObjectServerDateTest() override { CloudStorage::SetSignatureDateWindow(0); }

  int CheckDate(const std::string& date) {
    return server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\n\n\n" + date + "\n\n/b/k"), {{"Date", date}}));
  }

  CManualClock clock_;
};

TEST_F(CObjectServerDateTest, ADateInsideTheWindowPasses) {
  constexpr const char* kDate = "Tue,  3 Nov 2026 08:05:09 GMT";
  for (const std::time_t seconds : {0, 900, -900}) {
    clock_.Set(CManualClock::kDefaultTime + seconds);
    EXPECT_EQ(CheckDate(kDate), 0) << seconds;
  }
  clock_.Set(CManualClock::kDefaultTime);
  EXPECT_EQ(CheckDate("Tue, 03 Nov 2026 08:05:09 GMT"), 0);
}

TEST_F(CObjectServerDateTest, AnyOtherDateIsRefused) {
  for (const std::time_t seconds : {901, -901, 86400 * 365}) {
    clock_.Set(CManualClock::kDefaultTime + seconds);
    EXPECT_EQ(CheckDate("Tue,  3 Nov 2026 08:05:09 GMT"), -1) << seconds;
  }
  clock_.Set(CManualClock::kDefaultTime);
  for (const char* date : {"", "now", "2026-11-03 08:05:09"}) {
    EXPECT_EQ(CheckDate(date), -1) << date;
  }
  EXPECT_EQ(server_.CheckAuth(Request("quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k"))), -1) << "no date at all";
  EXPECT_EQ(log_->Count("[%s]http header Date refused! Date=%s window=%d minutes[%s(%d)]", logging::kError), 7u);
}

TEST_F(CObjectServerDateTest, ATokenNeedsNoDate) {
  const std::string token = Escaped(Token("quorvane anybody:" + Hmac("GET\n\n\n\n\n/b/k?a=1")));
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + token)), 0);
}

TEST_F(CObjectServerAuthTest, ALinkIsGoodUntilTheMomentThatItNames) {
  CManualClock clock;
  const std::string last = std::to_string(CManualClock::kDefaultTime);
  const std::string token = Escaped(Token("quorvane anybody:" + Hmac("GET\n\n\n\n\n/b/k?expires=" + last)));
  const auto request = TokenRequest("expires=" + last + "&token=" + token);
  EXPECT_EQ(server_.CheckAuth(request), 0);
  clock.Advance(1);
  EXPECT_EQ(server_.CheckAuth(request), -1);
  EXPECT_EQ(log_->Count("[%s]token expired[%s].[%s(%d)]", logging::kError), 1u);
  // Nothing behind the token counts, and certainly no other end.
  EXPECT_EQ(server_.CheckAuth(TokenRequest("expires=" + last + "&token=" + token + "&expires=99999999999")), -1);
}

// A header without a date signs the same text as a link, so a link can be taken out of its token and sent as one.
TEST_F(CObjectServerAuthTest, ALinkThatIsSentAsAHeaderEndsToo) {
  CManualClock clock;
  const std::string query = "expires=" + std::to_string(CManualClock::kDefaultTime);
  TansyNet::HttpServerRecv msg = TokenRequest(query);
  msg.headers["Authorization"] = "quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k?" + query);
  EXPECT_EQ(server_.CheckAuth(msg), 0);
  clock.Advance(1);
  EXPECT_EQ(server_.CheckAuth(msg), -1);
  msg.headers["x-qvs-none"] = "";
  EXPECT_EQ(server_.CheckAuth(msg), -1) << "an empty extension header changes nothing of the text";
  // A header with a date is no link, so an end in its query means nothing.
  msg.headers["Date"] = "now";
  msg.headers["Authorization"] = "quorvane access-key:" + Hmac("GET\n\n\nnow\n\n/b/k?" + query);
  msg.headers.erase("x-qvs-none");
  EXPECT_EQ(server_.CheckAuth(msg), 0);
}

TEST_F(CObjectServerAuthTest, AnEndThatIsNoNumberIsPast) {
  for (const std::string end : {"", "x", "-1", "99999999999x", " 99999999999", "99999999999999999999999"}) {
    const std::string query = "expires=" + end;
    const std::string token = Escaped(Token("quorvane anybody:" + Hmac("GET\n\n\n\n\n/b/k?" + query)));
    EXPECT_EQ(server_.CheckAuth(TokenRequest(query + "&token=" + token)), -1) << end;
  }
}

TEST_F(CObjectServerAuthTest, ASecondTokenBehindTheFirstSaysNothing) {
  const std::string token = Escaped(Token("quorvane anybody:" + Hmac("GET\n\n\n\n\n/b/k?a=1")));
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=" + token + "&token=nonsense")), 0);
  EXPECT_EQ(server_.CheckAuth(TokenRequest("a=1&token=nonsense&token=" + token)), -1);
}

TEST_F(CObjectServerAuthTest, AWrongTokenDoesNotHurtAGoodHeader) {
  TansyNet::HttpServerRecv msg = TokenRequest("a=1&token=nonsense");
  msg.headers["Authorization"] = "quorvane access-key:" + Hmac("GET\n\n\n\n\n/b/k?a=1&token=nonsense");
  EXPECT_EQ(server_.CheckAuth(msg), 0);
}

}  // namespace
}  // namespace Tansy::Tests
