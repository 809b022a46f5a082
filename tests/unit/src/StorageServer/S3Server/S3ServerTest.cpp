// The S3 server over the catalogue in memory, a storage in memory and the fake HTTP library.
#include "StorageServer/S3Server/S3Server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Common/Signature.h"
#include "S3ServerFixture.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Uploads.h"
#include "TansyBase/Encrypt.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/ObjectServer.h"

namespace Tansy::CloudStorage::S3 {
namespace {

// A body of signed chunks of at most 64 KiB.
std::string SignedChunks(const Signed& request, const std::string& body, std::size_t broken_chunk = SIZE_MAX) {
  constexpr std::size_t kChunk = 65536;
  std::string text;
  std::string before = request.signature;
  std::size_t number = 0;
  for (std::size_t at = 0;; at += kChunk) {
    const std::string chunk = at < body.size() ? body.substr(at, kChunk) : std::string();
    before = Sign(request.signing_key, ChunkToSign(request, before, ToHex(DigestOf(EDigest::kSha256, chunk))));
    char length[20];
    std::snprintf(length, sizeof length, "%zx", chunk.size());
    const std::string shown = number++ == broken_chunk ? std::string(64, '0') : before;
    text += std::string(length) + ";chunk-signature=" + shown + "\r\n" + chunk + "\r\n";
    if (chunk.empty()) {
      return text;
    }
  }
}

TEST_F(S3ServerTest, OpensListenersThatTakeBodiesOfUnknownLength) {
  ASSERT_EQ(SetS3ServerEnable(false), 0);
  ASSERT_EQ(SetS3ServerEnable(true), 0);
  EXPECT_EQ(SetS3ServerEnable(true), 0);
  std::vector<std::string> opened;
  for (const Tests::FakeListener& listener : http_.Listeners()) {
    if (!listener.open || listener.callback != &CS3Server::RecvMsgCallBack) {
      continue;
    }
    opened.push_back((listener.https ? "https " : "http ") + listener.address + " " + std::to_string(listener.port));
    EXPECT_EQ(listener.style.unknown_length, TansyNet::EUnknownLength::kInPieces);
  }
  EXPECT_EQ(opened,
            (std::vector<std::string>{"http 0.0.0.0 9702", "http :: 9702", "https 0.0.0.0 9745", "https :: 9745"}));
}

// Requests that the library refuses never reach a handler.
TEST_F(S3ServerTest, RefusalsOfTheLibraryAreErrorsOfS3) {
  ASSERT_EQ(SetS3ServerEnable(false), 0);
  ASSERT_EQ(SetS3ServerEnable(true), 0);
  for (const Tests::FakeListener& listener : http_.Listeners()) {
    if (!listener.open || listener.callback != &CS3Server::RecvMsgCallBack) {
      continue;
    }
    ASSERT_NE(listener.style.refusal, nullptr);
    const auto refuse = [&listener](int status, const std::string& method) {
      const TansyNet::Refusal refusal = listener.style.refusal(status, Message({method, "/b/a%20k", "", "", {}}));
      EXPECT_EQ(refusal.response.content_type, "application/xml");
      EXPECT_EQ(Values(refusal.body, "RequestId").front(), refusal.response.headers.at("x-amz-request-id"));
      EXPECT_EQ(Values(refusal.body, "Resource").front(), "/b/a k");
      return std::to_string(refusal.response.status) + " " + Values(refusal.body, "Code").front() + ": " +
             Values(refusal.body, "Message").front();
    };
    EXPECT_EQ(refuse(413, "PUT"), "400 EntityTooLarge: An object has at most 4294967295 bytes.");
    EXPECT_EQ(refuse(413, "POST"), "400 EntityTooLarge: The body is too long for this request.");
    EXPECT_EQ(refuse(503, "PUT"), "503 SlowDown: The server has too much to do; try again later.");
    EXPECT_EQ(refuse(408, "PUT"), "408 InvalidRequest: The request did not come in time.");
    EXPECT_EQ(refuse(431, "GET"), "431 InvalidRequest: The headers of the request are too long.");
    EXPECT_EQ(refuse(505, "GET"),
              "505 InvalidRequest: The request is no valid HTTP, or asks for what this server does not speak.");
  }
}

TEST_F(S3ServerTest, GivesBackWhatWasPut) {
  const FakeAnswer put = PutKey("photos/2026/a b.jpg", "hello",
                                {{"Content-Type", "image/jpeg"}, {"x-amz-meta-a", "1"}, {"Cache-Control", "no-store"}});
  EXPECT_EQ(put.response.status, 200);
  EXPECT_EQ(put.response.headers.at("ETag"), Md5("hello"));
  EXPECT_EQ(put.response.headers.at("x-amz-request-id").size(), 16U);
  const FakeAnswer got = GetKey("photos/2026/a b.jpg");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("hello"));
  EXPECT_EQ(got.response.headers.at("Content-Type"), "image/jpeg");
  EXPECT_EQ(got.response.headers.at("Cache-Control"), "no-store");
  EXPECT_EQ(got.response.headers.at("x-amz-meta-a"), "1");
  EXPECT_EQ(got.response.headers.at("Last-Modified"), "Tue, 03 Nov 2026 08:00:00 GMT");
}

TEST_F(S3ServerTest, SharesItsObjectsWithTheObjectProtocol) {
  PutKey("a/b c", "by S3");
  EXPECT_EQ(Get("/" + bucket_ + "/a%2Fb%20c").body, "by S3");
  ASSERT_EQ(Put("/" + bucket_ + "/x(1)", "by us").response.status, 200);
  const FakeAnswer got = GetKey("x(1)");
  EXPECT_EQ(got.body, "by us");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("by us"));
  EXPECT_EQ(Values(List("list-type=2").body, "Key"), (std::vector<std::string>{"a/b c", "x(1)"}));
}

TEST_F(S3ServerTest, ForgetsTheAttributesOfBytesThatAnotherProtocolReplaced) {
  PutKey("k", "first", {{"Content-Type", "image/jpeg"}});
  ASSERT_EQ(Put("/" + bucket_ + "/k", "second").response.status, 200);
  const FakeAnswer got = GetKey("k");
  EXPECT_EQ(got.body, "second");
  EXPECT_EQ(got.response.headers.at("Content-Type"), "binary/octet-stream");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("second"));
  EXPECT_EQ(KeptTags(), std::vector<std::string>{ToHex(DigestOf(EDigest::kMd5, "second"))});
}

TEST_F(S3ServerTest, ComputesTheTagOfAnotherProtocolsObjectOnce) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{5}, 3 * kMebibyte, 11 * kMebibyte}) {
    const std::string key = "ours-" + std::to_string(size);
    const std::string bytes = Pattern(size);
    NewObject(bucket_, key, bytes);
    EXPECT_TRUE(Values(List("prefix=" + key).body, "ETag").at(0).ends_with("-1&quot;")) << "nobody asked for it yet";
    const FakeAnswer head = Do({.method = "HEAD", .path = PathOf(key)});
    EXPECT_EQ(head.response.headers.at("ETag"), Md5(bytes));
    EXPECT_EQ(head.total_size, size);
    const auto reads = storage_.Calls("range").size();
    EXPECT_EQ(Do({.method = "HEAD", .path = PathOf(key)}).response.headers.at("ETag"), Md5(bytes));
    EXPECT_EQ(storage_.Calls("range").size(), reads) << "computed again";
    EXPECT_EQ(Values(List("prefix=" + key).body, "ETag").at(0),
              "&quot;" + ToHex(DigestOf(EDigest::kMd5, bytes)) + "&quot;");
    EXPECT_TRUE(GetKey(key).body == bytes);
    EXPECT_EQ(GetKey(key, {{"If-None-Match", Md5(bytes)}}).response.status, 304);
  }
  EXPECT_EQ(KeptTags().size(), 4U);
}

