// Uploads in parts, over the catalogue in memory, a storage in memory and the fake HTTP library.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "S3ServerFixture.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "StorageServer/S3Server/S3Parts.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage::S3 {
namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t kLeast = kLeastPartBytes;

class S3MultipartTest : public S3ServerTest {
 protected:
  std::string Begin(const std::string& key, const TansyNet::Headers& headers = {}) {
    const FakeAnswer answer = Do({.method = "POST", .path = PathOf(key), .query = "uploads", .headers = headers});
    EXPECT_EQ(Outcome(answer), "200") << answer.body;
    const Texts ids = Values(answer.body, "UploadId");
    return ids.empty() ? "" : ids[0];
  }
  static std::string PartQuery(const std::string& id, int number) {
    return "partNumber=" + std::to_string(number) + "&uploadId=" + id;
  }
  FakeAnswer PutPart(const std::string& key, const std::string& id, int number, const std::string& body,
                     const TansyNet::Headers& headers = {}) {
    return Do({.method = "PUT", .path = PathOf(key), .query = PartQuery(id, number), .body = body, .headers = headers});
  }
  struct Listed {
    int number;
    std::string etag;
    std::string more = {};
  };
  static std::string CompleteXml(const std::vector<Listed>& parts) {
    std::string xml = "<CompleteMultipartUpload xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    for (const Listed& part : parts) {
      xml += "<Part><PartNumber>" + std::to_string(part.number) + "</PartNumber><ETag>" + part.etag + "</ETag>" +
             part.more + "</Part>";
    }
    return xml + "</CompleteMultipartUpload>";
  }
  FakeAnswer Complete(const std::string& key, const std::string& id, const std::vector<Listed>& parts,
                      const TansyNet::Headers& headers = {}) {
    return Do({.method = "POST",
               .path = PathOf(key),
               .query = "uploadId=" + id,
               .body = CompleteXml(parts),
               .headers = headers});
  }
  FakeAnswer Abort(const std::string& key, const std::string& id) {
    return Do({.method = "DELETE", .path = PathOf(key), .query = "uploadId=" + id});
  }
  FakeAnswer PartsOf(const std::string& key, const std::string& id, const std::string& more = {}) {
    return Do({.method = "GET", .path = PathOf(key), .query = "uploadId=" + id + more});
  }
  // Uploads these bodies as parts 1, 2, ... and completes them.
  std::string UploadAll(const std::string& key, const Texts& bodies) {
    const std::string id = Begin(key);
    std::vector<Listed> parts;
    for (const std::string& body : bodies) {
      const int number = static_cast<int>(parts.size()) + 1;
      EXPECT_EQ(PutPart(key, id, number, body).response.status, 200);
      parts.push_back({number, Md5(body)});
    }
    EXPECT_EQ(Outcome(Complete(key, id, parts)), "200");
    return id;
  }
  static std::string ETagOf(const Texts& bodies) {
    std::string joined;
    for (const std::string& body : bodies) {
      joined += DigestOf(EDigest::kMd5, body);
    }
    return '"' + ToHex(DigestOf(EDigest::kMd5, joined)) + "-" + std::to_string(bodies.size()) + '"';
  }
  std::size_t CountParts(const std::string& id) {
    return Database()
        .Column("SELECT * FROM platform.local_upload_part WHERE object_url = 'parts:" + id + "'", "url")
        .size();
  }
};

TEST_F(S3MultipartTest, MakesAnObjectOfPartsOfAnySizesInAnyOrder) {
  const std::string key = "big/\xC3\xA9 file";
  const Texts bodies = {Pattern(kLeast, 1), Pattern(kLeast + 12345, 2), Pattern(7, 3)};
  const std::string id = Begin(key, {{"Content-Type", "video/x"}, {"x-amz-meta-a", "1"}});
  for (const int number : {9, 4, 2}) {
    const std::string& body = bodies[number == 2 ? 0 : number == 4 ? 1 : 2];
    EXPECT_EQ(PutPart(key, id, number, body).response.headers.at("ETag"), Md5(body));
  }
  EXPECT_EQ(Outcome(GetKey(key)), "404 NoSuchKey") << "not before it is completed";
  const FakeAnswer done = Complete(key, id, {{2, Md5(bodies[0])}, {4, Md5(bodies[1])}, {9, Md5(bodies[2])}});
  EXPECT_EQ(Outcome(done), "200");
  EXPECT_EQ(Values(done.body, "ETag").at(0), "&quot;" + ETagOf(bodies).substr(1, 34) + "&quot;");
  EXPECT_EQ(Values(done.body, "Bucket"), Texts{bucket_});
  const FakeAnswer got = GetKey(key);
  EXPECT_TRUE(got.body == bodies[0] + bodies[1] + bodies[2]);
  EXPECT_EQ(got.response.headers.at("ETag"), ETagOf(bodies));
  EXPECT_EQ(got.response.headers.at("Content-Type"), "video/x");
  EXPECT_EQ(got.response.headers.at("x-amz-meta-a"), "1");
}

