#include "StorageServer/S3Server/S3Body.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage::S3 {
namespace {

// The published example of a body in signed chunks: 66,560 letters "a" in chunks of 65,536 and 1,024.
Signed ExampleRequest(EBodyForm form, const std::string& signature) {
  Signed request;
  request.body_form = form;
  request.timestamp = "20130524T000000Z";
  request.scope = "20130524/us-east-1/s3/aws4_request";
  request.signing_key = SigningKey("wJalrXUtnFEMI/K7MDENG/bPxRfiCYEXAMPLEKEY", "20130524", "us-east-1");
  request.signature = signature;
  return request;
}

Signed ChunksExample() {
  return ExampleRequest(EBodyForm::kSignedChunks, "4f232c4386841ef735655705268965c44a0e4690baa4adea153f7db9fa80a0a9");
}

std::string ChunksExampleBody() {
  return "10000;chunk-signature=ad80c730a21e5b8d04586a2213dd63b9a0e99e0e2307b0ade35a65485a288648\r\n" +
         std::string(65536, 'a') +
         "\r\n400;chunk-signature=0055627c9e194cb4542bae2aa5492e3c1575bbb81b612b7d234b86a503ef5497\r\n" +
         std::string(1024, 'a') +
         "\r\n0;chunk-signature=b6c6ea8a5354eaf15b3cb7646744f4275b71ea724fed81ceb9323e279d449df9\r\n\r\n";
}

const LowerHeaders kExampleLength = {{"content-length", "66824"}, {"x-amz-decoded-content-length", "66560"}};

struct Outcome {
  Failure failure;
  std::string bytes;
  std::string md5;
};

Outcome Receive(const Signed& request, const LowerHeaders& headers, std::string_view body,
                std::size_t piece = std::string_view::npos) {
  Outcome outcome;
  CBody receiver;
  outcome.failure = receiver.Begin(request, headers);
  while (!outcome.failure && !body.empty()) {
    const std::string_view now = body.substr(0, piece);
    body.remove_prefix(now.size());
    outcome.failure = receiver.Add(now, [&outcome](std::string_view bytes) { outcome.bytes += bytes; });
  }
  if (!outcome.failure) {
    outcome.failure = receiver.End();
  }
  EXPECT_EQ(receiver.Size(), outcome.bytes.size());
  outcome.md5 = receiver.Md5();
  return outcome;
}

EError ErrorOf(const Signed& request, const LowerHeaders& headers, std::string_view body) {
  return Receive(request, headers, body).failure.error;
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos);
  return text.replace(at, from.size(), to);
}

Signed Form(EBodyForm form) {
  return ExampleRequest(form, std::string(64, '0'));
}

LowerHeaders Decoded(std::size_t length, LowerHeaders more = {}) {
  more["x-amz-decoded-content-length"] = std::to_string(length);
  return more;
}

std::string Checksum(EDigest kind, std::string_view text) {
  return TansyBase::Encrypt::Base64Encode(DigestOf(kind, text));
}

// A body of signed chunks as a client makes it, with a trailer when `trailer` has any.
std::string SignedBody(const Signed& request, const std::vector<std::string>& chunks, const std::string& trailer = {}) {
  std::string before = request.signature;
  std::string body;
  const auto add = [&](const std::string& chunk) {
    before = Sign(request.signing_key, ChunkToSign(request, before, ToHex(DigestOf(EDigest::kSha256, chunk))));
    char length[20];
    std::snprintf(length, sizeof length, "%zx", chunk.size());
    body += std::string(length) + ";chunk-signature=" + before + "\r\n" + chunk + (chunk.empty() ? "" : "\r\n");
  };
  for (const std::string& chunk : chunks) {
    add(chunk);
  }
  add("");
  if (!trailer.empty()) {
    body += trailer + "\r\n";
    body +=
        "x-amz-trailer-signature:" +
        Sign(request.signing_key, TrailerToSign(request, before, ToHex(DigestOf(EDigest::kSha256, trailer + "\n")))) +
        "\r\n";
  }
  return body + "\r\n";
}

TEST(S3Body, TakesThePublishedExampleOfSignedChunksInPiecesOfAnySize) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{65536}, std::string_view::npos}) {
    const Outcome outcome = Receive(ChunksExample(), kExampleLength, ChunksExampleBody(), piece);
    EXPECT_FALSE(outcome.failure) << MessageOf(outcome.failure);
    EXPECT_EQ(outcome.bytes, std::string(66560, 'a'));
    EXPECT_EQ(outcome.md5, ToHex(DigestOf(EDigest::kMd5, std::string(66560, 'a'))));
  }
}