// A client that reads what it found in a listing sends the tag of the listing along.
TEST_F(S3ServerTest, KnowsAnObjectByTheTagThatListingsShowedFirst) {
  for (const std::size_t size : {std::size_t{5}, 3 * kMebibyte}) {
    const std::string key = "ours-" + std::to_string(size);
    const std::string bytes = Pattern(size);
    NewObject(bucket_, key, bytes);
    const std::string listed = Values(List("prefix=" + key).body, "ETag").at(0);
    const std::string tag = '"' + listed.substr(6, listed.size() - 12) + '"';  // without &quot;
    ASSERT_TRUE(tag.ends_with("-1\"")) << tag;
    const FakeAnswer got = GetKey(key, {{"If-Match", tag}});
    EXPECT_EQ(got.response.status, 200) << "the digest is computed meanwhile";
    EXPECT_TRUE(got.body == bytes);
    EXPECT_EQ(got.response.headers.at("ETag"), Md5(bytes));
    EXPECT_EQ(GetKey(key, {{"If-Match", tag}, {"Range", "bytes=1-2"}}).body, bytes.substr(1, 2));
    EXPECT_EQ(GetKey(key, {{"If-Range", tag}, {"Range", "bytes=1-2"}}).body, bytes.substr(1, 2));
    EXPECT_EQ(GetKey(key, {{"If-None-Match", tag}}).response.status, 304);
    EXPECT_EQ(Outcome(PutKey("copy", "", {{"x-amz-copy-source", PathOf(key)}, {"x-amz-copy-source-if-match", tag}})),
              "200");
    EXPECT_EQ(Outcome(PutKey(key, "other", {{"If-Match", tag}})), "200");
    EXPECT_EQ(Outcome(GetKey(key, {{"If-Match", tag}, {"Range", "bytes=3-4"}})), "412 PreconditionFailed")
        << "these are other bytes";
    EXPECT_EQ(Outcome(PutKey(key, "third", {{"If-Match", tag}})), "412 PreconditionFailed");
  }
}

TEST_F(S3ServerTest, NeverKeepsTheTagOfBytesThatWereReplacedMeanwhile) {
  for (const std::size_t size : {std::size_t{5}, 3 * kMebibyte}) {
    const std::string before(size, 'a');
    const std::string after(size, 'b');
    NewObject(bucket_, "k", before);
    std::atomic<bool> is_replaced{false};
    storage_.SetHook([&](const Tests::CFakeStorage::Call& call) {
      if (call.kind == "range" && !is_replaced.exchange(true)) {
        EXPECT_EQ(Put("/" + bucket_ + "/k", after).response.status, 200);
      }
    });
    GetKey("k");
    storage_.SetHook(nullptr);
    EXPECT_TRUE(is_replaced);
    EXPECT_EQ(KeptTags(), std::vector<std::string>{Md5(after).substr(1, 32)}) << "not of the bytes before";
    const FakeAnswer got = GetKey("k");
    EXPECT_TRUE(got.body == after);
    EXPECT_EQ(got.response.headers.at("ETag"), Md5(after));
    EXPECT_EQ(Do({.method = "DELETE", .path = PathOf("k")}).response.status, 204);
  }
}

TEST_F(S3ServerTest, ServesAnObjectWhoseTagCannotBeKept) {
  NewObject(bucket_, "k", "hello");
  Database().FailStatementsWith("local_object_attributes");
  const FakeAnswer got = GetKey("k");
  Database().Heal();
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("hello"));
}

TEST_F(S3ServerTest, StoresAnEmptyObject) {
  EXPECT_EQ(Outcome(PutKey("empty", "")), "200");
  const FakeAnswer got = GetKey("empty");
  EXPECT_EQ(Outcome(got), "200");
  EXPECT_EQ(got.body, "");
}

TEST_F(S3ServerTest, AnswersAHeadWithTheLengthOfTheObject) {
  PutKey("k", "hello");
  const FakeAnswer head = Do({.method = "HEAD", .path = PathOf("k")});
  EXPECT_EQ(head.response.status, 200);
  EXPECT_EQ(head.total_size, 5U);
  EXPECT_EQ(head.body, "");
  EXPECT_EQ(Do({.method = "HEAD", .path = PathOf("none")}).response.status, 404);
}

TEST_F(S3ServerTest, SendsRanges) {
  PutKey("k", "0123456789");
  const FakeAnswer part = GetKey("k", {{"Range", "bytes=2-4"}});
  EXPECT_EQ(part.response.status, 206);
  EXPECT_EQ(part.body, "234");
  EXPECT_EQ(part.response.headers.at("Content-Range"), "bytes 2-4/10");
  EXPECT_EQ(GetKey("k", {{"Range", "bytes=-3"}}).body, "789");
  EXPECT_EQ(Outcome(GetKey("k", {{"Range", "bytes=10-"}})), "416 InvalidRange");
  EXPECT_EQ(GetKey("k", {{"Range", "bytes=0-1"}, {"If-Range", "\"other\""}}).body, "0123456789");
}

TEST_F(S3ServerTest, ChecksConditions) {
  PutKey("k", "hello");
  EXPECT_EQ(GetKey("k", {{"If-None-Match", Md5("hello")}}).response.status, 304);
  EXPECT_EQ(GetKey("k", {{"If-None-Match", Md5("hello")}, {"Range", "bytes=100-"}}).response.status, 304)
      << "a condition comes before the range";
  EXPECT_EQ(Outcome(GetKey("k", {{"If-Match", "\"other\""}})), "412 PreconditionFailed");
  EXPECT_EQ(Outcome(PutKey("k", "again", {{"If-None-Match", "*"}})), "412 PreconditionFailed");
  EXPECT_EQ(Outcome(PutKey("new", "again", {{"If-None-Match", "*"}})), "200");
  EXPECT_EQ(Outcome(PutKey("new", "x", {{"If-Match", Md5("other")}})), "412 PreconditionFailed");
  EXPECT_EQ(Outcome(PutKey("none", "x", {{"If-Match", "*"}})), "412 PreconditionFailed");
  EXPECT_EQ(Outcome(PutKey("new", "x", {{"If-Match", Md5("again")}})), "200");
  EXPECT_EQ(GetKey("new").body, "x");
  EXPECT_EQ(GetKey("k").body, "hello");
}

TEST_F(S3ServerTest, LetsAQueryReplaceHeadersOfTheAnswer) {
  PutKey("k", "hello", {{"Content-Type", "image/jpeg"}});
  const FakeAnswer got = GetKey("k", {}, "response-content-type=a%2Fb&response-content-disposition=attachment");
  EXPECT_EQ(got.response.headers.at("Content-Type"), "a/b");
  EXPECT_EQ(got.response.headers.at("Content-Disposition"), "attachment");
}

