#include "ObjectClientFixture.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <ostream>
#include <random>
#include <stdexcept>
#include <type_traits>

namespace Tansy::CloudStorage {
namespace {

std::string Base64(const unsigned char* data, std::size_t size) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  text.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data, static_cast<int>(size))));
  return text;
}

bool IsHttpDate(const std::string& date) {
  // "Tue,  3 Nov 2026 08:05:09 GMT"
  static constexpr char kPattern[] = "Aaa, _d Aaa dddd dd:dd:dd GMT";
  if (date.size() != sizeof(kPattern) - 1) {
    return false;
  }
  for (std::size_t i = 0; i < date.size(); ++i) {
    const auto c = static_cast<unsigned char>(date[i]);
    const char p = kPattern[i];
    const bool fits = p == 'd'                   ? std::isdigit(c) != 0
                      : p == '_'                 ? c == ' ' || c == '1' || c == '2' || c == '3'
                      : p == 'A'                 ? std::isupper(c) != 0
                      : p == 'a' && date[i] != p ? std::islower(c) != 0
                                                 : date[i] == p;
    if (!fits) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string ReferenceSignature(const std::string& text, const std::string& key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest, &size);
  return Base64(digest, size);
}

std::string ReferenceContentMd5(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", digest[i]);
    hex += digits;
  }
  return Base64(reinterpret_cast<const unsigned char*>(hex.data()), hex.size());
}

Tests::ScriptedAnswer BestNodeAnswer(const std::string& location) {
  return {.headers = {{"Content-Type", kXmlType}},
          .body = "<?xml version=\"1.0\"?><BestNodeInfo><Location>" + location + "</Location></BestNodeInfo>"};
}

Tests::ScriptedAnswer UploadIdAnswer(const std::string& upload_id) {
  return {.headers = {{"Content-Type", kXmlType}},
          .body = "<InitiateMultipartUploadResult><Bucket>b</Bucket><Key>k</Key><UploadId>" + upload_id +
                  "</UploadId></InitiateMultipartUploadResult>"};
}

Tests::ScriptedAnswer ErrorAnswer(int status, const std::string& code) {
  return {.status = status,
          .headers = {{"Content-Type", kXmlType}},
          .body = "<Error><Code>" + code + "</Code><Message>" + code + "</Message></Error>"};
}

void ExpectRequest(const Tests::ScriptedRequest& request, const ExpectedRequest& expected) {
  SCOPED_TRACE(request.method + " " + request.target);
  EXPECT_EQ(request.method, expected.method);
  EXPECT_EQ(request.target, expected.target);
  EXPECT_EQ(request.body, expected.body);
  EXPECT_TRUE(request.complete);

  const std::string date = request.Header("Date");
  EXPECT_PRED1(IsHttpDate, date);
  const std::string content_md5 = expected.content_md5 ? ReferenceContentMd5(expected.body) : "";
  const std::string text =
      expected.method + "\n" + content_md5 + "\n" + expected.content_type + "\n" + date + "\n" + "\n" + expected.target;
  std::map<std::string, std::string> headers = expected.more_headers;
  headers["Date"] = date;
  headers["Authorization"] = "quorvane " + std::string(kAccessKey) + ":" + ReferenceSignature(text, kSecretKey);
  if (!expected.host.empty()) {
    headers["Host"] = expected.host;
  }
  if (!expected.content_type.empty()) {
    headers["Content-Type"] = expected.content_type;
  }
  if (expected.content_md5) {
    headers["Content-MD5"] = content_md5;
  }
  if (!expected.body.empty() || expected.method == "POST" || expected.method == "PUT") {
    headers["Content-Length"] = std::to_string(expected.body.size());
  }
  std::map<std::string, std::string> sent(request.headers.begin(), request.headers.end());
  EXPECT_EQ(sent.size(), request.headers.size()) << "a header is there twice";
  EXPECT_EQ(sent, headers);
}

std::ostream& operator<<(std::ostream& out, const LastError& error) {
  return out << "(" << error.code << ", " << error.second << ", \"" << error.message << "\")";
}

SStorageServerConfig ObjectClientFixture::Config() {
  SStorageServerConfig config;
  config.upload_port = server_.Port();
  config.download_port = server_.Port();
  config.pool_name = kPool;
  config.ip = "127.0.0.1";
  config.ak = kAccessKey;
  config.sk = kSecretKey;
  config.user_data = 0x1122334455667788;
  config.callback = [this](UploadProgress progress) {
    const std::lock_guard lock(progress_mutex_);
    progress_.push_back(progress);
  };
  return config;
}

std::vector<int> ObjectClientFixture::Progress() const {
  const std::lock_guard lock(progress_mutex_);
  std::vector<int> percents;
  for (const UploadProgress& progress : progress_) {
    EXPECT_EQ(progress.reserved_first, 0);
    EXPECT_EQ(progress.reserved_second, 0);
    EXPECT_EQ(progress.user_data, 0x1122334455667788u);
    percents.push_back(progress.percent);
  }
  return percents;
}

LastError ObjectClientFixture::ErrorOf(CObjectClient& client) {
  LastError error;
  client.GetLastError(error.code, error.second, error.message);
  int code = 0;
  std::string message;
  client.GetLastError(code, message);
  EXPECT_EQ(code, error.code);
  EXPECT_EQ(message, error.message);
  return error;
}

void ObjectClientFixture::Strip(CObjectClient& client) {
  // The shared pointer is the client's only member.
  static_assert(std::is_standard_layout_v<CObjectClient> &&
                sizeof(CObjectClient) == sizeof(std::shared_ptr<ObjectImpl>));
  reinterpret_cast<std::shared_ptr<ObjectImpl>&>(client).reset();
}

std::string ObjectClientFixture::KeyOfRequest(std::size_t index) const {
  const std::string target = server_.Requests().at(index).target;
  const std::string path = target.substr(0, target.find('?'));
  return path.substr(path.rfind('/') + 1);
}

}  // namespace Tansy::CloudStorage