TEST_F(S3MultipartTest, StoresEachPartOnce) {
  UploadAll("k", {Pattern(kLeast, 1), Pattern(kLeast, 2), Pattern(9, 3)});
  EXPECT_EQ(storage_.Calls("save").size(), 3U);
  EXPECT_EQ(storage_.Calls("stream").size(), 0U);
  EXPECT_EQ(storage_.Calls("range").size(), 0U);
}

TEST_F(S3MultipartTest, GivesEveryRangeOfItsObjects) {
  const Texts bodies = {Pattern(kLeast, 1), Pattern(kLeast + 1, 2), Pattern(3, 3)};
  const std::string all = bodies[0] + bodies[1] + bodies[2];
  UploadAll("k", bodies);
  for (const auto& [first, last] : std::vector<std::pair<std::size_t, std::size_t>>{{0, 0},
                                                                                    {0, kLeast - 1},
                                                                                    {kLeast - 1, kLeast},
                                                                                    {kLeast, kLeast},
                                                                                    {kLeast, 2 * kLeast},
                                                                                    {2 * kLeast, 2 * kLeast + 1},
                                                                                    {kLeast - 5, all.size() - 1},
                                                                                    {all.size() - 1, all.size() - 1},
                                                                                    {0, all.size() - 1}}) {
    const std::string range = "bytes=" + std::to_string(first) + "-" + std::to_string(last);
    const FakeAnswer got = GetKey("k", {{"Range", range}});
    EXPECT_EQ(got.response.status, 206) << range;
    EXPECT_TRUE(got.body == all.substr(first, last - first + 1)) << range;
  }
  EXPECT_TRUE(Get("/" + bucket_ + "/k").body == all) << "by the object protocol";
  EXPECT_TRUE(Get("/" + bucket_ + "/k", {}, {{"Range", "bytes=5242878-5242886"}}).body == all.substr(kLeast - 2, 8));
}

TEST_F(S3MultipartTest, SurvivesARestart) {
  const Texts bodies = {Pattern(kLeast, 1), Pattern(3, 2)};
  const std::string id = Begin("later");
  ASSERT_EQ(PutPart("later", id, 1, bodies[0]).response.status, 200);
  UploadAll("k", bodies);
  // What the database has is all that a start knows.
  ObjectInfo loaded;
  ASSERT_TRUE(CObjectServerSession::QueryObject(
      [&](const ObjectInfo& object) {
        if (object.name == "k") {
          loaded = object;
        }
      },
      bucket_));
  ObjectInfo kept;
  std::string attributes;
  ASSERT_TRUE(catalogue_.FindObject(kept, attributes, "k", bucket_));
  EXPECT_EQ(loaded.url, kept.url);
  EXPECT_EQ(loaded.size, kLeast + 3);
  ASSERT_EQ(PutPart("later", id, 2, bodies[1]).response.status, 200);
  EXPECT_EQ(Outcome(Complete("later", id, {{1, Md5(bodies[0])}, {2, Md5(bodies[1])}})), "200");
}

TEST_F(S3MultipartTest, AnswersARepeatedCompletionLikeTheFirst) {
  const std::string body = Pattern(9);
  const std::string id = Begin("k");
  PutPart("k", id, 1, body);
  const FakeAnswer first = Complete("k", id, {{1, Md5(body)}});
  ASSERT_EQ(Outcome(first), "200");
  EXPECT_EQ(Complete("k", id, {{1, Md5(body)}}).body, first.body);
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("other")}})), "404 NoSuchUpload");
  PutKey("k", "another object");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(body)}})), "404 NoSuchUpload");
  EXPECT_EQ(GetKey("k").body, "another object");
}

TEST_F(S3MultipartTest, RefusesPartsThatAreMissingOrOthersOrInTheWrongOrder) {
  const std::string id = Begin("k");
  const std::string first = Pattern(kLeast, 1);
  PutPart("k", id, 1, first);
  PutPart("k", id, 2, "tail");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(first)}, {2, Md5("tail")}, {3, Md5("x")}})), "400 InvalidPart");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(first)}, {2, Md5("other")}})), "400 InvalidPart");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, "no digest"}})), "400 InvalidPart");
  EXPECT_EQ(Outcome(Complete("k", id, {{2, Md5("tail")}, {1, Md5(first)}})), "400 InvalidPartOrder");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(first)}, {1, Md5(first)}})), "400 InvalidPartOrder");
  EXPECT_EQ(Outcome(Complete("k", id, {{10001, Md5(first)}})), "400 MalformedXML");
  EXPECT_EQ(Outcome(Complete("k", id, {})), "400 MalformedXML");
  const std::string checksum = "<ChecksumCRC32>AAAAAA==</ChecksumCRC32>";
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(first), checksum}})), "400 InvalidPart");
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(first)}, {2, Md5("tail")}})), "200") << "the upload is as it was";
}