TEST_F(S3ServerTest, SendsALongObjectInChunks) {
  const std::string bytes = Pattern(11 * kMebibyte);
  NewObject(bucket_, "long", bytes);
  const FakeAnswer got = GetKey("long");
  EXPECT_TRUE(got.IsWhole());
  EXPECT_TRUE(got.body == bytes);
  EXPECT_EQ(got.chunks.size(), 2U);
}

TEST_F(S3ServerTest, StoresNothingWhenTheBodyIsWrong) {
  EXPECT_EQ(Outcome(Do({.method = "PUT",
                        .path = PathOf("k"),
                        .body = "hello",
                        .payload = ToHex(DigestOf(EDigest::kSha256, "other"))})),
            "400 XAmzContentSHA256Mismatch");
  EXPECT_EQ(Outcome(PutKey("k", "hello", {{"Content-MD5", "AAAAAAAAAAAAAAAAAAAAAA=="}})), "400 BadDigest");
  EXPECT_EQ(Outcome(PutKey("k", "hello", {{"x-amz-checksum-crc32", "AAAAAA=="}})), "400 BadDigest");
  EXPECT_TRUE(storage_.Calls("save").empty());
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
}

TEST_F(S3ServerTest, TakesAStreamOfSignedChunks) {
  const std::string bytes = Pattern(9 * kMebibyte + 5);
  struct Signed signature;
  const TansyNet::HttpServerRecv msg =
      SignedCall({.method = "PUT",
                  .path = PathOf("stream"),
                  .headers = {{"x-amz-decoded-content-length", std::to_string(bytes.size())}},
                  .payload = "STREAMING-AWS4-HMAC-SHA256-PAYLOAD"},
                 &signature);
  const FakeAnswer put = Stream(msg, SignedChunks(signature, bytes));
  EXPECT_EQ(Outcome(put), "200") << put.body;
  EXPECT_EQ(put.response.headers.at("ETag"), Md5(bytes));
  EXPECT_TRUE(GetKey("stream").body == bytes);
  EXPECT_EQ(CUploads::Instance().Size(), 0U);
}

TEST_F(S3ServerTest, StoresNoObjectWhenAChunkInTheMiddleIsNotSigned) {
  const std::string bytes = Pattern(9 * kMebibyte);
  struct Signed signature;
  const TansyNet::HttpServerRecv msg =
      SignedCall({.method = "PUT",
                  .path = PathOf("stream"),
                  .headers = {{"x-amz-decoded-content-length", std::to_string(bytes.size())}},
                  .payload = "STREAMING-AWS4-HMAC-SHA256-PAYLOAD"},
                 &signature);
  EXPECT_EQ(Outcome(Stream(msg, SignedChunks(signature, bytes, 80))), "403 SignatureDoesNotMatch");
  EXPECT_EQ(Outcome(GetKey("stream")), "404 NoSuchKey");
  EXPECT_EQ(CUploads::Instance().Size(), 0U);
  std::vector<std::string> under_way;
  EXPECT_TRUE(GetUploadsUnderWay(under_way));
  EXPECT_TRUE(under_way.empty());
}

TEST_F(S3ServerTest, RefusesAStreamAtItsFirstPiece) {
  const std::string bytes = Pattern(9 * kMebibyte);
  TansyNet::HttpServerRecv unsigned_one = Message({"PUT", PathOf("stream"), {}, {}, {}});
  EXPECT_EQ(Outcome(Stream(unsigned_one, bytes)), "403 AccessDenied");
  EXPECT_EQ(Outcome(Stream(SignedCall({.method = "PUT", .path = "/no-such-bucket/k"}), bytes)), "404 NoSuchBucket");
  EXPECT_TRUE(storage_.Calls("stream").empty());
}

TEST_F(S3ServerTest, AnswersAStreamThatTheStorageRefuses) {
  storage_.SetResult("stream", 1);
  EXPECT_EQ(Outcome(Stream(SignedCall({.method = "PUT", .path = PathOf("stream")}), Pattern(9 * kMebibyte))),
            "500 InternalError");
  EXPECT_EQ(Outcome(GetKey("stream")), "404 NoSuchKey");
}

TEST_F(S3ServerTest, AnswersWhatTheDatabaseRefuses) {
  Database().FailStatementsWith("INSERT INTO platform.local_object_attributes");
  EXPECT_EQ(Outcome(PutKey("k", "hello")), "500 InternalError");
  Database().Heal();
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey") << "the object's row went with the attributes'";
}

TEST_F(S3ServerTest, ShowsAttributesAgainAfterALoad) {
  PutKey("k", "hello", {{"Content-Type", "image/jpeg"}});
  // Another object of this name and without attributes, as a start without this server leaves it in memory.
  ObjectInfo object;
  ASSERT_TRUE(catalogue_.GetObjectByName(object, "k", bucket_));
  EXPECT_TRUE(catalogue_.LoadAttributes());
  EXPECT_EQ(GetKey("k").response.headers.at("Content-Type"), "image/jpeg");
}

TEST_F(S3ServerTest, RemovesObjects) {
  PutKey("a", "1");
  PutKey("b/c", "2");
  PutKey("d", "3");
  EXPECT_EQ(Do({.method = "DELETE", .path = PathOf("a")}).response.status, 204);
  EXPECT_EQ(Do({.method = "DELETE", .path = PathOf("a")}).response.status, 204) << "it was not there";
  EXPECT_EQ(Outcome(GetKey("a")), "404 NoSuchKey");
  const FakeAnswer answer =
      Do({.method = "POST",
          .path = "/" + bucket_,
          .query = "delete",
          .body = "<Delete><Object><Key>b/c</Key></Object><Object><Key>none</Key></Object></Delete>"});
  EXPECT_EQ(Values(answer.body, "Key"), (std::vector<std::string>{"b/c", "none"}));
  EXPECT_EQ(Values(List("").body, "Key"), std::vector<std::string>{"d"});
  EXPECT_EQ(Outcome(Do({.method = "POST", .path = "/" + bucket_, .query = "delete", .body = "no xml"})),
            "400 MalformedXML");
}

TEST_F(S3ServerTest, ListsObjects) {
  for (const char* const key : {"a", "b/1", "b/2", "c d"}) {
    PutKey(key, "x");
  }
  const FakeAnswer grouped = List("list-type=2&delimiter=%2F");
  EXPECT_EQ(Values(grouped.body, "Key"), (std::vector<std::string>{"a", "c d"}));
  EXPECT_EQ(Values(grouped.body, "Prefix"), (std::vector<std::string>{"", "b/"}));
  EXPECT_EQ(Values(grouped.body, "KeyCount"), std::vector<std::string>{"3"});
  EXPECT_EQ(Values(grouped.body, "LastModified").front(), "2026-11-03T08:00:00.000Z");
  EXPECT_EQ(Values(List("list-type=2&encoding-type=url&prefix=c").body, "Key"), std::vector<std::string>{"c%20d"});
  const FakeAnswer first = List("list-type=2&max-keys=2");
  EXPECT_EQ(Values(first.body, "IsTruncated"), std::vector<std::string>{"true"});
  const std::string token = Values(first.body, "NextContinuationToken").at(0);
  const FakeAnswer second = List("list-type=2&max-keys=2&continuation-token=" + PercentEncode(token));
  EXPECT_EQ(Values(second.body, "Key"), (std::vector<std::string>{"b/2", "c d"}));
  EXPECT_EQ(Values(second.body, "IsTruncated"), std::vector<std::string>{"false"});
  EXPECT_EQ(Values(List("marker=b%2F1").body, "Key"), (std::vector<std::string>{"b/2", "c d"}));
}

