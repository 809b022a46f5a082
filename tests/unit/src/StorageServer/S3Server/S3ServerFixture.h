// What the tests of the S3 server share: its server over the catalogue in memory, a storage in memory and the fake HTTP
// library, and requests that are signed as a client does.
#ifndef TANSY_TESTS_UNIT_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_FIXTURE_H
#define TANSY_TESTS_UNIT_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_FIXTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "../ObjectServer/ObjectServerFixture.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Server.h"
#include "TansyBase/Encrypt.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

using Tests::CObjectServerTest;
using Tests::FakeAnswer;

inline constexpr std::time_t kNow = 1793692800;  // 2026-11-03 08:00:00
inline constexpr const char* kTimestamp = "20261103T080000Z";
inline constexpr const char* kDay = "20261103";
inline constexpr std::size_t kMebibyte = 1024 * 1024;

// By whom a request is signed; without more, by the pair of the configuration.
struct KeyPair {
  std::string access_key = "access-key";
  std::string secret_key = "secret-key";
};

struct S3Call {
  std::string method = {};
  std::string path = {};
  std::string query = {};
  std::string body = {};
  TansyNet::Headers headers = {};
  std::string payload = "UNSIGNED-PAYLOAD";
  KeyPair keys = {};
};

class S3ServerTest : public CObjectServerTest {
 protected:
  S3ServerTest() {
    TansyBase::TimeUtil::SetClock([] { return kNow; });
    EXPECT_EQ(CS3Server::Instance().Init(S3Config()), 0);
    bucket_ = NewBucket();
  }
  ~S3ServerTest() override {
    EXPECT_EQ(SetS3ServerEnable(false), 0);
    TansyBase::TimeUtil::SetClock(nullptr);
  }

  static S3ServerConfig S3Config() {
    S3ServerConfig config;
    static_cast<StorageServerConfig_V1&>(config) = Config();
    config.upload_port = config.download_port = 9702;
    config.https_port = config.https_download_port = 9745;
    return config;
  }

  // Signs as a client does.
  static TansyNet::HttpServerRecv SignedCall(const S3Call& call, struct Signed* signature = nullptr) {
    TansyNet::HttpServerRecv msg = Message({call.method, call.path, call.query, call.body, call.headers});
    msg.headers.try_emplace("Host", "127.0.0.1:9702");
    msg.headers["x-amz-date"] = kTimestamp;
    msg.headers["x-amz-content-sha256"] = call.payload;
    msg.headers["Content-Length"] = std::to_string(call.body.size());
    const LowerHeaders headers = LowerNames(msg.headers);
    std::vector<std::string> names;
    std::string list;
    for (const auto& [name, value] : headers) {
      if (name == "host" || name.starts_with("x-amz-")) {
        names.push_back(name);
        list += (list.empty() ? "" : ";") + name;
      }
    }
    const std::string scope = std::string(kDay) + "/us-east-1/s3/aws4_request";
    const Query query = ParseQuery(msg.query);
    const std::string key = SigningKey(call.keys.secret_key, kDay, "us-east-1");
    const std::string canonical = CanonicalRequest({msg.method, msg.url, query, headers}, names, call.payload);
    const std::string text = Sign(key, StringToSign(kTimestamp, scope, canonical));
    msg.headers["Authorization"] = "AWS4-HMAC-SHA256 Credential=" + call.keys.access_key + "/" + scope +
                                   ", SignedHeaders=" + list + ", Signature=" + text;
    if (signature != nullptr) {
      *signature = {EBodyForm::kSignedChunks, "", kTimestamp, scope, key, text};
    }
    return msg;
  }