TEST_F(S3MultipartTest, RefusesSmallPartsBeforeTheLast) {
  const std::string id = Begin("k");
  const std::string small = Pattern(kLeast - 1);
  PutPart("k", id, 1, small);
  PutPart("k", id, 2, "tail");
  const FakeAnswer refused = Complete("k", id, {{1, Md5(small)}, {2, Md5("tail")}});
  EXPECT_EQ(Outcome(refused), "400 EntityTooSmall");
  EXPECT_EQ(Values(refused.body, "ProposedSize"), Texts{std::to_string(kLeast - 1)});
  EXPECT_EQ(Values(refused.body, "PartNumber"), Texts{"1"});
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(small)}})), "200") << "the last one may be small";
}

TEST_F(S3MultipartTest, LeavesOutPartsThatAreNotListed) {
  const std::string id = Begin("k");
  for (int number = 1; number <= 3; ++number) {
    PutPart("k", id, number, "part " + std::to_string(number));
  }
  EXPECT_EQ(Outcome(Complete("k", id, {{2, Md5("part 2")}})), "200");
  EXPECT_EQ(GetKey("k").body, "part 2");
  EXPECT_EQ(CountParts(id), 1U);
}

TEST_F(S3MultipartTest, TakesTheLastOfPartsOfOneNumber) {
  const std::string id = Begin("k");
  PutPart("k", id, 1, "before");
  PutPart("k", id, 1, "after");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("before")}})), "400 InvalidPart");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("after")}})), "200");
  EXPECT_EQ(GetKey("k").body, "after");
}

TEST_F(S3MultipartTest, RefusesNumbersAndUploadsThatAreNone) {
  const std::string id = Begin("k");
  for (const char* number : {"0", "10001", "-1", "x", ""}) {
    const FakeAnswer answer = Do({.method = "PUT",
                                  .path = PathOf("k"),
                                  .query = std::string("partNumber=") + number + "&uploadId=" + id,
                                  .body = "x"});
    EXPECT_EQ(Outcome(answer), "400 InvalidArgument") << number;
  }
  EXPECT_EQ(PutPart("k", id, 10000, "x").response.status, 200);
  for (const std::string& other : {std::string("x"), std::string(32, 'a'), id + "'", std::string()}) {
    EXPECT_EQ(Outcome(PutPart("k", other, 1, "x")), "404 NoSuchUpload") << other;
    EXPECT_EQ(Outcome(Complete("k", other, {{1, Md5("x")}})), "404 NoSuchUpload") << other;
    EXPECT_EQ(Outcome(Abort("k", other)), "404 NoSuchUpload") << other;
    EXPECT_EQ(Outcome(PartsOf("k", other)), "404 NoSuchUpload") << other;
  }
  EXPECT_EQ(Outcome(PutPart("other", id, 1, "x")), "404 NoSuchUpload") << "it is an upload to another key";
}

TEST_F(S3MultipartTest, StoresNothingOfAPartWithoutAnUpload) {
  const std::string body = Pattern(11 * kMebibyte);
  const S3Call call = {.method = "PUT", .path = PathOf("k"), .query = PartQuery(std::string(32, 'a'), 1)};
  EXPECT_EQ(Outcome(Stream(SignedCall(call), body)), "404 NoSuchUpload");
  EXPECT_EQ(Outcome(PutPart("k", std::string(32, 'a'), 1, "x")), "404 NoSuchUpload");
  EXPECT_TRUE(storage_.Calls("stream").empty());
  EXPECT_TRUE(storage_.Calls("save").empty());
}

TEST_F(S3MultipartTest, TakesPartsThatArriveInPieces) {
  const Texts bodies = {Pattern(13 * kMebibyte + 1, 1), Pattern(12 * kMebibyte, 2)};
  const std::string id = Begin("k");
  std::vector<Listed> parts;
  for (const std::string& body : bodies) {
    const int number = static_cast<int>(parts.size()) + 1;
    const S3Call call = {.method = "PUT", .path = PathOf("k"), .query = PartQuery(id, number)};
    const FakeAnswer answer = Stream(SignedCall(call), body);
    ASSERT_EQ(Outcome(answer), "200");
    EXPECT_EQ(answer.response.headers.at("ETag"), Md5(body));
    parts.push_back({number, Md5(body)});
  }
  EXPECT_EQ(Outcome(Complete("k", id, parts)), "200");
  std::string got;
  http_.TakeChunks([&got](std::string_view chunk) { got += chunk; });
  GetKey("k");
  http_.TakeChunks(nullptr);
  EXPECT_TRUE(got == bodies[0] + bodies[1]);
}

TEST_F(S3MultipartTest, EndsAnUploadThatIsAborted) {
  const std::string id = Begin("k");
  PutPart("k", id, 1, "x");
  EXPECT_EQ(Outcome(Abort("k", id)), "204");
  EXPECT_EQ(Outcome(Abort("k", id)), "404 NoSuchUpload");
  EXPECT_EQ(Outcome(PutPart("k", id, 2, "x")), "404 NoSuchUpload");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("x")}})), "404 NoSuchUpload");
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
}