TEST_F(S3ServerTest, ListsEachKeyOnceHoweverItsNamesAreWritten) {
  std::vector<std::string> keys;
  for (int i = 100; i < 300; ++i) {  // more than are looked at in one go
    NewObject(bucket_, std::to_string(i), "x");
    keys.push_back(std::to_string(i));
  }
  for (const char* const name : {"a%2Fb", "a%2fb", "%61/b", "%zz"}) {
    NewObject(bucket_, name, "x");
  }
  keys.insert(keys.begin(), "%zz");
  keys.push_back("a/b");
  EXPECT_EQ(Values(List("list-type=2").body, "Key"), keys);
  std::vector<std::string> pages;
  for (std::string after;;) {
    const std::vector<std::string> page =
        Values(List("list-type=2&max-keys=7&start-after=" + PercentEncode(after)).body, "Key");
    if (page.empty()) {
      break;
    }
    pages.insert(pages.end(), page.begin(), page.end());
    after = page.back();
  }
  EXPECT_EQ(pages, keys);
}

TEST_F(S3ServerTest, RefusesListingsThatMakeNoSense) {
  for (const char* const query : {"max-keys=-1", "max-keys=x", "list-type=2&max-keys=-1", "encoding-type=x",
                                  "list-type=2&continuation-token=nonsense", "list-type=3"}) {
    EXPECT_EQ(Outcome(List(query)), "400 InvalidArgument") << query;
  }
  EXPECT_EQ(Values(List("max-keys=0").body, "IsTruncated"), std::vector<std::string>{"false"});
  EXPECT_EQ(Values(List("max-keys=1000000000").body, "MaxKeys"), std::vector<std::string>{"1000"});
}

TEST_F(S3ServerTest, MakesListsAndRemovesBuckets) {
  const std::string name = "new-" + bucket_;
  EXPECT_EQ(Do({.method = "HEAD", .path = "/" + name}).response.status, 404);
  EXPECT_EQ(Outcome(Do({.method = "PUT", .path = "/" + name})), "200");
  EXPECT_EQ(Outcome(Do({.method = "PUT", .path = "/" + name})), "200") << "one's own";
  EXPECT_EQ(Do({.method = "HEAD", .path = "/" + name}).response.status, 200);
  const std::vector<std::string> names = Values(Do({.method = "GET", .path = "/"}).body, "Name");
  EXPECT_EQ(std::count(names.begin(), names.end(), name), 1);
  EXPECT_NE(Do({.method = "GET", .path = "/" + name, .query = "location"}).body.find("<LocationConstraint"),
            std::string::npos);
  Do({.method = "PUT", .path = "/" + name + "/k", .body = "x"});
  EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = "/" + name})), "409 BucketNotEmpty");
  Do({.method = "DELETE", .path = "/" + name + "/k"});
  EXPECT_EQ(Do({.method = "DELETE", .path = "/" + name}).response.status, 204);
  EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = "/" + name})), "404 NoSuchBucket");
  for (const char* const bad : {"ab", "Upper", "a..b", "-abc", "a_b"}) {
    EXPECT_EQ(Outcome(Do({.method = "PUT", .path = std::string("/") + bad})), "400 InvalidBucketName") << bad;
  }
}

TEST_F(S3ServerTest, SaysWhatItDoesNotHave) {
  PutKey("k", "x");
  const S3Call calls[] = {
      {.method = "PUT", .path = "/" + bucket_, .query = "policy", .body = "{}"},
      {.method = "PUT", .path = "/" + bucket_, .query = "versioning", .body = "x"},
      {.method = "GET", .path = "/" + bucket_, .query = "analytics"},
      {.method = "DELETE", .path = "/" + bucket_, .query = "versioning"},
      {.method = "PUT", .path = PathOf("k"), .query = "tagging", .body = "x"},
      {.method = "GET", .path = PathOf("k"), .query = "torrent"},
      {.method = "PUT", .path = "/other-bucket", .headers = {{"x-amz-acl", "public-read"}}},
      {.method = "PUT", .path = PathOf("copy"), .headers = {{"x-amz-copy-source", "/" + bucket_ + "/k?versionId=3"}}},
      {.method = "PUT", .path = PathOf("k"), .body = "y", .headers = {{"x-amz-server-side-encryption", "AES256"}}},
      {.method = "PUT", .path = PathOf("k"), .body = "y", .headers = {{"x-amz-acl", "public-read"}}},
      {.method = "PATCH", .path = PathOf("k")},
  };
  for (const S3Call& call : calls) {
    const FakeAnswer answer = Do(call);
    EXPECT_EQ(Outcome(answer), "501 NotImplemented") << call.method << " " << call.path << "?" << call.query;
    EXPECT_FALSE(Values(answer.body, "Message").at(0).empty());
  }
  EXPECT_EQ(GetKey("k").body, "x");
  EXPECT_EQ(Outcome(GetKey("copy")), "404 NoSuchKey");
}

TEST_F(S3ServerTest, SaysThatNothingIsSet) {
  PutKey("k", "x");
  const std::pair<const char*, const char*> of_bucket[] = {
      {"cors", "404 NoSuchCORSConfiguration"},
      {"policy", "404 NoSuchBucketPolicy"},
      {"encryption", "404 ServerSideEncryptionConfigurationNotFoundError"},
      {"lifecycle", "404 NoSuchLifecycleConfiguration"},
      {"object-lock", "404 ObjectLockConfigurationNotFoundError"},
      {"ownershipControls", "404 OwnershipControlsNotFoundError"},
      {"publicAccessBlock", "404 NoSuchPublicAccessBlockConfiguration"},
      {"replication", "404 ReplicationConfigurationNotFoundError"},
      {"tagging", "404 NoSuchTagSet"},
      {"website", "404 NoSuchWebsiteConfiguration"},
      {"versioning", "200"},
      {"logging", "200"},
      {"notification", "200"},
      {"accelerate", "200"},
      {"requestPayment", "200"}};
  for (const auto& [feature, outcome] : of_bucket) {
    const FakeAnswer answer = Do({.method = "GET", .path = "/" + bucket_, .query = feature});
    EXPECT_EQ(Outcome(answer), outcome) << feature;
    EXPECT_EQ(answer.body.find("<Message></Message>"), std::string::npos) << feature;
    EXPECT_EQ(Outcome(Do({.method = "GET", .path = "/no-such-bucket", .query = feature})), "404 NoSuchBucket");
  }
  EXPECT_NE(Do({.method = "GET", .path = "/" + bucket_, .query = "versioning"}).body.find("<VersioningConfiguration "),
            std::string::npos);
  EXPECT_NE(Do({.method = "GET", .path = PathOf("k"), .query = "tagging"}).body.find("<TagSet></TagSet>"),
            std::string::npos);
  EXPECT_EQ(Outcome(Do({.method = "GET", .path = PathOf("k"), .query = "retention"})),
            "404 NoSuchObjectLockConfiguration");
  EXPECT_EQ(Outcome(Do({.method = "GET", .path = PathOf("none"), .query = "tagging"})), "404 NoSuchKey");
}