TEST(S3Body, TakesThePublishedExampleOfASignedTrailer) {
  const Signed request = ExampleRequest(EBodyForm::kSignedChunksTrailer,
                                        "106e2a8a18243abcf37539882f36619c00e2dfc72633413f02d3b74544bfeb8e");
  const std::string body =
      "10000;chunk-signature=b474d8862b1487a5145d686f57f013e54db672cee1c953b3010fb58501ef5aa2\r\n" +
      std::string(65536, 'a') +
      "\r\n400;chunk-signature=1c1344b170168f8e65b41376b44b20fe354e373826ccbbe2c1d40a8cae51e5c7\r\n" +
      std::string(1024, 'a') +
      "\r\n0;chunk-signature=2ca2aba2005185cf7159c6277faf83795951dd77a3a99e6e65d5c9f85863f992\r\n"
      "x-amz-checksum-crc32c:sOO8/Q==\n\r\n"
      "x-amz-trailer-signature:d81f82fc3505edab99d459891051a732e8730629a2e4a59689829ca17fe2e435\r\n\r\n";
  LowerHeaders headers = kExampleLength;
  headers["x-amz-trailer"] = "x-amz-checksum-crc32c";
  const Outcome outcome = Receive(request, headers, body);
  EXPECT_FALSE(outcome.failure) << MessageOf(outcome.failure);
  EXPECT_EQ(outcome.bytes.size(), 66560U);
}

TEST(S3Body, RefusesAChunkThatIsNotTheOneThatWasSigned) {
  const std::string body = ChunksExampleBody();
  EXPECT_EQ(ErrorOf(ChunksExample(), kExampleLength, Replaced(body, "aaa", "aba")), EError::kSignatureDoesNotMatch);
  EXPECT_EQ(ErrorOf(ChunksExample(), kExampleLength, Replaced(body, "=0055", "=0056")), EError::kSignatureDoesNotMatch);
  EXPECT_EQ(ErrorOf(ChunksExample(), kExampleLength, Replaced(body, "=b6c6", "=b6c7")), EError::kSignatureDoesNotMatch);
}

TEST(S3Body, RefusesChunksThatChangedPlaces) {
  const Signed request = Form(EBodyForm::kSignedChunks);
  const std::string good = SignedBody(request, {"first", "other"});
  EXPECT_EQ(ErrorOf(request, Decoded(10), good), EError::kNone);
  const std::size_t second = good.find("5;", 1);
  const std::size_t last = good.find("0;chunk", second + 80);
  const std::string swapped = good.substr(second, last - second) + good.substr(0, second) + good.substr(last);
  EXPECT_EQ(ErrorOf(request, Decoded(10), swapped), EError::kSignatureDoesNotMatch);
}

TEST(S3Body, RefusesABodyThatEndsEarly) {
  const Signed request = Form(EBodyForm::kSignedChunksTrailer);
  const LowerHeaders headers = Decoded(9, {{"x-amz-trailer", "x-amz-checksum-crc32"}});
  const std::string trailer = "x-amz-checksum-crc32:" + Checksum(EDigest::kCrc32, "123456789");
  const std::string body = SignedBody(request, {"12345", "6789"}, trailer);
  EXPECT_EQ(ErrorOf(request, headers, body), EError::kNone);
  for (std::size_t length = 0; length < body.size(); ++length) {
    EXPECT_EQ(ErrorOf(request, headers, body.substr(0, length)), EError::kIncompleteBody) << length;
  }
}

TEST(S3Body, RefusesATrailerThatLies) {
  const Signed request = Form(EBodyForm::kSignedChunksTrailer);
  const LowerHeaders headers = Decoded(3, {{"x-amz-trailer", "x-amz-checksum-crc32"}});
  const std::string good = SignedBody(request, {"abc"}, "x-amz-checksum-crc32:" + Checksum(EDigest::kCrc32, "abc"));
  EXPECT_EQ(ErrorOf(request, headers, good), EError::kNone);
  EXPECT_EQ(ErrorOf(request, headers, Replaced(good, "crc32:", "crc32:A")), EError::kSignatureDoesNotMatch);
  const std::string lie = SignedBody(request, {"abc"}, "x-amz-checksum-crc32:" + Checksum(EDigest::kCrc32, "abd"));
  EXPECT_EQ(ErrorOf(request, headers, lie), EError::kBadDigest);
  const std::string other = SignedBody(request, {"abc"}, "x-amz-meta-a:1");
  EXPECT_EQ(ErrorOf(request, headers, other), EError::kIncompleteBody);
}

