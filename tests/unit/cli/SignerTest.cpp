#include "Signer.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <ctime>
#include <string>

#include "TansyBase/Encrypt.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Cli {
namespace {

// Base64 of the HMAC-SHA1, without the code under test.
std::string Reference(const std::string& text, const std::string& key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest, &size);
  unsigned char base64[64];
  const int length = EVP_EncodeBlock(base64, digest, static_cast<int>(size));
  return {base64, base64 + length};
}

class FixedClock {
 public:
  FixedClock() {
    TansyBase::TimeUtil::SetClock([] { return std::time_t{1793693109}; });  // 2026-11-03 08:05:09, a Tuesday
  }
  ~FixedClock() { TansyBase::TimeUtil::SetClock(nullptr); }
};

TEST(SignerTest, WritesTheDateOfTheProtocol) {
  const FixedClock clock;
  EXPECT_EQ(HttpDate(), "Tue,  3 Nov 2026 08:05:09 GMT");
}

TEST(SignerTest, SignsARequest) {
  EXPECT_EQ(AuthorizationValue("GET", "text/xml", "the date", "/b/k?metadata", "ak", "sk"),
            "quorvane ak:" + Reference("GET\n\ntext/xml\nthe date\n\n/b/k?metadata", "sk"));
}

TEST(SignerTest, WrapsASignatureIntoALink) {
  const std::string target = SignedObjectTarget("/b/k", 0, "ak", "sk");
  const std::string head = "/b/k?link=1&token=";
  ASSERT_EQ(target.substr(0, head.size()), head);
  const std::string text = "quorvane ak:" + Reference("GET\n\n\n\n\n/b/k?link=1", "sk");
  std::string token(4 * ((text.size() + 2) / 3) + 1, '\0');
  token.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(token.data()),
                                                        reinterpret_cast<const unsigned char*>(text.data()),
                                                        static_cast<int>(text.size()))));
  EXPECT_EQ(target.substr(head.size()), PercentEncode(token));
}

// The end of a link is part of what is signed: nobody can move it.
TEST(SignerTest, SignsTheEndOfALink) {
  const std::string target = SignedObjectTarget("/b/k", 1793693109, "ak", "sk");
  const std::string head = "/b/k?expires=1793693109&token=";
  ASSERT_EQ(target.substr(0, head.size()), head);
  std::string token;
  std::string encoded = target.substr(head.size());
  for (std::size_t at = 0; (at = encoded.find("%3D")) != std::string::npos;) {
    encoded.replace(at, 3, "=");
  }
  ASSERT_TRUE(TansyBase::Encrypt::Base64Decode(encoded, token)) << encoded;
  EXPECT_EQ(token, "quorvane ak:" + Reference("GET\n\n\n\n\n/b/k?expires=1793693109", "sk"));
}

TEST(SignerTest, PutsASignatureBehindAPicturesAddress) {
  EXPECT_EQ(SignedPictureTarget("/pic?id=1", "42", "a+k", "sk"),
            "/pic?id=1&AccessKeyId=a%2Bk&Algorithm=0&Expires=42&Signature=" +
                PercentEncode(Reference("GET\n\n\n42\n\n/pic?id=1", "sk")));
}

TEST(SignerTest, EncodesWhatQueriesWouldMisread) {
  EXPECT_EQ(PercentEncode("aZ09-._"), "aZ09-._");
  EXPECT_EQ(PercentEncode("+/= &\xff"), "%2B%2F%3D%20%26%FF");
}

}  // namespace
}  // namespace Tansy::Cli