TEST_F(S3ServerTest, RemovesSettingsThatAreNotThereAndNothingElse) {
  PutKey("k", "x");
  for (const char* const feature : {"cors", "policy", "lifecycle", "tagging", "website", "encryption"}) {
    EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = "/" + bucket_, .query = feature})), "204") << feature;
  }
  EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = PathOf("k"), .query = "tagging"})), "204");
  EXPECT_EQ(GetKey("k").body, "x");
}

TEST_F(S3ServerTest, ShowsAndKeepsAPrivateAcl) {
  PutKey("k", "x");
  for (const std::string& path : {"/" + bucket_, PathOf("k")}) {
    const FakeAnswer acl = Do({.method = "GET", .path = path, .query = "acl"});
    EXPECT_EQ(Values(acl.body, "Permission"), std::vector<std::string>{"FULL_CONTROL"});
    EXPECT_EQ(Values(acl.body, "ID"), (std::vector<std::string>{"admin", "admin"}));
    EXPECT_NE(acl.body.find("xsi:type=\"CanonicalUser\""), std::string::npos);
    const auto put = [&](const std::string& body, const TansyNet::Headers& headers) {
      return Outcome(Do({.method = "PUT", .path = path, .query = "acl", .body = body, .headers = headers}));
    };
    EXPECT_EQ(put(acl.body, {}), "200") << "what was shown may be written";
    EXPECT_EQ(put("", {{"x-amz-acl", "private"}}), "200");
    EXPECT_EQ(put("", {{"x-amz-acl", "public-read"}}), "501 NotImplemented");
    EXPECT_EQ(put("", {{"x-amz-grant-read", "id=you"}}), "501 NotImplemented");
    std::string with_more = acl.body;
    with_more.insert(with_more.find("</AccessControlList>"),
                     "<Grant><Grantee><URI>everybody</URI></Grantee><Permission>READ</Permission></Grant>");
    EXPECT_EQ(put(with_more, {}), "501 NotImplemented");
    EXPECT_EQ(put("no xml", {}), "400 MalformedXML");
  }
  EXPECT_EQ(Outcome(Do({.method = "GET", .path = PathOf("none"), .query = "acl"})), "404 NoSuchKey");
}

TEST_F(S3ServerTest, TakesLinksOfVersion2UnlessToldNotTo) {
  PutKey("k", "hello");
  const std::string expires = std::to_string(kNow + 60);
  const std::string signature = SignHmacSha1("GET\n\n\n" + expires + "\n" + PathOf("k"), "secret-key");
  const std::string query = "AWSAccessKeyId=access-key&Expires=" + expires + "&Signature=" + PercentEncode(signature);
  EXPECT_EQ(Do(Message({"GET", PathOf("k"), query, {}, {}})).body, "hello");
  EXPECT_EQ(Outcome(Do(Message({"DELETE", PathOf("k"), query, {}, {}}))), "403 SignatureDoesNotMatch");
  S3ServerConfig config = S3Config();
  config.v2_links = false;
  CS3Server::Instance().Init(config);
  EXPECT_EQ(Outcome(Do(Message({"GET", PathOf("k"), query, {}, {}}))), "400 InvalidRequest");
}

TEST_F(S3ServerTest, TakesTheBucketFromTheHostName) {
  S3ServerConfig config = S3Config();
  config.domain = "s3.example.org";
  CS3Server::Instance().Init(config);
  const auto with_host = [](S3Call call, const std::string& host) {
    call.headers["Host"] = host;
    return call;
  };
  const std::string host = bucket_ + ".S3.example.org:9702";
  EXPECT_EQ(Outcome(Do(with_host({.method = "PUT", .path = "/a/b", .body = "hello"}, host))), "200");
  EXPECT_EQ(Do(with_host({.method = "GET", .path = "/a/b"}, host)).body, "hello");
  EXPECT_EQ(GetKey("a/b").body, "hello") << "the path style goes on";
  EXPECT_EQ(Values(Do(with_host({.method = "GET", .path = "/", .query = "list-type=2"}, host)).body, "Key"),
            std::vector<std::string>{"a/b"});
  EXPECT_FALSE(Values(Do(with_host({.method = "GET", .path = "/"}, "s3.example.org")).body, "Buckets").empty());
  EXPECT_EQ(Outcome(Do(with_host({.method = "GET", .path = "/a/b"}, "none.s3.example.org"))), "404 NoSuchBucket");
}

TEST_F(S3ServerTest, EachAnswerAndTheLogHaveTheIdOfTheRequest) {
  const FakeAnswer put = PutKey("k", "hello");
  const FakeAnswer missing = GetKey("none");
  for (const FakeAnswer& answer : {put, missing}) {
    const std::string id = answer.response.headers.at("x-amz-request-id");
    EXPECT_EQ(id.size(), 16U);
    const auto lines = log_->Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [&id](const Tests::LogLine& line) { return line.text.find(id) != std::string::npos; }));
  }
  EXPECT_NE(put.response.headers.at("x-amz-request-id"), missing.response.headers.at("x-amz-request-id"));
  const std::int32_t handle = http_.NewHandle();
  CS3Server::Instance().EndRequest(handle, EError::kSlowDown);
  EXPECT_EQ(http_.WaitForAnswer(handle).response.headers.at("x-amz-request-id").size(), 16U);
}

TEST_F(S3ServerTest, RefusesWhatIsNotSigned) {
  EXPECT_EQ(Outcome(Do(Message({"GET", "/", {}, {}, {}}))), "403 AccessDenied");
  TansyNet::HttpServerRecv msg = SignedCall({.method = "GET", .path = PathOf("k")});
  msg.url += "x";
  const FakeAnswer answer = Do(std::move(msg));
  EXPECT_EQ(Outcome(answer), "403 SignatureDoesNotMatch");
  EXPECT_EQ(Values(answer.body, "RequestId").at(0), answer.response.headers.at("x-amz-request-id"));
}

TEST_F(S3ServerTest, TakesKeysOfAnyByte) {
  std::vector<std::string> expected;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string key = std::string("k") + static_cast<char>(byte);
    ASSERT_EQ(Outcome(PutKey(key, std::to_string(byte))), "200") << byte;
    EXPECT_EQ(GetKey(key).body, std::to_string(byte));
    expected.push_back(PercentEncodePath(key));
  }
  EXPECT_EQ(Values(List("list-type=2&encoding-type=url").body, "Key"), expected) << "in the order of their bytes";
  for (int byte = 0; byte < 256; ++byte) {
    const std::string key = std::string("k") + static_cast<char>(byte);
    EXPECT_EQ(Do({.method = "DELETE", .path = PathOf(key)}).response.status, 204);
  }
  EXPECT_TRUE(Values(List("").body, "Key").empty());
}