  FakeAnswer Do(TansyNet::HttpServerRecv msg) {
    return http_.WaitForAnswer(http_.Deliver(&CS3Server::RecvMsgCallBack, std::move(msg)));
  }
  FakeAnswer Do(const S3Call& call) { return Do(SignedCall(call)); }
  FakeAnswer PutKey(const std::string& key, const std::string& body, const TansyNet::Headers& headers = {}) {
    return Do({.method = "PUT", .path = PathOf(key), .body = body, .headers = headers});
  }
  FakeAnswer GetKey(const std::string& key, const TansyNet::Headers& headers = {}, const std::string& query = {}) {
    return Do({.method = "GET", .path = PathOf(key), .query = query, .headers = headers});
  }
  FakeAnswer List(const std::string& query) { return Do({.method = "GET", .path = "/" + bucket_, .query = query}); }
  std::string PathOf(const std::string& key) const { return "/" + bucket_ + "/" + PercentEncodePath(key); }

  // Streams a body of unknown length in pieces of 4 MiB.
  FakeAnswer Stream(TansyNet::HttpServerRecv msg, const std::string& body) {
    msg.body.reset();
    msg.body_size = 0;
    msg.content_length = 0;
    msg.headers.erase("Content-Length");
    const std::int32_t handle = http_.NewHandle();
    http_.Stream(handle, &CS3Server::RecvMsgCallBack, std::move(msg), body,
                 std::vector<std::size_t>(body.size() / (4 * kMebibyte), 4 * kMebibyte));
    return http_.WaitForAnswer(handle);
  }

  // The entity tags that the database keeps of objects of this test's bucket.
  std::vector<std::string> KeptTags() const {
    std::vector<std::string> kept;
    EXPECT_TRUE(CObjectServerSession::QueryAttributes([&](const ObjectInfo& object, std::string_view attributes) {
      if (object.bucket_name == bucket_) {
        kept.push_back(ETagOfText(attributes));
      }
    }));
    return kept;
  }

  std::string bucket_;
};

// A form as browsers send it, with a policy that allows it.
inline TansyNet::HttpServerRecv Form(TansyNet::HttpServerRecv msg, const std::string& bucket, const std::string& body,
                                     std::vector<std::pair<std::string, std::string>> fields,
                                     const std::string& file_name = "a.txt", const KeyPair& keys = {}) {
  const std::string credential = keys.access_key + "/" + kDay + "/us-east-1/s3/aws4_request";
  fields.insert(fields.end(), {{"x-amz-algorithm", "AWS4-HMAC-SHA256"}, {"x-amz-credential", credential}});
  std::string policy = R"({"expiration": "2026-11-03T09:00:00Z", "conditions": [{"bucket": ")" + bucket + "\"}";
  for (const auto& [name, value] : fields) {
    policy += R"(, {")" + name + R"(": ")" + value + "\"}";
  }
  policy = TansyBase::Encrypt::Base64Encode(policy + "]}");
  fields.emplace_back("policy", policy);
  fields.emplace_back("x-amz-signature", Sign(SigningKey(keys.secret_key, kDay, "us-east-1"), policy));
  std::string text;
  for (const auto& [name, value] : fields) {
    text += "--edge\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
  }
  text += "--edge\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + file_name + "\"\r\n\r\n" + body +
          "\r\n--edge--\r\n";
  msg.body_size = static_cast<std::uint32_t>(text.size());
  msg.content_length = msg.body_size;
  msg.body = std::make_shared<std::string>(std::move(text));
  msg.headers["Content-Type"] = "multipart/form-data; boundary=edge";
  return msg;
}

inline std::string Md5(std::string_view text) {
  return '"' + ToHex(DigestOf(EDigest::kMd5, text)) + '"';
}

// "404 NoSuchKey", or the status alone for success.
inline std::string Outcome(const FakeAnswer& answer) {
  const std::string status = std::to_string(answer.response.status);
  const std::size_t begin = answer.body.find("<Code>");
  if (begin == std::string::npos) {
    return status;
  }
  return status + " " + answer.body.substr(begin + 6, answer.body.find("</Code>") - begin - 6);
}

inline std::vector<std::string> Values(const std::string& xml, const std::string& element) {
  std::vector<std::string> values;
  const std::string open = "<" + element + ">";
  for (std::size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
    at += open.size();
    values.push_back(xml.substr(at, xml.find("</" + element + ">", at) - at));
  }
  return values;
}

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_TESTS_UNIT_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_FIXTURE_H