TEST_F(S3MultipartTest, KeepsTheObjectThatIsThereUntilTheNewOneIsComplete) {
  PutKey("k", "before");
  const std::string id = Begin("k");
  PutPart("k", id, 1, "after");
  EXPECT_EQ(GetKey("k").body, "before");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("after")}}, {{"If-None-Match", "*"}})), "412 PreconditionFailed");
  EXPECT_EQ(GetKey("k").body, "before");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("after")}})), "200");
  EXPECT_EQ(GetKey("k").body, "after");
  ASSERT_EQ(Put("/" + bucket_ + "/k", "by us").response.status, 200);
  EXPECT_EQ(GetKey("k").body, "by us");
}

TEST_F(S3MultipartTest, ComparesAndGivesBackTheChecksumsOfParts) {
  const Texts bodies = {Pattern(kLeast, 1), "tail"};
  const std::string id = Begin("k", {{"x-amz-checksum-algorithm", "CRC32"}});
  std::vector<Listed> parts;
  std::string joined;
  for (const std::string& body : bodies) {
    const int number = static_cast<int>(parts.size()) + 1;
    const std::string digest = DigestOf(EDigest::kCrc32, body);
    const std::string text = TansyBase::Encrypt::Base64Encode(digest);
    const FakeAnswer put = PutPart("k", id, number, body, {{"x-amz-checksum-crc32", text}});
    EXPECT_EQ(put.response.headers.at("x-amz-checksum-crc32"), text);
    parts.push_back({number, Md5(body), "<ChecksumCRC32>" + text + "</ChecksumCRC32>"});
    joined += digest;
  }
  EXPECT_EQ(Outcome(PutPart("k", id, 3, "x", {{"x-amz-checksum-crc32", "AAAAAA=="}})), "400 BadDigest");
  EXPECT_EQ(Values(PartsOf("k", id).body, "ChecksumCRC32").size(), 2U);
  const std::string whole = TansyBase::Encrypt::Base64Encode(DigestOf(EDigest::kCrc32, joined)) + "-2";
  EXPECT_EQ(Outcome(Complete("k", id, parts, {{"x-amz-checksum-crc32", "AAAAAA==-2"}})), "400 BadDigest");
  const FakeAnswer done = Complete("k", id, parts, {{"x-amz-checksum-crc32", whole}});
  EXPECT_EQ(Outcome(done), "200");
  EXPECT_EQ(Values(done.body, "ChecksumCRC32"), Texts{whole});
  const FakeAnswer head = Do({.method = "HEAD", .path = PathOf("k")});
  EXPECT_EQ(head.response.headers.count("x-amz-checksum-algorithm"), 0U);
}

TEST_F(S3MultipartTest, ComparesTheChecksumOfAllBytes) {
  const Texts bodies = {Pattern(kLeast, 1), Pattern(kLeast + 3, 2), "tail"};
  for (const ChecksumNames& names : kChecksumNames) {
    const bool can_be_joined = names.kind != EDigest::kSha1 && names.kind != EDigest::kSha256;
    const std::string header(names.header);
    const std::string type = can_be_joined ? "FULL_OBJECT" : "COMPOSITE";
    const std::string id =
        Begin("k", {{"x-amz-checksum-algorithm", std::string(names.algorithm)}, {"x-amz-checksum-type", type}});
    std::vector<Listed> parts;
    for (const std::string& body : bodies) {
      const int number = static_cast<int>(parts.size()) + 1;
      const std::string text = TansyBase::Encrypt::Base64Encode(DigestOf(names.kind, body));
      EXPECT_EQ(Outcome(PutPart("k", id, number, body, {{header, text}})), "200");
      parts.push_back({number, Md5(body)});
    }
    const std::string whole = TansyBase::Encrypt::Base64Encode(DigestOf(names.kind, bodies[0] + bodies[1] + bodies[2]));
    const std::string other = TansyBase::Encrypt::Base64Encode(DigestOf(names.kind, "other"));
    EXPECT_EQ(Outcome(Complete("k", id, parts, {{header, other}})),
              can_be_joined ? "400 BadDigest" : "400 InvalidRequest")
        << header;
    const FakeAnswer done =
        Complete("k", id, parts, can_be_joined ? TansyNet::Headers{{header, whole}} : TansyNet::Headers{});
    EXPECT_EQ(Outcome(done), "200") << header;
    EXPECT_EQ(Values(done.body, "ChecksumType"), Texts{type});
    EXPECT_EQ(Values(done.body, std::string(names.element)).at(0) == whole, can_be_joined) << header;
  }
}

