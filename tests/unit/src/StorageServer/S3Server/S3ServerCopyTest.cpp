// Copies, over the catalogue in memory, a storage in memory and the fake HTTP library.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "S3ServerFixture.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/S3Server/S3CopySource.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage::S3 {
namespace {

using Texts = std::vector<std::string>;

class S3CopyTest : public S3ServerTest {
 protected:
  FakeAnswer Copy(const std::string& from, const std::string& to, TansyNet::Headers headers = {},
                  const std::string& query = {}) {
    headers.try_emplace("x-amz-copy-source", PathOf(from));
    return Do({.method = "PUT", .path = PathOf(to), .query = query, .headers = headers});
  }
  std::string Begin(const std::string& key, const TansyNet::Headers& headers = {}) {
    return Values(Do({.method = "POST", .path = PathOf(key), .query = "uploads", .headers = headers}).body, "UploadId")
        .at(0);
  }
};

TEST_F(S3CopyTest, CopiesBytesAndMetadata) {
  PutKey("a b", "hello", {{"Content-Type", "text/x"}, {"x-amz-meta-m", "1"}});
  const FakeAnswer copied = Copy("a b", "c/d");
  EXPECT_EQ(Outcome(copied), "200");
  EXPECT_EQ(Values(copied.body, "ETag").at(0), "&quot;" + ToHex(DigestOf(EDigest::kMd5, "hello")) + "&quot;");
  EXPECT_EQ(Values(copied.body, "LastModified"), Texts{"2026-11-03T08:00:00.000Z"});
  const FakeAnswer got = GetKey("c/d");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("hello"));
  EXPECT_EQ(got.response.headers.at("Content-Type"), "text/x");
  EXPECT_EQ(got.response.headers.at("x-amz-meta-m"), "1");
  EXPECT_EQ(Do({.method = "DELETE", .path = PathOf("a b")}).response.status, 204);
  EXPECT_EQ(GetKey("c/d").body, "hello") << "a copy has bytes of its own";
}

TEST_F(S3CopyTest, CopiesToAnotherBucketAndReplacesMetadata) {
  const std::string other = NewBucket();
  PutKey("k", "hello", {{"Content-Type", "text/x"}, {"x-amz-meta-m", "1"}});
  const FakeAnswer copied = Do({.method = "PUT",
                                .path = "/" + other + "/new",
                                .headers = {{"x-amz-copy-source", bucket_ + "/k?versionId=null"},
                                            {"x-amz-metadata-directive", "REPLACE"},
                                            {"x-amz-tagging-directive", "COPY"},
                                            {"x-amz-meta-n", "2"}}});
  EXPECT_EQ(Outcome(copied), "200");
  const FakeAnswer got = Do({.method = "GET", .path = "/" + other + "/new"});
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.count("x-amz-meta-m"), 0U);
  EXPECT_EQ(got.response.headers.at("x-amz-meta-n"), "2");
}

TEST_F(S3CopyTest, CopiesAnObjectOfAnySize) {
  for (const std::size_t size : {std::size_t{0}, 4 * kMebibyte, 4 * kMebibyte + 1, 11 * kMebibyte}) {
    const std::string body = Pattern(size);
    NewObject(bucket_, "from", body);
    EXPECT_EQ(Outcome(Copy("from", "to")), "200") << size;
    std::string got;
    http_.TakeChunks([&got](std::string_view chunk) { got += chunk; });
    const FakeAnswer answer = GetKey("to");
    http_.TakeChunks(nullptr);
    EXPECT_TRUE((size > 10 * kMebibyte ? got : answer.body) == body) << size;
    EXPECT_EQ(answer.response.headers.at("ETag"), Md5(body)) << size;
  }
}

TEST_F(S3CopyTest, ReplacesTheMetadataOfAnObjectInItsPlace) {
  PutKey("k", "hello", {{"x-amz-meta-m", "1"}});
  EXPECT_EQ(Outcome(Copy("k", "k")), "400 InvalidRequest");
  EXPECT_EQ(Outcome(Copy("k", "k", {{"x-amz-metadata-directive", "REPLACE"}, {"x-amz-meta-n", "2"}})), "200");
  const FakeAnswer got = GetKey("k");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("hello"));
  EXPECT_EQ(got.response.headers.count("x-amz-meta-m"), 0U);
  EXPECT_EQ(got.response.headers.at("x-amz-meta-n"), "2");
  EXPECT_EQ(storage_.Calls("save").size(), 1U) << "the bytes stay where they are";
}