// A client goes on behind the last key of a page as it has read it.
TEST_F(S3ServerTest, PagesOverKeysThatXmlCannotCarry) {
  std::vector<std::string> readable;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string key = std::string("k") + static_cast<char>(byte);
    ASSERT_EQ(Outcome(PutKey(key, "x")), "200") << byte;
    if (byte == '\t' || byte == '\n' || byte == '\r' || (byte >= 0x20 && byte < 0x80)) {
      readable.push_back(PercentEncodePath(key));
    }
  }
  for (const bool with_versions : {false, true}) {
    const std::string kind = with_versions ? "versions&key-marker=" : "marker=";
    std::vector<std::string> shown;
    std::string marker;
    // The 128 keys at the end, which are no UTF-8, are one page that is not truncated.
    for (int page = 0; page < 300; ++page) {
      const FakeAnswer answer = List(kind + PercentEncode(marker) + "&max-keys=130");
      ASSERT_EQ(Outcome(answer), "200");
      for (std::string key : Values(answer.body, "Key")) {
        key = key == "k&quot;"  ? "k\""
              : key == "k&amp;" ? "k&"
              : key == "k&lt;"  ? "k<"
              : key == "k&gt;"  ? "k>"
              : key == "k&#13;" ? "k\r"
                                : key;
        marker = key;
        shown.push_back(PercentEncodePath(key));
      }
      if (Values(answer.body, "IsTruncated").at(0) == "false") {
        break;
      }
    }
    EXPECT_EQ(shown.size(), 256U) << "each key is shown once";
    std::erase_if(shown, [](const std::string& key) { return key == PercentEncodePath("k\xEF\xBF\xBD"); });
    EXPECT_EQ(shown, readable);
  }
  EXPECT_EQ(Outcome(List("marker=k%80&max-keys=5")), "400 InvalidRequest") << "no key of this page can be carried";
  EXPECT_EQ(Values(List("marker=k%80&max-keys=2&encoding-type=url").body, "Key"),
            (std::vector<std::string>{"k%81", "k%82"}));
}

TEST_F(S3ServerTest, ListsOneVersionOfEachObject) {
  PutKey("a", "x");
  PutKey("b/1", "xx");
  PutKey("b/2", "x");
  const FakeAnswer all = List("versions");
  EXPECT_EQ(Values(all.body, "Key"), (std::vector<std::string>{"a", "b/1", "b/2"}));
  EXPECT_EQ(Values(all.body, "VersionId"), (std::vector<std::string>{"null", "null", "null"}));
  EXPECT_EQ(Values(all.body, "IsLatest"), (std::vector<std::string>{"true", "true", "true"}));
  EXPECT_EQ(Values(all.body, "Size"), (std::vector<std::string>{"1", "2", "1"}));
  EXPECT_NE(all.body.find("<ListVersionsResult "), std::string::npos);
  const FakeAnswer page = List("versions&max-keys=1&delimiter=%2F");
  EXPECT_EQ(Values(page.body, "NextKeyMarker"), std::vector<std::string>{"a"});
  EXPECT_EQ(Values(page.body, "NextVersionIdMarker"), std::vector<std::string>{"null"});
  const FakeAnswer rest = List("versions&delimiter=%2F&key-marker=a&version-id-marker=null");
  EXPECT_EQ(Values(rest.body, "Key"), std::vector<std::string>{});
  EXPECT_NE(rest.body.find("<CommonPrefixes><Prefix>b/</Prefix>"), std::string::npos);
  EXPECT_EQ(Outcome(List("versions&version-id-marker=null")), "400 InvalidArgument");
  // What is listed so can be removed so.
  const std::string list =
      "<Delete><Object><Key>a</Key><VersionId>null</VersionId></Object>"
      "<Object><Key>b/1</Key><VersionId>1</VersionId></Object></Delete>";
  const FakeAnswer removed = Do({.method = "POST", .path = "/" + bucket_, .query = "delete", .body = list});
  EXPECT_EQ(Values(removed.body, "Code"), std::vector<std::string>{"NotImplemented"});
  EXPECT_EQ(Outcome(Do({.method = "DELETE", .path = PathOf("b/1"), .query = "versionId=null"})), "204");
  EXPECT_EQ(Values(List("versions").body, "Key"), std::vector<std::string>{"b/2"});
}

TEST_F(S3ServerTest, GivesTheFirstPartOfAnObjectThatHasNone) {
  PutKey("k", "hello");
  const FakeAnswer got = GetKey("k", {}, "partNumber=1");
  EXPECT_EQ(got.response.status, 206);
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("Content-Range"), "bytes 0-4/5");
  EXPECT_EQ(got.response.headers.count("x-amz-mp-parts-count"), 0U);
  EXPECT_EQ(Outcome(GetKey("k", {}, "partNumber=2")), "416 InvalidPartNumber");
  PutKey("empty", "");
  EXPECT_EQ(Outcome(GetKey("empty", {}, "partNumber=1")), "200");
  for (const char* const version : {"versionId=", "versionId", "versionId=null"}) {
    EXPECT_EQ(GetKey("k", {}, version).body, "hello") << version;
  }
  EXPECT_EQ(Outcome(GetKey("k", {}, "versionId=3")), "501 NotImplemented");
}

TEST_F(S3ServerTest, TellsTheAttributesOfAnObject) {
  PutKey("k", "hello");
  const auto ask = [this](const std::string& key, const TansyNet::Headers& headers) {
    return Do({.method = "GET", .path = PathOf(key), .query = "attributes", .headers = headers});
  };
  const FakeAnswer told = ask("k", {{"x-amz-object-attributes", "ETag,ObjectSize"}});
  EXPECT_EQ(Outcome(told), "200");
  EXPECT_EQ(Values(told.body, "ETag"), std::vector<std::string>{ToHex(DigestOf(EDigest::kMd5, "hello"))});
  EXPECT_EQ(Values(told.body, "ObjectSize"), std::vector<std::string>{"5"});
  EXPECT_EQ(Values(told.body, "StorageClass"), std::vector<std::string>{}) << "nobody asked";
  EXPECT_EQ(told.response.headers.at("Last-Modified"), "Tue, 03 Nov 2026 08:00:00 GMT");
  EXPECT_EQ(Values(ask("k", {{"x-amz-object-attributes", "ObjectParts"}}).body, "PartsCount").size(), 0U);
  EXPECT_EQ(Outcome(ask("k", {})), "400 InvalidArgument");
  EXPECT_EQ(Outcome(ask("none", {{"x-amz-object-attributes", "ETag"}})), "404 NoSuchKey");
}