TEST_F(S3MultipartTest, RefusesChecksumsThatItCannotCompare) {
  const auto begin = [&](const std::string& algorithm, const std::string& type) {
    TansyNet::Headers headers = {{"x-amz-checksum-algorithm", algorithm}};
    if (!type.empty()) {
      headers["x-amz-checksum-type"] = type;
    }
    return Outcome(Do({.method = "POST", .path = PathOf("k"), .query = "uploads", .headers = headers}));
  };
  EXPECT_EQ(begin("MD4", ""), "400 InvalidRequest");
  EXPECT_EQ(begin("CRC32", "ANY"), "400 InvalidRequest");
  EXPECT_EQ(begin("SHA256", "FULL_OBJECT"), "400 InvalidRequest");
  EXPECT_EQ(begin("CRC64NVME", "COMPOSITE"), "400 InvalidRequest");
  EXPECT_EQ(begin("", "COMPOSITE"), "400 InvalidRequest");
  const std::string id = Begin("k");
  PutPart("k", id, 1, "x");
  for (const char* const value : {"AAAAAA==", "AAAAAA==-1"}) {
    EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("x")}}, {{"x-amz-checksum-crc32", value}})), "400 InvalidRequest");
  }
}

TEST_F(S3MultipartTest, ListsTheParts) {
  const std::string id = Begin("a b");
  for (const int number : {3, 1, 20}) {
    PutPart("a b", id, number, std::string(static_cast<std::size_t>(number), 'x'));
  }
  const std::string all = PartsOf("a b", id).body;
  EXPECT_EQ(Values(all, "PartNumber"), (Texts{"1", "3", "20"}));
  EXPECT_EQ(Values(all, "Size"), (Texts{"1", "3", "20"}));
  EXPECT_EQ(Values(all, "IsTruncated"), Texts{"false"});
  EXPECT_EQ(Values(all, "LastModified").at(0), "2026-11-03T08:00:00.000Z");
  EXPECT_EQ(Values(all, "UploadId"), Texts{id});
  const std::string two = PartsOf("a b", id, "&max-parts=2&encoding-type=url").body;
  EXPECT_EQ(Values(two, "PartNumber"), (Texts{"1", "3"}));
  EXPECT_EQ(Values(two, "IsTruncated"), Texts{"true"});
  EXPECT_EQ(Values(two, "NextPartNumberMarker"), Texts{"3"});
  EXPECT_EQ(Values(two, "Key"), Texts{"a%20b"});
  EXPECT_EQ(Values(PartsOf("a b", id, "&part-number-marker=3").body, "PartNumber"), Texts{"20"});
  EXPECT_EQ(Values(PartsOf("a b", id, "&max-parts=0").body, "IsTruncated"), Texts{"false"});
  EXPECT_EQ(Values(PartsOf("a b", id, "&max-parts=1000000000").body, "MaxParts"), Texts{"1000"});
  EXPECT_EQ(Outcome(PartsOf("a b", id, "&max-parts=-1")), "400 InvalidArgument");
}

TEST_F(S3MultipartTest, ListsTheUploads) {
  const Texts keys = {"a", "a/x", "a/y", "b", "b/\xC3\xA9", "c"};
  for (const std::string& key : keys) {
    Begin(key);
  }
  const std::string second = Begin("b");
  EXPECT_EQ(Values(List("uploads").body, "Key"), (Texts{"a", "a/x", "a/y", "b", "b", "b/\xC3\xA9", "c"}));
  EXPECT_EQ(Values(List("uploads&prefix=a/").body, "Key"), (Texts{"a/x", "a/y"}));
  const std::string grouped = List("uploads&delimiter=/").body;
  EXPECT_EQ(Values(grouped, "Key"), (Texts{"a", "b", "b", "c"}));
  EXPECT_EQ(Values(grouped, "Prefix"), (Texts{"", "a/", "b/"}));
  EXPECT_EQ(Values(List("uploads&key-marker=b").body, "Key"), (Texts{"b/\xC3\xA9", "c"}));
  EXPECT_EQ(Values(List("uploads&encoding-type=url&prefix=b/").body, "Key"), (Texts{"b/%C3%A9"}));
  EXPECT_EQ(Outcome(List("uploads&max-uploads=x")), "400 InvalidArgument");
  EXPECT_EQ(Outcome(List("uploads&encoding-type=x")), "400 InvalidArgument");
  EXPECT_EQ(Values(List("uploads&max-uploads=0").body, "IsTruncated"), Texts{"false"});
}

// Every way of cutting a listing gives the same entries.
TEST_F(S3MultipartTest, GoesOnWithAListingWhereItEnded) {
  for (const char* key : {"a", "a/x", "a/y", "b", "b", "b", "b/z", "c\xFF", "c\xFF/1"}) {
    Begin(key);
  }
  for (const std::string delimiter : {"", "&delimiter=/"}) {
    const std::string whole = List("uploads" + delimiter).body;
    for (int most = 1; most <= 4; ++most) {
      Texts ids;
      Texts prefixes;
      std::string more;
      for (int page = 0; page < 20; ++page) {
        const std::string xml =
            List("uploads&max-uploads=" + std::to_string(most) + delimiter + more + "&encoding-type=url").body;
        for (std::string& id : Values(xml, "UploadId")) {
          ids.push_back(std::move(id));
        }
        const Texts found = Values(xml, "Prefix");
        prefixes.insert(prefixes.end(), found.begin() + 1, found.end());
        if (Values(xml, "IsTruncated") != Texts{"true"}) {
          break;
        }
        more = "&key-marker=" + Values(xml, "NextKeyMarker").at(0) +
               "&upload-id-marker=" + Values(xml, "NextUploadIdMarker").at(0);
      }
      EXPECT_EQ(ids, Values(whole, "UploadId")) << most << delimiter;
      EXPECT_EQ(prefixes.size() + 1, Values(whole, "Prefix").size()) << most << delimiter;
    }
  }
}

