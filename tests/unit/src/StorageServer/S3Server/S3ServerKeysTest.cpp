// Further keys of the S3 server: what each may do, and from when to when it counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Common/Signature.h"
#include "S3ServerFixture.h"

namespace Tansy::CloudStorage::S3 {
namespace {

using Texts = std::vector<std::string>;

const KeyPair kGuest = {"guest", "guest-secret"};

class S3KeysTest : public S3ServerTest {
 protected:
  S3KeysTest() : other_(NewBucket()) {}
  ~S3KeysTest() override { EXPECT_EQ(SetS3Keys({}), 0); }

  static S3Key Guest() {
    S3Key key;
    key.access_key = kGuest.access_key;
    key.secret_key = kGuest.secret_key;
    return key;
  }
  static void Allow(const S3Key& key) { ASSERT_EQ(SetS3Keys({key}), 0); }
  // Lets the guest use the bucket only.
  void AllowBucket(const std::string& bucket) {
    S3Key key = Guest();
    key.buckets = {bucket};
    Allow(key);
  }
  static void AllowReading() {
    S3Key key = Guest();
    key.read_only = true;
    Allow(key);
  }
  std::string Ask(S3Call call) {
    call.keys = kGuest;
    return Outcome(Do(call));
  }
  std::string Read() { return Ask({.method = "GET", .path = PathOf("k")}); }
  std::string Write() { return Ask({.method = "PUT", .path = PathOf("new"), .body = "x"}); }
  std::string AskByLink(const KeyPair& keys) {
    TansyNet::HttpServerRecv msg = Message({"GET", PathOf("k"), {}, {}, {}});
    msg.headers["Host"] = "127.0.0.1:9702";
    const std::string scope = std::string(kDay) + "/us-east-1/s3/aws4_request";
    msg.query = "X-Amz-Algorithm=AWS4-HMAC-SHA256&X-Amz-Credential=" + PercentEncode(keys.access_key + "/" + scope) +
                "&X-Amz-Date=" + kTimestamp + "&X-Amz-Expires=60&X-Amz-SignedHeaders=host";
    const Query query = ParseQuery(msg.query);
    const LowerHeaders headers = LowerNames(msg.headers);
    const std::string canonical = CanonicalRequest({msg.method, msg.url, query, headers}, {"host"}, "UNSIGNED-PAYLOAD");
    msg.query += "&X-Amz-Signature=" +
                 Sign(SigningKey(keys.secret_key, kDay, "us-east-1"), StringToSign(kTimestamp, scope, canonical));
    return Outcome(Do(std::move(msg)));
  }
  std::string AskByLinkV2(const KeyPair& keys) {
    const std::string expires = std::to_string(kNow + 60);
    const std::string signature = SignHmacSha1("GET\n\n\n" + expires + "\n" + PathOf("k"), keys.secret_key);
    const std::string query =
        "AWSAccessKeyId=" + keys.access_key + "&Expires=" + expires + "&Signature=" + PercentEncode(signature);
    return Outcome(Do(Message({"GET", PathOf("k"), query, {}, {}})));
  }
  std::string AskByForm(const std::string& key) {
    const TansyNet::HttpServerRecv empty = Message({"POST", "/" + bucket_, {}, {}, {}});
    return Outcome(Do(Form(empty, bucket_, "hello", {{"key", key}}, "a.txt", kGuest)));
  }
  std::string Copy(const std::string& from, const std::string& to) {
    return Ask({.method = "PUT", .path = to, .headers = {{"x-amz-copy-source", from}}});
  }