TEST(S3Body, RefusesAChecksumThatTheTrailerWasNotExpectedToBring) {
  const std::string good = "x-amz-checksum-crc32:" + Checksum(EDigest::kCrc32, "abc") + "\r\n";
  const std::string lie = "x-amz-checksum-crc32:" + Checksum(EDigest::kCrc32, "abd") + "\r\n";
  const std::string sha1 = "x-amz-checksum-sha1:" + Checksum(EDigest::kSha1, "abc") + "\r\n";
  const auto error = [](const LowerHeaders& headers, const std::string& trailer) {
    return ErrorOf(Form(EBodyForm::kChunks), Decoded(3, headers), "3\r\nabc\r\n0\r\n" + trailer + "\r\n");
  };
  EXPECT_EQ(error({}, lie), EError::kInvalidRequest) << "nothing is announced";
  EXPECT_EQ(error({}, good), EError::kInvalidRequest);
  EXPECT_EQ(error({{"x-amz-trailer", "x-amz-meta-a"}}, lie), EError::kInvalidRequest) << "something else is";
  EXPECT_EQ(error({{"x-amz-trailer", "x-amz-checksum-sha1"}}, sha1 + lie), EError::kInvalidRequest) << "one of two is";
  EXPECT_EQ(error({{"x-amz-checksum-crc32", Checksum(EDigest::kCrc32, "abc")}}, lie), EError::kInvalidRequest);
  EXPECT_EQ(error({{"x-amz-trailer", "x-amz-checksum-sha1"}}, sha1 + "x-other:1\r\n"), EError::kNone);
}

TEST(S3Body, ChecksEveryKindOfChecksumInATrailer) {
  const std::pair<const char*, EDigest> kinds[] = {{"x-amz-checksum-crc32", EDigest::kCrc32},
                                                   {"x-amz-checksum-crc32c", EDigest::kCrc32c},
                                                   {"x-amz-checksum-crc64nvme", EDigest::kCrc64Nvme},
                                                   {"x-amz-checksum-sha1", EDigest::kSha1},
                                                   {"x-amz-checksum-sha256", EDigest::kSha256}};
  for (const auto& [name, kind] : kinds) {
    const LowerHeaders headers = Decoded(3, {{"x-amz-trailer", name}});
    const auto body = [&](std::string_view of) {
      return "3\r\nabc\r\n0\r\n" + std::string(name) + ":" + Checksum(kind, of) + "\r\n\r\n";
    };
    EXPECT_EQ(ErrorOf(Form(EBodyForm::kChunks), headers, body("abc")), EError::kNone) << name;
    EXPECT_EQ(ErrorOf(Form(EBodyForm::kChunks), headers, body("abd")), EError::kBadDigest) << name;
    EXPECT_EQ(ErrorOf(Form(EBodyForm::kPlain), {{name, Checksum(kind, "abc")}}, "abc"), EError::kNone) << name;
    EXPECT_EQ(ErrorOf(Form(EBodyForm::kPlain), {{name, Checksum(kind, "abd")}}, "abc"), EError::kBadDigest) << name;
    EXPECT_EQ(ErrorOf(Form(EBodyForm::kPlain), {{name, "AA=="}}, "abc"), EError::kInvalidRequest) << name;
  }
}