TEST_F(S3MultipartTest, KeepsTheUploadsOfTheTwoProtocolsApart) {
  const std::string id = Begin("k");
  const FakeAnswer ours = Post("/" + bucket_ + "/k", "uploads");
  ASSERT_EQ(ours.response.status, 200);
  EXPECT_EQ(Values(List("uploads").body, "UploadId"), Texts{id});
  EXPECT_NE(Get("/" + bucket_ + "/k", "upload_id=" + id).response.status, 200);
}

TEST_F(S3MultipartTest, AnswersFailuresOfTheDatabaseAndKeepsTheUpload) {
  const std::string id = Begin("k");
  for (const char* const statement : {"INSERT INTO platform.local_upload_part", "FROM platform.local_upload WHERE"}) {
    Database().FailStatementsWith(statement);
    EXPECT_EQ(Outcome(PutPart("k", id, 1, "x")), "500 InternalError") << statement;
    Database().Heal();
  }
  PutPart("k", id, 1, "x");
  for (const char* const statement :
       {"INSERT INTO platform.local_object", "DELETE FROM platform.local_upload WHERE", "SET pieces",
        "FROM platform.local_upload_part WHERE", "FROM platform.local_upload WHERE"}) {
    Database().FailStatementsWith(statement);
    EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("x")}})), "500 InternalError") << statement;
    Database().Heal();
    EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey") << statement;
  }
  Database().FailStatementsWith("local_upload");
  EXPECT_EQ(Outcome(Do({.method = "POST", .path = PathOf("k"), .query = "uploads"})), "500 InternalError");
  EXPECT_EQ(Outcome(Abort("k", id)), "500 InternalError");
  EXPECT_EQ(Outcome(List("uploads")), "500 InternalError");
  EXPECT_EQ(Outcome(PartsOf("k", id)), "500 InternalError");
  Database().Heal();
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5("x")}})), "200");
}

TEST_F(S3MultipartTest, GivesEachPartByItsNumber) {
  const Texts bodies = {Pattern(kLeast, 1), Pattern(kLeast + 1, 2), Pattern(3, 3)};
  UploadAll("k", bodies);
  const std::string size = std::to_string(bodies[0].size() + bodies[1].size() + bodies[2].size());
  std::size_t begin = 0;
  for (std::size_t i = 0; i < bodies.size(); ++i) {
    const std::string query = "partNumber=" + std::to_string(i + 1);
    const FakeAnswer got = GetKey("k", {}, query);
    EXPECT_EQ(got.response.status, 206) << query;
    EXPECT_TRUE(got.body == bodies[i]) << query;
    EXPECT_EQ(got.response.headers.at("x-amz-mp-parts-count"), "3");
    EXPECT_EQ(got.response.headers.at("Content-Range"),
              "bytes " + std::to_string(begin) + "-" + std::to_string(begin + bodies[i].size() - 1) + "/" + size);
    begin += bodies[i].size();
    const FakeAnswer head = Do({.method = "HEAD", .path = PathOf("k"), .query = query});
    EXPECT_EQ(head.response.status, 206);
    EXPECT_EQ(head.total_size, bodies[i].size());
  }
  EXPECT_EQ(Outcome(GetKey("k", {}, "partNumber=4")), "416 InvalidPartNumber");
  EXPECT_EQ(Outcome(GetKey("k", {}, "partNumber=0")), "400 InvalidArgument");
  EXPECT_EQ(Outcome(GetKey("k", {{"Range", "bytes=0-1"}}, "partNumber=1")), "400 InvalidRequest");
  EXPECT_EQ(GetKey("k").response.headers.count("x-amz-mp-parts-count"), 0U);
  const FakeAnswer attributes =
      Do({.method = "GET",
          .path = PathOf("k"),
          .query = "attributes",
          .headers = {{"x-amz-object-attributes", "ETag, ObjectParts,ObjectSize,StorageClass,Checksum"}}});
  EXPECT_EQ(Values(attributes.body, "ETag"), Texts{ETagOf(bodies).substr(1, 34)});
  EXPECT_EQ(Values(attributes.body, "PartsCount"), Texts{"3"});
  EXPECT_EQ(Values(attributes.body, "ObjectSize"), Texts{size});
  EXPECT_EQ(Values(attributes.body, "StorageClass"), Texts{"STANDARD"});
}

