// What the tests of the object client share: a server that plays answers, signatures made by OpenSSL alone, and access
// to the insides of a client.
#ifndef TANSY_TESTS_OBJECT_CLIENT_FIXTURE_H
#define TANSY_TESTS_OBJECT_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "TansyCloudStorage/ObjectClient.h"
#include "TansyCloudStorage/StorageConfig.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/RandomBytes.h"
#include "fakes/ScriptedServer.h"
#include "fakes/TempFolder.h"

namespace Tansy::CloudStorage {

inline constexpr char kPool[] = "pool";
inline constexpr char kAccessKey[] = "TESTACCESSKEY";
inline constexpr char kSecretKey[] = "test-secret-key";
inline constexpr char kXmlType[] = "application/xml; charset=utf-8";
inline constexpr char kBinaryType[] = "binary/octet-stream";

// Gives the Base64 text of the HMAC-SHA1. It uses no code of the module.
std::string ReferenceSignature(const std::string& text, const std::string& key);
// Gives the Base64 text of the hexadecimal MD5, without code of the module too.
std::string ReferenceContentMd5(const std::string& data);

Tests::ScriptedAnswer BestNodeAnswer(const std::string& location);
Tests::ScriptedAnswer UploadIdAnswer(const std::string& upload_id);
Tests::ScriptedAnswer ErrorAnswer(int status, const std::string& code);

// What a request must look like; every header that is not listed must be absent.
struct ExpectedRequest {
  std::string method = {};
  std::string target = {};
  std::string host = {};  // empty: no Host header
  std::string content_type = {};
  std::string body = {};
  bool content_md5 = false;
  std::map<std::string, std::string> more_headers = {};
};
void ExpectRequest(const Tests::ScriptedRequest& request, const ExpectedRequest& expected);

struct LastError {
  int code = 0;
  int second = 0;
  std::string message;
  bool operator==(const LastError&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LastError& error);

class ObjectClientFixture : public testing::Test {
 protected:
  explicit ObjectClientFixture(Tests::ScriptedServerOptions options = {}) : server_(std::move(options)) {}

  // Of the scripted server; progress is collected.
  SStorageServerConfig Config();
  std::vector<int> Progress() const;
  std::string Path(const std::string& key) const { return "/" + std::string(kPool) + "/" + key; }
  static LastError ErrorOf(CObjectClient& client);
  // Takes a client's shared state away. No public function can do that.
  static void Strip(CObjectClient& client);
  // The key in the n-th request's target.
  std::string KeyOfRequest(std::size_t index) const;

  Tests::CLogCapture log_;
  Tests::ScriptedServer server_;
  Tests::CTempFolder folder_;

 private:
  mutable std::mutex progress_mutex_;
  std::vector<UploadProgress> progress_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_TESTS_OBJECT_CLIENT_FIXTURE_H