// Libraries put the headers of an upload into the query of the link that they make for it.
TEST_F(S3ServerTest, TakesTheHeadersInTheQueryOfALink) {
  const auto link = [this](const std::string& more) {
    TansyNet::HttpServerRecv msg = Message({"PUT", PathOf("k"), {}, "hello", {}});
    msg.headers["Host"] = "127.0.0.1:9702";
    const std::string scope = std::string(kDay) + "/us-east-1/s3/aws4_request";
    msg.query = "X-Amz-Algorithm=AWS4-HMAC-SHA256&X-Amz-Credential=" + PercentEncode("access-key/" + scope) +
                "&X-Amz-Date=" + kTimestamp + "&X-Amz-Expires=60&X-Amz-SignedHeaders=host" + more;
    const Query query = ParseQuery(msg.query);
    const LowerHeaders headers = LowerNames(msg.headers);
    const std::string canonical = CanonicalRequest({msg.method, msg.url, query, headers}, {"host"}, "UNSIGNED-PAYLOAD");
    msg.query += "&X-Amz-Signature=" +
                 Sign(SigningKey("secret-key", kDay, "us-east-1"), StringToSign(kTimestamp, scope, canonical));
    return msg;
  };
  EXPECT_EQ(Outcome(Do(link("&x-amz-meta-title=a%20b&X-Amz-Meta-Other=2"))), "200");
  const FakeAnswer got = GetKey("k");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("x-amz-meta-title"), "a b");
  EXPECT_EQ(got.response.headers.at("x-amz-meta-other"), "2");
  EXPECT_EQ(Outcome(Do(link("&x-amz-acl=public-read"))), "501 NotImplemented");
  EXPECT_EQ(Outcome(Do(link("&x-amz-checksum-crc32=AAAAAA%3D%3D"))), "400 BadDigest");
  TansyNet::HttpServerRecv added = link("");
  added.query += "&x-amz-meta-title=c";
  EXPECT_EQ(Outcome(Do(std::move(added))), "403 SignatureDoesNotMatch");
}

// Nobody signed the rest of such a query: a link to upload must not become one that copies.
TEST_F(S3ServerTest, TakesNoHeadersInTheQueryOfALinkOfVersion2) {
  PutKey("secret", "secret");
  const std::string expires = std::to_string(kNow + 60);
  const std::string signature = SignHmacSha1("PUT\n\n\n" + expires + "\n" + PathOf("k"), "secret-key");
  const std::string query = "AWSAccessKeyId=access-key&Expires=" + expires + "&Signature=" + PercentEncode(signature) +
                            "&X-Amz-Signature=x&x-amz-meta-a=1&x-amz-copy-source=" + PercentEncode(PathOf("secret"));
  EXPECT_EQ(Outcome(Do(Message({"PUT", PathOf("k"), query, "hello", {}}))), "200");
  EXPECT_EQ(GetKey("k").body, "hello");
  EXPECT_EQ(GetKey("k").response.headers.count("x-amz-meta-a"), 0U);
}

TEST_F(S3ServerTest, SaysThatTheServerIsFull) {
  storage_.SetResult("save", 3);
  EXPECT_EQ(Outcome(PutKey("k", "x")), "507 NotEnoughSpace");
  storage_.SetResult("save", 1);
  EXPECT_EQ(Outcome(PutKey("k", "x")), "500 InternalError");
  storage_.SetResult("save", 0);
  const auto stream = [this] {
    return Outcome(Stream(SignedCall({.method = "PUT", .path = PathOf("k")}), Pattern(11 * kMebibyte)));
  };
  storage_.SetResult("stream", 3);
  EXPECT_EQ(stream(), "507 NotEnoughSpace");
  storage_.SetResult("stream", 1);
  EXPECT_EQ(stream(), "500 InternalError");
  storage_.SetResult("stream", 0);
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
}

TEST_F(S3ServerTest, RefusesTooManyKeysToDelete) {
  PutKey("k", "x");
  const auto remove = [this](int count) {
    std::string list = "<Delete>";
    for (int i = 0; i < count; ++i) {
      list += "<Object><Key>k</Key></Object>";
    }
    return Outcome(Do({.method = "POST", .path = "/" + bucket_, .query = "delete", .body = list + "</Delete>"}));
  };
  EXPECT_EQ(remove(1000001), "400 MalformedXML");
  EXPECT_EQ(remove(1001), "400 MalformedXML");
  EXPECT_EQ(GetKey("k").body, "x") << "nothing is removed";
  EXPECT_EQ(remove(1000), "200");
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
}

TEST_F(S3ServerTest, StoresAForm) {
  const TansyNet::HttpServerRecv empty = Message({"POST", "/" + bucket_, {}, {}, {}});
  const FakeAnswer plain = Do(Form(empty, bucket_, "hello", {{"key", "up/${filename}"}, {"Content-Type", "text/x-y"}}));
  EXPECT_EQ(Outcome(plain), "204") << plain.body;
  EXPECT_EQ(plain.response.headers.at("ETag"), Md5("hello"));
  const FakeAnswer got = GetKey("up/a.txt");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("Content-Type"), "text/x-y");
  const FakeAnswer told = Do(Form(empty, bucket_, "again", {{"key", "k"}, {"success_action_status", "201"}}));
  EXPECT_EQ(told.response.status, 201);
  EXPECT_EQ(Values(told.body, "Location"), std::vector<std::string>{PathOf("k")});
  EXPECT_EQ(GetKey("k").body, "again");
  const FakeAnswer sent_on =
      Do(Form(empty, bucket_, "third", {{"key", "k"}, {"success_action_redirect", "https://a.org/done"}}));
  EXPECT_EQ(sent_on.response.status, 303);
  EXPECT_EQ(sent_on.response.headers.at("Location"),
            "https://a.org/done?bucket=" + bucket_ + "&key=k&etag=" + PercentEncode(Md5("third")));
}

TEST_F(S3ServerTest, AFormReplacesWhatTheObjectProtocolStoredUnderAnotherName) {
  ASSERT_EQ(Put("/" + bucket_ + "/r(1)", "by name").response.status, 200);
  const TansyNet::HttpServerRecv empty = Message({"POST", "/" + bucket_, {}, {}, {}});
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "by form", {{"key", "r(1)"}}))), "204");
  EXPECT_EQ(GetKey("r(1)").body, "by form");
  EXPECT_EQ(Get("/" + bucket_ + "/r(1)").body, "by form");
  EXPECT_EQ(Values(List("").body, "Key"), std::vector<std::string>{"r(1)"});
}

TEST_F(S3ServerTest, RefusesFormsThatAreNotAllowed) {
  const TansyNet::HttpServerRecv empty = Message({"POST", "/" + bucket_, {}, {}, {}});
  EXPECT_EQ(Outcome(Do(Form(empty, "another", "x", {{"key", "k"}}))), "403 AccessDenied");
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "x", {{"acl", "private"}}))), "400 InvalidArgument") << "no key";
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "x", {{"key", "k"}, {"acl", "public-read"}}))), "501 NotImplemented");
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "x", {{"key", std::string(1025, 'k')}}))), "400 KeyTooLongError");
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "x", {{"key", "k"}, {"Content-MD5", "AAAAAAAAAAAAAAAAAAAAAA=="}}))),
            "400 BadDigest");
  const TansyNet::HttpServerRecv nowhere = Message({"POST", "/no-such-bucket", {}, {}, {}});
  EXPECT_EQ(Outcome(Do(Form(nowhere, "no-such-bucket", "x", {{"key", "k"}}))), "404 NoSuchBucket");
  Database().FailStatementsWith("INSERT INTO platform.local_object ");
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "x", {{"key", "k"}}))), "500 InternalError");
  Database().Heal();
  EXPECT_EQ(Outcome(GetKey("k")), "404 NoSuchKey");
}

// Browsers send such a form when nobody has chosen a file.
TEST_F(S3ServerTest, AFormWithoutAFileStoresNothing) {
  const TansyNet::HttpServerRecv empty = Message({"POST", "/" + bucket_, {}, {}, {}});
  EXPECT_EQ(Outcome(Do(Form(empty, bucket_, "", {{"key", "${filename}"}}, ""))), "400 InvalidArgument");
  EXPECT_EQ(Outcome(Do({"DELETE", "/" + bucket_, {}, {}, {}})), "204") << "the bucket is empty";
}

