// What the tests of the object server share: a database and a storage in memory, the server on the fake HTTP library,
// requests and their signatures.
#ifndef TANSY_TESTS_UNIT_OBJECT_SERVER_FIXTURE_H
#define TANSY_TESTS_UNIT_OBJECT_SERVER_FIXTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/FailingDatabase.h"
#include "fakes/FakeHttpServer.h"

namespace Tansy::Tests {

// The five storage callbacks over memory. New bytes get a location such as "fs01obj-7.d". Any thread.
class CFakeStorage {
 public:
  struct Call {
    std::string kind;      // "save", "read", "stream", "range", "remove"
    std::string location;  // as it came in
    std::uint32_t size = 0;
    std::uint32_t offset = 0;
    int flag = -1;
    std::string data;  // the first bytes of a write
  };

  static CFakeStorage& Instance();
  static void SetCallbacks(CloudStorage::StorageServerConfig& config);

  void Reset();
  std::vector<Call> Calls(const std::string& kind) const;
  std::string Bytes(const std::string& location) const;
  void Put(const std::string& location, std::string bytes);

  // Sets what calls of this kind return from now on. A call with another result than 0 changes nothing.
  void SetResult(const std::string& kind, int result);
  // Called before each call does anything, without a lock.
  void SetHook(std::function<void(const Call&)> hook);
  // Lets reads deliver so many bytes fewer than they could.
  void ShortenReads(std::uint32_t bytes);
  // Lets reads succeed without handing back a buffer.
  void DeliverNoBuffer(bool none);

 private:
  static int Save(std::string& location, const char* data, std::uint32_t size, int flag);
  static int Read(char*& data, std::uint32_t& size, const std::string& location, int flag);
  static int Stream(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location);
  static int Range(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location);
  static int Remove(const std::string& location);

  int Begin(const Call& call);
  int Write(std::string& location, std::string_view bytes, std::uint32_t offset);
  int Deliver(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location);

  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::map<std::string, std::string> stored_;
  std::map<std::string, int> results_;
  std::function<void(const Call&)> hook_;
  std::uint32_t read_shortage_ = 0;
  bool no_buffer_ = false;
  int next_ = 1;
};

// A request of the object protocol.
struct FakeRequest {
  std::string method;
  std::string path;
  std::string query;
  std::string body;
  TansyNet::Headers headers;
};

class CObjectServerTest : public ::testing::Test {
 protected:
  CObjectServerTest();
  ~CObjectServerTest() override;

  // Runs once per process. The catalogue cannot be emptied, so each test uses bucket names of its own.
  static CFailingDatabase& Database();
  static CloudStorage::StorageServerConfig_V1 Config();
  // A new bucket, in the catalogue.
  static std::string NewBucket();
  // A new object in the catalogue and its bytes in the storage. Returns its location.
  std::string NewObject(const std::string& bucket, const std::string& key, const std::string& bytes);

  static TansyNet::HttpServerRecv Message(const FakeRequest& request);
  // The same with a Date and an Authorization header.
  static TansyNet::HttpServerRecv Signed(const FakeRequest& request);
  // Sends a request through the receive callback and the message loop, and waits for the answer.
  FakeAnswer Send(const FakeRequest& request);
  FakeAnswer SendMessage(TansyNet::HttpServerRecv msg);
  FakeAnswer Get(const std::string& path, const std::string& query = {}, const TansyNet::Headers& headers = {});
  FakeAnswer Put(const std::string& path, const std::string& body);
  FakeAnswer Post(const std::string& path, const std::string& query, const std::string& body = {});
  FakeAnswer Delete(const std::string& path, const std::string& query = {});

  // Deterministic bytes.
  static std::string Pattern(std::size_t size, std::uint32_t seed = 1);

  CloudStorage::CObjectServer& server_ = CloudStorage::CObjectServer::Instance();
  CloudStorage::CObjectStorageManager& catalogue_ = CloudStorage::CObjectStorageManager::Instance();
  CFakeHttpServer& http_ = CFakeHttpServer::Instance();
  CFakeStorage& storage_ = CFakeStorage::Instance();
  CLogCapture log_;
};

// The answer for an error of the protocol, as a client reads it.
std::string ErrorBody(const std::string& code, const std::string& message);
// Passes when the answer is that error, with its content type and date.
::testing::AssertionResult IsError(const FakeAnswer& answer, int status, const std::string& code,
                                   const std::string& message = {});
// Passes when the answer is a success with this body.
::testing::AssertionResult IsXml(const FakeAnswer& answer, const std::string& body);
// Wraps an XML answer's content: with the declaration that every answer begins with.
std::string Xml(const std::string& content);

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_UNIT_OBJECT_SERVER_FIXTURE_H