// Its size cannot tell the completion that somebody replaces it meanwhile, so the object must not need it.
TEST_F(S3MultipartTest, AnEmptyLastPartIsNoPieceOfTheObject) {
  const std::string body = Pattern(kLeast);
  const std::string id = UploadAll("k", {body, ""});
  ObjectInfo object;
  ASSERT_TRUE(catalogue_.GetObjectByName(object, "k", bucket_));
  EXPECT_EQ(CloudStorage::details::ReadPieceList(object.url).size(), 1U);
  EXPECT_EQ(CountParts(id), 1U) << "its bytes are given back";
  const FakeAnswer got = GetKey("k");
  EXPECT_TRUE(got.body == body);
  EXPECT_EQ(got.response.headers.at("ETag"), ETagOf({body, ""}));
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(body)}, {2, Md5("")}})), "200") << "its answer was lost";
  UploadAll("empty", {""});
  EXPECT_EQ(Outcome(GetKey("empty")), "200");
}

TEST_F(S3MultipartTest, ARepeatedCompletionGetsTheSameAnswer) {
  for (const char* const type : {"COMPOSITE", "FULL_OBJECT"}) {
    const std::string id =
        Begin("k", {{"x-amz-checksum-algorithm", "CRC32C"}, {"x-amz-checksum-type", type}, {"x-amz-meta-a", "1"}});
    const Texts bodies = {Pattern(kLeast), "tail"};
    std::vector<Listed> parts;
    for (const std::string& body : bodies) {
      const std::string checksum = TansyBase::Encrypt::Base64Encode(DigestOf(EDigest::kCrc32c, body));
      const int number = static_cast<int>(parts.size()) + 1;
      PutPart("k", id, number, body, {{"x-amz-checksum-crc32c", checksum}});
      parts.push_back({number, Md5(body), "<ChecksumCRC32C>" + checksum + "</ChecksumCRC32C>"});
    }
    const FakeAnswer first = Complete("k", id, parts);
    EXPECT_EQ(Values(first.body, "ChecksumType"), Texts{type});
    EXPECT_EQ(Complete("k", id, parts).body, first.body);
    EXPECT_EQ(GetKey("k").response.headers.count("x-amz-checksum-type"), 0U);
    EXPECT_EQ(GetKey("k").response.headers.at("x-amz-meta-a"), "1");
  }
}

// Behind each common prefix only a few uploads are read.
TEST_F(S3MultipartTest, ListsManyCommonPrefixesOfUploads) {
  Texts prefixes;
  for (int i = 10; i < 40; ++i) {
    for (int upload = 0; upload < 1 + i % 10; ++upload) {
      Begin("folder-" + std::to_string(i) + "/" + std::to_string(upload));
    }
    prefixes.push_back("folder-" + std::to_string(i) + "/");
  }
  const FakeAnswer all = List("uploads&delimiter=%2F");
  Texts shown = Values(all.body, "Prefix");
  ASSERT_FALSE(shown.empty());
  shown.erase(shown.begin());  // that of the request
  EXPECT_EQ(shown, prefixes);
  EXPECT_EQ(Values(List("uploads").body, "Key").size(), 165U) << "all of them, without a delimiter";
}

TEST_F(S3MultipartTest, AnswersAStorageThatFails) {
  const std::string id = Begin("k");
  storage_.SetResult("save", 3);
  EXPECT_EQ(Outcome(PutPart("k", id, 1, "x")), "507 NotEnoughSpace") << "nobody repeats what cannot help";
  storage_.SetResult("save", 1);
  EXPECT_EQ(Outcome(PutPart("k", id, 1, "x")), "500 InternalError");
  EXPECT_EQ(CountParts(id), 0U);
  storage_.SetResult("save", 0);
  PutPart("k", id, 1, Pattern(kLeast));
  PutPart("k", id, 2, "x");
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(Pattern(kLeast))}, {2, Md5("x")}})), "200");
  storage_.SetResult("range", 1);
  EXPECT_EQ(Outcome(GetKey("k")), "500 InternalError");
  storage_.SetResult("range", 0);
  storage_.ShortenReads(1);
  EXPECT_EQ(Outcome(GetKey("k")), "500 InternalError") << "a piece that is too short";
  storage_.ShortenReads(0);
  EXPECT_EQ(GetKey("k").body, Pattern(kLeast) + "x");
}

// A part that is replaced while its upload is completed is either in the object or makes the completion look again.
TEST_F(S3MultipartTest, CompletesWhileAPartIsReplaced) {
  for (const bool is_before_commit : {true, false}) {
    const std::string key = is_before_commit ? "k1" : "k2";
    const std::string id = Begin(key);
    PutPart(key, id, 1, "first");
    std::atomic<bool> is_done{false};
    Database().SetHook([&](const std::string& sql) {
      const bool is_moment = sql.find(is_before_commit ? "SELECT part_num" : "SET pieces") != std::string::npos;
      if (is_moment && is_before_commit && !is_done.exchange(true)) {
        Database().SetHook(nullptr);
        EXPECT_EQ(PutPart(key, id, 2, "second").response.status, 200);
      }
    });
    EXPECT_EQ(Outcome(Complete(key, id, {{1, Md5("first")}})), "200");
    Database().SetHook(nullptr);
    EXPECT_EQ(GetKey(key).body, "first");
    EXPECT_EQ(CountParts(id), 1U);
  }
}