TEST_F(S3ServerTest, RefusesAFormWhoseChecksumIsEmpty) {
  const TansyNet::HttpServerRecv empty = Message({"POST", "/" + bucket_, {}, {}, {}});
  const FakeAnswer answer = Do(Form(empty, bucket_, "x", {{"key", "k"}, {"x-amz-checksum-sha256", ""}}));
  EXPECT_EQ(Outcome(answer), "400 InvalidRequest");
}

TEST_F(S3ServerTest, LetsPagesOfListedOriginsUseIt) {
  S3ServerConfig config = S3Config();
  config.cors_origins = {"https://a.org"};
  CS3Server::Instance().Init(config);
  const TansyNet::Headers question = {{"Origin", "https://a.org"},
                                      {"Access-Control-Request-Method", "PUT"},
                                      {"Access-Control-Request-Headers", "content-type,x-amz-meta-a"}};
  const FakeAnswer may = Do(Message({"OPTIONS", PathOf("k"), {}, {}, question}));
  EXPECT_EQ(may.response.status, 200);
  EXPECT_EQ(may.response.headers.at("Access-Control-Allow-Origin"), "https://a.org");
  EXPECT_NE(may.response.headers.at("Access-Control-Allow-Methods").find("PUT"), std::string::npos);
  EXPECT_EQ(may.response.headers.at("Access-Control-Allow-Headers"), "content-type,x-amz-meta-a");
  PutKey("k", "hello");
  for (const char* const key : {"k", "none"}) {
    const FakeAnswer got = GetKey(key, {{"Origin", "https://a.org"}});
    EXPECT_EQ(got.response.headers.at("Access-Control-Allow-Origin"), "https://a.org") << key;
    EXPECT_NE(got.response.headers.at("Access-Control-Expose-Headers").find("ETag"), std::string::npos);
    EXPECT_EQ(got.response.headers.at("Vary"), "Origin");
  }
  EXPECT_FALSE(GetKey("k", {{"Origin", "https://b.org"}}).response.headers.contains("Access-Control-Allow-Origin"));
  EXPECT_FALSE(GetKey("k").response.headers.contains("Access-Control-Allow-Origin"));
  EXPECT_EQ(
      Outcome(Do(Message(
          {"OPTIONS", PathOf("k"), {}, {}, {{"Origin", "https://b.org"}, {"Access-Control-Request-Method", "PUT"}}}))),
      "403 AccessDenied");
  config.cors_origins = {"*"};
  CS3Server::Instance().Init(config);
  EXPECT_EQ(GetKey("k", {{"Origin", "https://b.org"}}).response.headers.at("Access-Control-Allow-Origin"), "*");
}

TEST_F(S3ServerTest, LetsPagesFromItsOwnHostUseItByTheirPort) {
  PutKey("k", "hello");
  const auto readers = [this](const std::string& host, const std::string& origin) {
    const TansyNet::Headers headers = GetKey("k", {{"Host", host}, {"Origin", origin}}).response.headers;
    const auto found = headers.find("Access-Control-Allow-Origin");
    return found == headers.end() ? std::string() : found->second;
  };
  EXPECT_EQ(readers("nas:9702", "http://nas:9703"), "") << "nobody has set a port";
  EXPECT_EQ(SetS3PagePort(9703), 0);
  for (const auto& [host, origin] :
       std::vector<std::pair<std::string, std::string>>{{"nas:9702", "http://nas:9703"},
                                                        {"nas:9702", "https://nas:9703"},
                                                        {"Nas", "http://nas:9703"},
                                                        {"[::1]:9702", "http://[::1]:9703"}}) {
    EXPECT_EQ(readers(host, origin), origin);
  }
  for (const char* origin : {"http://evil:9703", "http://nas:9702", "http://nas", "http://nas:97031", "ftp://nas:9703",
                             "http://nas:9703/", "null", "http://nas.evil:9703", "nas:9703"}) {
    EXPECT_EQ(readers("nas:9702", origin), "") << origin;
  }
  SetS3PagePort(443);
  EXPECT_EQ(readers("nas:9745", "https://nas"), "https://nas") << "browsers leave usual ports out";
  EXPECT_EQ(readers("nas:9745", "https://nas:443"), "");
  EXPECT_EQ(readers("nas:9745", "http://nas:443"), "http://nas:443");
  SetS3PagePort(0);
  EXPECT_EQ(readers("nas:9702", "http://nas"), "");
  EXPECT_EQ(readers("nas:9702", "http://nas:0"), "");
}

// Whoever reads gets the bytes of one upload, with the tag of these bytes.
TEST_F(S3ServerTest, BothProtocolsWorkOnTheSameKeysAtOnce) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 80;
  const std::string base = "/" + bucket_ + "/";
  std::atomic<int> torn{0};
  std::atomic<int> failed{0};
  const auto check = [&](const FakeAnswer& answer) {
    if (answer.response.status == 200) {
      torn += answer.response.headers.at("ETag") == Md5(answer.body) ? 0 : 1;
    } else {
      failed += answer.response.status == 404 ? 0 : 1;
    }
  };
  const auto work = [&](int thread) {
    std::mt19937 random(static_cast<unsigned>(thread));
    for (int round = 0; round < kRounds; ++round) {
      const std::string key(1, "abc"[random() % 3]);
      const std::string body = std::to_string(thread) + "-" + std::to_string(round) + std::string(random() % 300, 'x');
      switch (random() % 8) {
        case 0:
        case 1:
          failed += PutKey(key, body, {{"Content-Type", body.substr(0, 3)}}).response.status == 200 ? 0 : 1;
          break;
        case 2:
        case 3:
          failed += Put(base + key, body).response.status == 200 ? 0 : 1;
          break;
        case 4:
          check(GetKey(key));
          break;
        case 5:
          failed += Outcome(List("list-type=2")) == "200" ? 0 : 1;
          break;
        case 6:
          failed += Do({.method = "DELETE", .path = PathOf(key)}).response.status == 204 ? 0 : 1;
          break;
        default:
          if (const int status = Delete(base + key, random() % 2 == 0 ? "deletefile" : "").response.status;
              status != 404) {
            failed += status == 200 ? 0 : 1;
          }
      }
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(work, i);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(failed, 0);
  std::vector<std::string> tags;
  for (const std::string& key : Values(List("").body, "Key")) {
    const FakeAnswer got = GetKey(key);
    EXPECT_EQ(got.response.headers.at("ETag"), Md5(got.body));
    EXPECT_EQ(Get(base + key).body, got.body);
    tags.push_back(ToHex(DigestOf(EDigest::kMd5, got.body)));
  }
  std::vector<std::string> kept = KeptTags();
  std::sort(tags.begin(), tags.end());
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, tags) << "memory and database agree";
}

TEST_F(S3ServerTest, RefusesKeysThatAreTooLong) {
  EXPECT_EQ(Outcome(PutKey(std::string(1024, '/'), "x")), "200");
  EXPECT_EQ(GetKey(std::string(1024, '/')).body, "x");
  EXPECT_EQ(Outcome(PutKey(std::string(1025, 'k'), "x")), "400 KeyTooLongError");
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