  const std::string other_;
};

struct Operation {
  const char* name;
  bool writes;
  S3Call call;  // paths are below the bucket
};

std::vector<Operation> AllOperations() {
  const TansyNet::Headers copy = {{"x-amz-copy-source", "/BUCKET/k"}};
  return {
      {"HeadBucket", false, {"HEAD", "", "", "", {}}},
      {"GetBucketLocation", false, {"GET", "", "location", "", {}}},
      {"ListObjects", false, {"GET", "", "", "", {}}},
      {"ListObjectsV2", false, {"GET", "", "list-type=2", "", {}}},
      {"ListObjectVersions", false, {"GET", "", "versions", "", {}}},
      {"ListMultipartUploads", false, {"GET", "", "uploads", "", {}}},
      {"GetBucketAcl", false, {"GET", "", "acl", "", {}}},
      {"GetBucketVersioning", false, {"GET", "", "versioning", "", {}}},
      {"GetObject", false, {"GET", "/k", "", "", {}}},
      {"HeadObject", false, {"HEAD", "/k", "", "", {}}},
      {"GetObject of a part", false, {"GET", "/k", "partNumber=1", "", {}}},
      {"HeadObject of a part", false, {"HEAD", "/k", "partNumber=1", "", {}}},
      {"GetObjectAttributes", false, {"GET", "/k", "attributes", "", {{"x-amz-object-attributes", "ETag"}}}},
      {"GetObjectAcl", false, {"GET", "/k", "acl", "", {}}},
      {"ListParts", false, {"GET", "/k", "uploadId=UPLOAD", "", {}}},
      {"CreateBucket", true, {"PUT", "", "", "", {}}},
      {"PutBucketAcl", true, {"PUT", "", "acl", "", {{"x-amz-acl", "private"}}}},
      {"DeleteBucketCors", true, {"DELETE", "", "cors", "", {}}},
      {"PutObject", true, {"PUT", "/new", "", "x", {}}},
      {"PutObjectAcl", true, {"PUT", "/k", "acl", "", {{"x-amz-acl", "private"}}}},
      {"CopyObject", true, {"PUT", "/copy", "", "", copy}},
      {"CreateMultipartUpload", true, {"POST", "/k", "uploads", "", {}}},
      {"UploadPart", true, {"PUT", "/k", "partNumber=1&uploadId=UPLOAD", "x", {}}},
      {"UploadPartCopy", true, {"PUT", "/k", "partNumber=2&uploadId=UPLOAD", "", copy}},
      {"CompleteMultipartUpload", true, {"POST", "/k", "uploadId=UPLOAD", "<CompleteMultipartUpload/>", {}}},
      {"AbortMultipartUpload", true, {"DELETE", "/k", "uploadId=UPLOAD", "", {}}},
      {"DeleteObjects", true, {"POST", "", "delete", "<Delete><Object><Key>new</Key></Object></Delete>", {}}},
      {"DeleteObject", true, {"DELETE", "/k", "", "", {}}},
      {"DeleteBucket", true, {"DELETE", "", "", "", {}}},
  };
}

TEST_F(S3KeysTest, EachOperationAsksForTheRightsOfTheKey) {
  PutKey("k", "hello");
  const std::string upload =
      Values(Do({.method = "POST", .path = PathOf("k"), .query = "uploads"}).body, "UploadId").front();
  const auto replace = [](std::string text, const std::string& word, const std::string& by) {
    const std::size_t at = text.find(word);
    return at == std::string::npos ? text : text.replace(at, word.size(), by);
  };
  const auto ask = [&](Operation operation) {
    S3Call& call = operation.call;
    call.path = "/" + bucket_ + call.path;
    call.query = replace(call.query, "UPLOAD", upload);
    for (auto& [name, value] : call.headers) {
      value = replace(value, "BUCKET", bucket_);
    }
    call.keys = kGuest;
    return Do(call).response.status;
  };
  for (const Operation& operation : AllOperations()) {
    AllowBucket(other_);
    EXPECT_EQ(ask(operation), 403) << operation.name << " in the bucket of others";
    if (operation.writes) {
      AllowReading();
      EXPECT_EQ(ask(operation), 403) << operation.name << " by a key that only reads";
    }
  }
  EXPECT_EQ(GetKey("k").body, "hello") << "nothing of it was done";
  for (const Operation& operation : AllOperations()) {
    operation.writes ? AllowBucket(bucket_) : AllowReading();
    EXPECT_NE(ask(operation), 403) << operation.name;
  }
}

TEST_F(S3KeysTest, ListsTheBucketsThatTheKeyMayUse) {
  Allow(Guest());
  const auto list = [this] { return Values(Do({.method = "GET", .path = "/", .keys = kGuest}).body, "Name"); };
  const Texts all = list();
  EXPECT_NE(std::find(all.begin(), all.end(), bucket_), all.end());
  EXPECT_NE(std::find(all.begin(), all.end(), other_), all.end());
  AllowBucket(other_);
  EXPECT_EQ(list(), Texts{other_});
}

TEST_F(S3KeysTest, ABucketIsMadeOnlyByAKeyThatMayUseIt) {
  const std::string fresh = "of-" + bucket_;
  AllowBucket(other_);
  EXPECT_EQ(Ask({.method = "PUT", .path = "/" + fresh}), "403 AccessDenied");
  EXPECT_EQ(Ask({.method = "GET", .path = "/no-such-bucket"}), "403 AccessDenied")
      << "whether it is there is no answer";
}

TEST_F(S3KeysTest, ACopyNeedsTheRightToReadItsSource) {
  PutKey("k", "hello");
  const std::string source = "/" + bucket_ + "/k";
  AllowBucket(other_);
  EXPECT_EQ(Copy(source, "/" + other_ + "/copy"), "403 AccessDenied");
  EXPECT_EQ(Copy("/" + bucket_ + "/none", "/" + other_ + "/copy"), "403 AccessDenied");
  EXPECT_EQ(Copy("/no-such-bucket/k", "/" + other_ + "/copy"), "403 AccessDenied");
  const std::string upload =
      Values(Do({.method = "POST", .path = "/" + other_ + "/p", .query = "uploads"}).body, "UploadId").front();
  EXPECT_EQ(Ask({.method = "PUT",
                 .path = "/" + other_ + "/p",
                 .query = "partNumber=1&uploadId=" + upload,
                 .headers = {{"x-amz-copy-source", source}}}),
            "403 AccessDenied");
  S3Key key = Guest();
  key.buckets = {other_, bucket_};
  Allow(key);
  EXPECT_EQ(Copy(source, "/" + other_ + "/copy"), "200");
}

TEST_F(S3KeysTest, ChangesCountAtOnce) {
  PutKey("k", "hello");
  EXPECT_EQ(Read(), "403 InvalidAccessKeyId");
  Allow(Guest());
  EXPECT_EQ(Read(), "200");
  EXPECT_EQ(AskByLink(kGuest), "200");
  EXPECT_EQ(AskByLinkV2(kGuest), "200");
  EXPECT_EQ(AskByForm("form"), "204");
  AllowReading();
  EXPECT_EQ(Read(), "200");
  EXPECT_EQ(Write(), "403 AccessDenied");
  EXPECT_EQ(AskByForm("form"), "403 AccessDenied");
  AllowBucket(other_);
  EXPECT_EQ(AskByLink(kGuest), "403 AccessDenied");
  EXPECT_EQ(AskByLinkV2(kGuest), "403 AccessDenied");
  EXPECT_EQ(AskByForm("form"), "403 AccessDenied");
  ASSERT_EQ(SetS3Keys({}), 0);
  EXPECT_EQ(Read(), "403 InvalidAccessKeyId");
  EXPECT_EQ(AskByLink(kGuest), "403 InvalidAccessKeyId");
  EXPECT_EQ(AskByLinkV2(kGuest), "403 InvalidAccessKeyId");
  EXPECT_EQ(AskByForm("form"), "403 InvalidAccessKeyId");
}

TEST_F(S3KeysTest, AKeyCountsUntilItsTimeEnds) {
  PutKey("k", "hello");
  S3Key key = Guest();
  key.expires = kNow + 1;
  Allow(key);
  EXPECT_EQ(Read(), "200");
  EXPECT_EQ(AskByLink(kGuest), "200");
  key.expires = kNow;
  Allow(key);
  EXPECT_EQ(Read(), "403 InvalidAccessKeyId");
  EXPECT_EQ(AskByLink(kGuest), "403 InvalidAccessKeyId");
  EXPECT_EQ(AskByLinkV2(kGuest), "403 InvalidAccessKeyId");
  EXPECT_EQ(AskByForm("form"), "403 InvalidAccessKeyId");
}

TEST_F(S3KeysTest, EachKeyHasItsOwnSecret) {
  PutKey("k", "hello");
  Allow(Guest());
  const auto read = [this](const KeyPair& keys) {
    return Outcome(Do({.method = "GET", .path = PathOf("k"), .keys = keys}));
  };
  EXPECT_EQ(read({"guest", "secret-key"}), "403 SignatureDoesNotMatch");
  EXPECT_EQ(read({"access-key", "guest-secret"}), "403 SignatureDoesNotMatch");
  EXPECT_EQ(AskByLink({"guest", "secret-key"}), "403 SignatureDoesNotMatch");
  EXPECT_EQ(AskByLinkV2({"guest", "secret-key"}), "403 SignatureDoesNotMatch");
}

TEST_F(S3KeysTest, ThePairOfTheConfigurationStaysWhatItIs) {
  S3Key key = Guest();
  key.access_key = "access-key";
  key.read_only = true;
  Allow(key);
  EXPECT_EQ(Outcome(PutKey("k", "hello")), "200");
}

TEST_F(S3KeysTest, KeysWithoutNameOrSecretAreRefusedAsAWhole) {
  Allow(Guest());
  S3Key nameless = Guest();
  nameless.access_key.clear();
  EXPECT_EQ(SetS3Keys({nameless}), -1);
  S3Key open = Guest();
  open.secret_key.clear();
  EXPECT_EQ(SetS3Keys({open}), -1);
  PutKey("k", "hello");
  EXPECT_EQ(Read(), "200");
}

TEST_F(S3KeysTest, ALongBodyIsRefusedBeforeItsFirstByteIsStored) {
  const std::string bytes = Pattern(11 * kMebibyte);
  S3Call call = {.method = "PUT", .path = PathOf("new")};
  call.keys = kGuest;
  AllowReading();
  EXPECT_EQ(Outcome(Stream(SignedCall(call), bytes)), "403 AccessDenied");
  EXPECT_EQ(storage_.Calls("stream").size(), 0U);
  EXPECT_EQ(Outcome(GetKey("new")), "404 NoSuchKey");
  AllowBucket(bucket_);
  EXPECT_EQ(Outcome(Stream(SignedCall(call), bytes)), "200");
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