// Only one of two completions that list different parts makes the object.
TEST_F(S3MultipartTest, CompletesOnceHoweverMayBeListed) {
  const Texts bodies = {Pattern(kLeast, 1), Pattern(kLeast, 2)};
  const std::string id = Begin("k");
  PutPart("k", id, 1, bodies[0]);
  PutPart("k", id, 2, bodies[1]);
  bool is_first = true;
  Database().SetHook([&](const std::string& sql) {
    if (is_first && sql.find("SELECT part_num") != std::string::npos) {
      is_first = false;
      Database().SetHook(nullptr);
      EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(bodies[0])}, {2, Md5(bodies[1])}})), "200");
    }
  });
  EXPECT_EQ(Outcome(Complete("k", id, {{1, Md5(bodies[0])}})), "404 NoSuchUpload");
  Database().SetHook(nullptr);
  EXPECT_FALSE(is_first);
  EXPECT_EQ(CountParts(id), 2U);
  EXPECT_TRUE(GetKey("k").body == bodies[0] + bodies[1]);
}

TEST_F(S3MultipartTest, NeverLosesAPartUnderCompletionsPartsAndAbortsAtOnce) {
  constexpr int kRounds = 20;
  for (int round = 0; round < kRounds; ++round) {
    const std::string key = "k" + std::to_string(round);
    const std::string id = Begin(key);
    PutPart(key, id, 1, "one");
    FakeAnswer first;
    FakeAnswer second;
    FakeAnswer part;
    FakeAnswer abort;
    {
      std::vector<std::thread> threads;
      threads.emplace_back([&] { first = Complete(key, id, {{1, Md5("one")}}); });
      threads.emplace_back([&] { second = Complete(key, id, {{1, Md5("one")}}); });
      threads.emplace_back([&] { part = PutPart(key, id, 1, "two"); });
      if (round % 2 == 1) {
        threads.emplace_back([&] { abort = Abort(key, id); });
      }
      for (std::thread& thread : threads) {
        thread.join();
      }
    }
    const bool is_complete = first.response.status == 200 || second.response.status == 200;
    const FakeAnswer got = GetKey(key);
    if (is_complete) {
      EXPECT_EQ(got.body, "one") << round;
      EXPECT_EQ(CountParts(id), 1U) << round;
    } else {
      EXPECT_EQ(Outcome(got), "404 NoSuchKey") << round;
      for (const FakeAnswer& answer : {first, second}) {
        EXPECT_TRUE(Outcome(answer) == "404 NoSuchUpload" || Outcome(answer) == "400 InvalidPart") << Outcome(answer);
      }
    }
  }
}

TEST_F(S3MultipartTest, RemovesEachPieceWithTheObject) {
  UploadAll("k", {Pattern(kLeast), "tail"});
  ASSERT_EQ(Delete("/" + bucket_ + "/k", "deletefile").response.status, 200);
  EXPECT_EQ(storage_.Calls("remove").size(), 2U);
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
}

// The thread of the sweep belongs to the object server, which starts first.
TEST_F(S3MultipartTest, ASweepThatCameBeforeTheStartIsMadeUpFor) {
  Begin("old");
  TansyBase::TimeUtil::SetClock([] { return kNow + 4 * 86400; });
  CPartUploadSweep sweep;
  int calls = 0;
  sweep.SetWhenStarted([&calls] { ++calls; });
  EXPECT_FALSE(sweep.Run());
  sweep.Start();
  sweep.Start();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(sweep.Run());
  TansyBase::TimeUtil::SetClock([] { return kNow; });
  EXPECT_EQ(Values(List("uploads").body, "Key"), Texts());
}

TEST_F(S3MultipartTest, SweepsUploadsThatNobodyTouchesForThreeDays) {
  static std::atomic<std::int64_t> uptime{1000};
  TansyBase::TimeUtil::SetUptimeClock([] { return uptime.load(); });
  CPartUploadSweep& sweep = CPartUploadSweep::Instance();
  const std::string old = Begin("old");
  const std::string touched = Begin("touched");
  sweep.Run();
  uptime += 259200;
  sweep.Run();
  EXPECT_EQ(Values(List("uploads").body, "Key"), (Texts{"old", "touched"})) << "not before";
  TansyBase::TimeUtil::SetClock([] { return kNow + 60; });
  PutPart("touched", touched, 1, "x");
  uptime += 1;
  sweep.Run();
  EXPECT_EQ(Values(List("uploads").body, "Key"), Texts{"touched"});
  TansyBase::TimeUtil::SetClock([] { return kNow + 800 * 86400; });
  sweep.Run();
  TansyBase::TimeUtil::SetClock([] { return kNow; });
  EXPECT_EQ(Values(List("uploads").body, "Key"), Texts{"touched"}) << "somebody set the clock";
  TansyBase::TimeUtil::SetUptimeClock(nullptr);
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