TEST(S3Body, RefusesBrokenChunks) {
  const Signed request = Form(EBodyForm::kChunks);
  for (const char* const body :
       {"\r\n", "zz\r\n", "3 4\r\nabc\r\n0\r\n\r\n", "3\r\nabcd\r\n0\r\n\r\n", "-3\r\nabc\r\n0\r\n\r\n",
        "3\r\nabc\r\n0\r\n\r\nmore", "3\r\nabc\r\n0\r\nno colon\r\n\r\n", "11111111111111111\r\n"}) {
    EXPECT_EQ(ErrorOf(request, Decoded(3), body), EError::kInvalidRequest) << body;
  }
  EXPECT_EQ(ErrorOf(request, Decoded(3), "4\r\nabcd\r\n0\r\n\r\n"), EError::kIncompleteBody);
  EXPECT_EQ(ErrorOf(request, Decoded(3), "2\r\nab\r\n0\r\n\r\n"), EError::kIncompleteBody);
  EXPECT_EQ(ErrorOf(request, Decoded(3), "3;" + std::string(2000, 'x') + "\r\n"), EError::kInvalidRequest);
  std::string long_trailer = "0\r\n";
  for (int line = 0; line < 100; ++line) {
    long_trailer += "x-" + std::to_string(line) + ":" + std::string(100, 'v') + "\r\n";
  }
  EXPECT_EQ(ErrorOf(request, Decoded(0), long_trailer + "\r\n"), EError::kInvalidRequest);
  EXPECT_EQ(ErrorOf(Form(EBodyForm::kSignedChunks), Decoded(3), "3\r\nabc\r\n0\r\n\r\n"), EError::kInvalidRequest);
}

TEST(S3Body, NeedsTheLengthOfChunks) {
  EXPECT_EQ(ErrorOf(Form(EBodyForm::kChunks), {}, ""), EError::kMissingContentLength);
  EXPECT_EQ(ErrorOf(Form(EBodyForm::kChunks), {{"x-amz-decoded-content-length", "-1"}}, ""),
            EError::kMissingContentLength);
  EXPECT_EQ(ErrorOf(Form(EBodyForm::kChunks), {{"x-amz-decoded-content-length", "4294967296"}}, ""),
            EError::kEntityTooLarge);
}

TEST(S3Body, ComparesTheSignedDigest) {
  Signed request = Form(EBodyForm::kPlainWithDigest);
  request.digest = ToHex(DigestOf(EDigest::kSha256, "abc"));
  EXPECT_EQ(ErrorOf(request, {{"content-length", "3"}}, "abc"), EError::kNone);
  EXPECT_EQ(ErrorOf(request, {{"content-length", "3"}}, "abd"), EError::kContentSha256Mismatch);
}

TEST(S3Body, ComparesContentMd5) {
  const Signed request = Form(EBodyForm::kPlain);
  const std::string md5 = Checksum(EDigest::kMd5, "abc");
  EXPECT_EQ(ErrorOf(request, {{"content-md5", md5}}, "abc"), EError::kNone);
  EXPECT_EQ(ErrorOf(request, {{"content-md5", md5}}, "abd"), EError::kBadDigest);
  EXPECT_EQ(ErrorOf(request, {{"content-md5", "YWJj"}}, "abc"), EError::kInvalidDigest);
  EXPECT_EQ(ErrorOf(request, {{"content-md5", "no base64"}}, "abc"), EError::kInvalidDigest);
}

TEST(S3Body, ComparesTheLength) {
  EXPECT_EQ(ErrorOf(Form(EBodyForm::kPlain), {{"content-length", "4"}}, "abc"), EError::kIncompleteBody);
  EXPECT_EQ(ErrorOf(Form(EBodyForm::kPlain), {}, "abc"), EError::kNone);
}

TEST(S3Body, RefusesAChecksumWithoutAValue) {
  for (const char* name :
       {"x-amz-checksum-crc32", "x-amz-checksum-crc32c", "x-amz-checksum-sha1", "x-amz-checksum-sha256"}) {
    for (const EBodyForm form : {EBodyForm::kPlain, EBodyForm::kChunks}) {
      EXPECT_EQ(ErrorOf(ExampleRequest(form, ""), {{"x-amz-decoded-content-length", "0"}, {name, ""}}, ""),
                EError::kInvalidRequest)
          << name;
    }
  }
}

TEST(S3Body, RefusesTwoChecksumsAndTrailersOfPlainBodies) {
  const Signed request = Form(EBodyForm::kPlain);
  EXPECT_EQ(ErrorOf(request,
                    {{"x-amz-checksum-crc32", Checksum(EDigest::kCrc32, "abc")},
                     {"x-amz-checksum-sha1", Checksum(EDigest::kSha1, "abc")}},
                    "abc"),
            EError::kInvalidRequest);
  EXPECT_EQ(ErrorOf(request, {{"x-amz-trailer", "x-amz-checksum-crc32"}}, "abc"), EError::kInvalidRequest);
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
