#include "TansyNet/S3Signing.h"

#include <gtest/gtest.h>

#include <string>

namespace TansyNet::S3Signing {
namespace {

// The keys, times and signatures of the examples that the algorithm was published with.
constexpr char kSecret[] = "wJalrXUtnFEMI/K7MDENG/bPxRfiCYEXAMPLEKEY";
constexpr char kTimestamp[] = "20130524T000000Z";
constexpr char kNoBytes[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::string SignatureOf(const SignedRequest& request) {
  const std::string scope = Scope("20130524", "us-east-1");
  return Sign(SigningKey(kSecret, "20130524", "us-east-1"), StringToSign(kTimestamp, scope, CanonicalRequest(request)));
}

SignedRequest Example(std::vector<NameValue> query) {
  return {"GET",
          "/",
          std::move(query),
          {{"host", "examplebucket.s3.amazonaws.com"}, {"x-amz-content-sha256", kNoBytes}, {"x-amz-date", kTimestamp}},
          kNoBytes};
}

TEST(S3SigningTest, GivesThePublishedSignatures) {
  SignedRequest get = Example({});
  get.path = "/test.txt";
  get.headers.insert(get.headers.begin() + 1, {"range", "bytes=0-9"});
  EXPECT_EQ(SignatureOf(get), "f0e8bdb87c964420e857bd35b5d6ed310bd44f0170aba48dd91039c6036bdb41");
  EXPECT_EQ(SignatureOf(Example({{"lifecycle", ""}})),
            "fea454ca298b7da1c68078a5d1bdbfbbe0d65c699e0f91ac7a200a0136783543");
  EXPECT_EQ(SignatureOf(Example({{"prefix", "J"}, {"max-keys", "2"}})),
            "34b48302e7b5fa45bde8084f4b7868a86f0a534bc59db6670ed5711ef69dc6f7");
}

TEST(S3SigningTest, WritesRequestsInTheirCanonicalForm) {
  const SignedRequest request{"PUT",
                              "/b/\xc3\xa4 b//../+",
                              {{"z", "1 2"}, {"a", "x/y"}, {"a", "b"}},
                              {{"host", " h "}, {"x-amz-meta-a", "\ta  b \t c "}},
                              "UNSIGNED-PAYLOAD"};
  EXPECT_EQ(CanonicalRequest(request),
            "PUT\n/b/%C3%A4%20b//../%2B\na=b&a=x%2Fy&z=1%202\nhost:h\nx-amz-meta-a:a b c\n\nhost;x-amz-meta-a\n"
            "UNSIGNED-PAYLOAD");
}

TEST(S3SigningTest, EncodesAndDecodesEveryByte) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  EXPECT_EQ(PercentDecode(PercentEncode(bytes)), bytes);
  EXPECT_EQ(PercentEncode("aZ09-._~/ \xff"), "aZ09-._~%2F%20%FF");
  EXPECT_EQ(PercentEncodePath("/a b/"), "/a%20b/");
  EXPECT_EQ(PercentDecode("%2f%4A"), "/J");
  for (const char* text : {"%", "%2", "%zz", "a%", "%+1", "%-1", "%0x"}) {
    EXPECT_EQ(PercentDecode(text), text) << "it encodes nothing";
  }
}

// RFC 4231, test case 2; and an empty key, which the library must not take for no key at all.
TEST(S3SigningTest, SignsAsTheStandardSays) {
  EXPECT_EQ(ToHex(HmacSha256("Jefe", "what do ya want for nothing?")),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(ToHex(HmacSha256("", "")), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

}  // namespace
}  // namespace TansyNet::S3Signing