// What stands for a tag until it is known must not become the tag for ever.
TEST_F(S3CopyTest, ReplacesTheMetadataOfAnotherProtocolsObject) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{5}, 5 * kMebibyte}) {
    const std::string key = "ours-" + std::to_string(size);
    const std::string body = Pattern(size);
    NewObject(bucket_, key, body);
    const FakeAnswer copied = Copy(key, key, {{"x-amz-metadata-directive", "REPLACE"}, {"x-amz-meta-n", "2"}});
    EXPECT_EQ(Outcome(copied), "200");
    EXPECT_EQ(Values(copied.body, "ETag").at(0), "&quot;" + ToHex(DigestOf(EDigest::kMd5, body)) + "&quot;") << size;
    const FakeAnswer got = GetKey(key);
    EXPECT_EQ(got.response.headers.at("ETag"), Md5(body)) << size;
    EXPECT_EQ(got.response.headers.at("x-amz-meta-n"), "2");
    EXPECT_TRUE(got.body == body);
  }
  NewObject(bucket_, "ours", "hello");
  storage_.SetResult("range", 1);
  EXPECT_EQ(Outcome(Copy("ours", "ours", {{"x-amz-metadata-directive", "REPLACE"}})), "500 InternalError");
  storage_.SetResult("range", 0);
  EXPECT_EQ(KeptTags().size(), 3U) << "of those before";
}

TEST_F(S3CopyTest, TakesACopyToAnotherStorageClassInItsPlace) {
  PutKey("k", "hello", {{"x-amz-meta-m", "1"}});
  EXPECT_EQ(Outcome(Copy("k", "k", {{"x-amz-storage-class", "STANDARD_IA"}})), "200");
  const FakeAnswer got = GetKey("k");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5("hello"));
  EXPECT_EQ(got.response.headers.at("x-amz-meta-m"), "1");
}

TEST_F(S3CopyTest, AsksTheConditionsOfTheSource) {
  PutKey("k", "hello");
  const auto with = [&](const std::string& name, const std::string& value) {
    return Outcome(Copy("k", "to", {{"x-amz-copy-source-if-" + name, value}}));
  };
  EXPECT_EQ(with("match", Md5("hello")), "200");
  EXPECT_EQ(with("match", Md5("other")), "412 PreconditionFailed");
  EXPECT_EQ(with("none-match", Md5("hello")), "412 PreconditionFailed");
  EXPECT_EQ(with("none-match", Md5("other")), "200");
  EXPECT_EQ(with("modified-since", "Tue, 03 Nov 2026 08:00:00 GMT"), "412 PreconditionFailed");
  EXPECT_EQ(with("modified-since", "Tue, 03 Nov 2026 07:59:59 GMT"), "200");
  EXPECT_EQ(with("unmodified-since", "Tue, 03 Nov 2026 07:59:59 GMT"), "412 PreconditionFailed");
  EXPECT_EQ(Outcome(Copy("k", "to", {{"If-None-Match", "*"}})), "412 PreconditionFailed");
}

TEST_F(S3CopyTest, RefusesSourcesThatAreNone) {
  PutKey("k", "hello");
  const auto from = [&](const std::string& source) {
    return Outcome(Copy("k", "to", {{"x-amz-copy-source", source}}));
  };
  EXPECT_EQ(from("/" + bucket_ + "/none"), "404 NoSuchKey");
  EXPECT_EQ(from("/no-bucket-of-this-name/k"), "404 NoSuchBucket");
  EXPECT_EQ(from("/" + bucket_), "400 InvalidArgument");
  EXPECT_EQ(from("/"), "400 InvalidArgument");
  EXPECT_EQ(from("//k"), "400 InvalidArgument");
  EXPECT_EQ(from(PathOf("k") + "?versionId=3"), "501 NotImplemented");
  EXPECT_EQ(Outcome(Copy("k", "to", {{"x-amz-metadata-directive", "MOVE"}})), "400 InvalidArgument");
  EXPECT_EQ(Outcome(Copy("k", std::string(1025, 'k'))), "400 KeyTooLongError");
  EXPECT_EQ(Outcome(GetKey("to")), "404 NoSuchKey");
}

TEST_F(S3CopyTest, AnswersAStorageThatFails) {
  NewObject(bucket_, "from", Pattern(5 * kMebibyte));
  for (const char* const kind : {"range", "stream"}) {
    storage_.SetResult(kind, 1);
    EXPECT_EQ(Outcome(Copy("from", "to")), "500 InternalError") << kind;
    storage_.SetResult(kind, 0);
    EXPECT_EQ(Outcome(GetKey("to")), "404 NoSuchKey") << kind;
  }
  storage_.SetResult("stream", 3);
  EXPECT_EQ(Outcome(Copy("from", "to")), "507 NotEnoughSpace") << "the disk is full";
  storage_.SetResult("stream", 0);
  EXPECT_EQ(Outcome(Copy("from", "to")), "200");
}

// A removal frees the bytes before the object is gone: a copy that finds no bytes waits for the removal's end.
TEST_F(S3CopyTest, ASourceThatIsRemovedMeanwhileIsNotThere) {
  NewObject(bucket_, "from", Pattern(1000));
  std::thread removal;
  std::promise<void> bytes_are_gone;
  std::promise<void> is_answered;
  storage_.SetHook([&](const auto&) {
    storage_.SetResult("range", 1);
    removal = std::thread([&] {
      const auto free_bytes = [&](const std::string&) {
        bytes_are_gone.set_value();
        // The answer must not come yet.
        EXPECT_EQ(is_answered.get_future().wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        return true;
      };
      EXPECT_TRUE(catalogue_.RemoveObject("from", bucket_, free_bytes));
    });
    bytes_are_gone.get_future().wait();
  });
  EXPECT_EQ(Outcome(Copy("from", "to")), "404 NoSuchKey");
  is_answered.set_value();
  removal.join();
}

TEST_F(S3CopyTest, CallsTheHostNoMoreOnceTheServersAreDown) {
  NewObject(bucket_, "from", Pattern(21 * kMebibyte));
  std::atomic<bool> is_down{false};
  std::thread goes_down;
  std::mutex mutex;
  storage_.SetHook([&](const Tests::CFakeStorage::Call& call) {
    EXPECT_FALSE(is_down) << call.kind;
    const std::lock_guard<std::mutex> lock(mutex);
    if (!goes_down.joinable()) {
      goes_down = std::thread([&] {
        CloudStorage::details::CReadLease::EndAll();
        is_down = true;
      });
    }
  });
  const std::string outcome = Outcome(Copy("from", "to"));
  goes_down.join();
  storage_.SetHook(nullptr);
  EXPECT_EQ(outcome, "500 InternalError");
  EXPECT_EQ(Outcome(Copy("from", "to")), "200") << "after the next start";
}

TEST_F(S3CopyTest, CopiesRangesAsParts) {
  const std::string body = Pattern(11 * kMebibyte);
  NewObject(bucket_, "from", body);
  const std::string id = Begin("to", {{"x-amz-checksum-algorithm", "CRC32C"}});
  const std::string middle = std::to_string(6 * kMebibyte);
  const Texts ranges = {"bytes=1-" + middle, "bytes=" + middle + "-" + middle};
  std::string list;
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    const std::string number = std::to_string(i + 1);
    const FakeAnswer copied =
        Copy("from", "to", {{"x-amz-copy-source-range", ranges[i]}}, "partNumber=" + number + "&uploadId=" + id);
    ASSERT_EQ(Outcome(copied), "200");
    EXPECT_EQ(Values(copied.body, "ChecksumCRC32C").size(), 1U);
    list += "<Part><PartNumber>" + number + "</PartNumber><ETag>" + Values(copied.body, "ETag").at(0) +
            "</ETag><ChecksumCRC32C>" + Values(copied.body, "ChecksumCRC32C").at(0) + "</ChecksumCRC32C></Part>";
  }
  const FakeAnswer done = Do({.method = "POST",
                              .path = PathOf("to"),
                              .query = "uploadId=" + id,
                              .body = "<CompleteMultipartUpload>" + list + "</CompleteMultipartUpload>"});
  EXPECT_EQ(Outcome(done), "200") << done.body;
  EXPECT_TRUE(GetKey("to").body == body.substr(1, 6 * kMebibyte) + body.substr(6 * kMebibyte, 1));
  for (const std::string& range : {std::string("bytes=0-") + std::to_string(body.size()), std::string("bytes=5-4"),
                                   std::string("bytes=5-"), std::string("0-5"), std::string("bytes=-5")}) {
    EXPECT_EQ(Outcome(Copy("from", "to", {{"x-amz-copy-source-range", range}}, "partNumber=1&uploadId=" + Begin("to"))),
              "400 InvalidArgument")
        << range;
  }
}

TEST_F(S3CopyTest, CopiesObjectsThatAreMadeOfPartsAsOne) {
  const std::string first = Pattern(5 * kMebibyte);
  const std::string id = Begin("from");
  for (const auto& [number, bytes] : {std::pair{"1", first}, std::pair{"2", std::string("tail")}}) {
    Do({.method = "PUT",
        .path = PathOf("from"),
        .query = std::string("partNumber=") + number + "&uploadId=" + id,
        .body = bytes});
  }
  Do({.method = "POST",
      .path = PathOf("from"),
      .query = "uploadId=" + id,
      .body = "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>" + Md5(first) +
              "</ETag></Part><Part><PartNumber>2</PartNumber><ETag>" + Md5("tail") +
              "</ETag></Part></CompleteMultipartUpload>"});
  EXPECT_EQ(Outcome(Copy("from", "from", {{"x-amz-metadata-directive", "REPLACE"}, {"x-amz-meta-n", "2"}})), "200");
  EXPECT_TRUE(GetKey("from").response.headers.at("ETag").ends_with("-2\""));
  EXPECT_EQ(Outcome(Copy("from", "to")), "200");
  const FakeAnswer got = GetKey("to");
  EXPECT_TRUE(got.body == first + "tail");
  EXPECT_EQ(got.response.headers.at("ETag"), Md5(first + "tail"));
  EXPECT_EQ(got.response.headers.at("x-amz-meta-n"), "2");
}

TEST(S3CopySource, IsReadAsClientsWriteIt) {
  CopySource source;
  for (const char* const header : {"/b/k%2F%20", "b/k/%20", "/b%2Fk/ "}) {
    ASSERT_FALSE(ReadCopySource(source, header)) << header;
    EXPECT_EQ(source.bucket, "b");
    EXPECT_EQ(source.key, "k/ ");
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
