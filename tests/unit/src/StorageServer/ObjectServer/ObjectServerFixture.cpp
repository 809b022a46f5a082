#include "ObjectServerFixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "StorageServer/ServerComm.h"
#include "StorageServer/ServerMsgLoop.h"
#include "db_layer/DbLayer.h"
#include "fakes/RandomBytes.h"

namespace Tansy::Tests {

using CloudStorage::BucketInfo;
using CloudStorage::CServerMsgLoop;
using CloudStorage::ObjectInfo;

namespace {

// What lives as long as the process.
struct World {
  World() {
    db_layer::SetSqliteFullDurability(false);
    EXPECT_TRUE(db_layer::Module_Register(database.Param(), "platform"));
    EXPECT_TRUE(database.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs01', 'disk\\')"));
    EXPECT_TRUE(CServerMsgLoop::Instance().Start(4, 4, 5));
  }
  ~World() {
    CServerMsgLoop::Instance().Stop(false);
    db_layer::Module_Unregister("platform");
  }
  CFailingDatabase database;
};

World& TheWorld() {
  static World world;
  return world;
}

std::string AfterPrefix(const std::string& location) {
  return location.substr(location.find(';') + 1);
}

constexpr const char* kXmlType = "application/xml; charset=utf-8";

::testing::AssertionResult HasXmlHead(const FakeAnswer& answer, int status) {
  if (!answer.IsThere()) {
    return ::testing::AssertionFailure() << "no answer";
  }
  if (answer.attempts != 1) {
    return ::testing::AssertionFailure() << answer.attempts << " answers";
  }
  if (answer.response.status != status || answer.response.content_type != kXmlType) {
    return ::testing::AssertionFailure() << answer.response.status << " " << answer.response.content_type << ": "
                                         << answer.body;
  }
  const auto date = answer.response.headers.find("Date");
  if (date == answer.response.headers.end() || !date->second.ends_with(" GMT")) {
    return ::testing::AssertionFailure() << "no date";
  }
  return ::testing::AssertionSuccess();
}

}  // namespace

CFakeStorage& CFakeStorage::Instance() {
  static CFakeStorage instance;
  return instance;
}

void CFakeStorage::SetCallbacks(CloudStorage::StorageServerConfig& config) {
  config.save_object = &Save;
  config.read_object = &Read;
  config.stream_save = &Stream;
  config.read_range = &Range;
  config.remove_object = &Remove;
}

void CFakeStorage::Reset() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
  stored_.clear();
  results_.clear();
  hook_ = nullptr;
  read_shortage_ = 0;
  no_buffer_ = false;
}

std::vector<CFakeStorage::Call> CFakeStorage::Calls(const std::string& kind) const {
  const std::lock_guard lock(mutex_);
  std::vector<Call> found = calls_;
  std::erase_if(found, [&kind](const Call& call) { return call.kind != kind; });
  return found;
}

std::string CFakeStorage::Bytes(const std::string& location) const {
  const std::lock_guard lock(mutex_);
  const auto bytes = stored_.find(location);
  return bytes != stored_.end() ? bytes->second : std::string();
}

void CFakeStorage::Put(const std::string& location, std::string bytes) {
  const std::lock_guard lock(mutex_);
  stored_[location] = std::move(bytes);
}

void CFakeStorage::SetResult(const std::string& kind, int result) {
  const std::lock_guard lock(mutex_);
  results_[kind] = result;
}

void CFakeStorage::SetHook(std::function<void(const Call&)> hook) {
  const std::lock_guard lock(mutex_);
  hook_ = std::move(hook);
}

void CFakeStorage::ShortenReads(std::uint32_t bytes) {
  const std::lock_guard lock(mutex_);
  read_shortage_ = bytes;
}

void CFakeStorage::DeliverNoBuffer(bool none) {
  const std::lock_guard lock(mutex_);
  no_buffer_ = none;
}

int CFakeStorage::Begin(const Call& call) {
  std::function<void(const Call&)> hook;
  {
    const std::lock_guard lock(mutex_);
    hook = hook_;
  }
  if (hook) {
    hook(call);
  }
  const std::lock_guard lock(mutex_);
  calls_.push_back(call);
  const auto result = results_.find(call.kind);
  return result != results_.end() ? result->second : 0;
}

int CFakeStorage::Write(std::string& location, std::string_view bytes, std::uint32_t offset) {
  const std::lock_guard lock(mutex_);
  std::string id = AfterPrefix(location);
  if (id.empty()) {
    id = "fs01obj-" + std::to_string(next_++) + ".d";
  }
  std::string& stored = stored_[id];
  if (stored.size() < offset + bytes.size()) {
    stored.resize(offset + bytes.size());
  }
  std::copy(bytes.begin(), bytes.end(), stored.begin() + offset);
  location = id;
  return 0;
}

int CFakeStorage::Deliver(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location) {
  const std::lock_guard lock(mutex_);
  const auto stored = stored_.find(AfterPrefix(location));
  if (stored == stored_.end()) {
    return 2;
  }
  if (no_buffer_) {
    data = nullptr;
    return 0;
  }
  const std::string& bytes = stored->second;
  const std::size_t left = offset < bytes.size() ? bytes.size() - offset : 0;
  const std::size_t wanted = std::min<std::size_t>(size, left);
  size = static_cast<std::uint32_t>(wanted - std::min<std::size_t>(wanted, read_shortage_));
  data = static_cast<char*>(std::malloc(size + 1));
  std::copy_n(bytes.data() + std::min<std::size_t>(offset, bytes.size()), size, data);
  return 0;
}

int CFakeStorage::Save(std::string& location, const char* data, std::uint32_t size, int flag) {
  CFakeStorage& self = Instance();
  const int result = self.Begin({"save", location, size, 0, flag, std::string(data, std::min(size, 16U))});
  return result != 0 ? result : self.Write(location, {data, size}, 0);
}

int CFakeStorage::Stream(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location) {
  CFakeStorage& self = Instance();
  const int result = self.Begin({"stream", location, size, offset, -1, std::string(data, std::min(size, 16U))});
  return result != 0 ? result : self.Write(location, {data, size}, offset);
}

int CFakeStorage::Read(char*& data, std::uint32_t& size, const std::string& location, int flag) {
  CFakeStorage& self = Instance();
  const int result = self.Begin({"read", location, size, 0, flag, {}});
  return result != 0 ? result : self.Deliver(data, size, 0, location);
}

int CFakeStorage::Range(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location) {
  CFakeStorage& self = Instance();
  const int result = self.Begin({"range", location, size, offset, -1, {}});
  return result != 0 ? result : self.Deliver(data, size, offset, location);
}

int CFakeStorage::Remove(const std::string& location) {
  return Instance().Begin({"remove", location, 0, 0, -1, {}});
}

CObjectServerTest::CObjectServerTest() {
  TheWorld();
  // Tasks that the test before has left in the loop would count for this one.
  while (CServerMsgLoop::Instance().GetWorkTaskCount() != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  storage_.Reset();
  // The listeners are closed, but the server takes them for open.
  server_.SetObjectServerEnable(false);
  http_.OpenNothing(true);
  server_.SetObjectServerEnable(true);
  http_.Reset();
  EXPECT_EQ(server_.Init(Config()), 0);
  log_->Clear();
}

CObjectServerTest::~CObjectServerTest() {
  Database().Heal();
}

CFailingDatabase& CObjectServerTest::Database() {
  return TheWorld().database;
}

CloudStorage::StorageServerConfig_V1 CObjectServerTest::Config() {
  CloudStorage::StorageServerConfig_V1 config;
  config.upload_port = 9700;
  config.download_port = 9700;
  config.wan_port = 19700;
  config.wan_download_port = 19700;
  config.ip = "10.0.0.5";
  config.wan_ip = "198.51.100.7";
  config.ak = "access-key";
  config.sk = "secret-key";
  config.https_port = 9743;
  config.https_download_port = 9743;
  config.https_wan_port = 19743;
  config.https_wan_download_port = 19743;
  CFakeStorage::SetCallbacks(config);
  return config;
}

std::string CObjectServerTest::NewBucket() {
  static std::atomic<int> next{1};
  BucketInfo bucket;
  bucket.name = "bucket" + std::to_string(next++);
  bucket.guid = "guid-of-" + bucket.name;
  bucket.location = "local";
  EXPECT_TRUE(CloudStorage::CObjectStorageManager::Instance().AddBucket(bucket));
  return bucket.name;
}

std::string CObjectServerTest::NewObject(const std::string& bucket, const std::string& key, const std::string& bytes) {
  ObjectInfo object;
  object.bucket_name = bucket;
  object.name = key;
  object.size = bytes.size();
  object.update_time = "2026-11-03 08:05:09";
  object.url = "fs01" + bucket + "-" + key + ".d";
  storage_.Put(object.url, bytes);
  EXPECT_TRUE(catalogue_.AddObject(object));
  log_->Clear();
  return object.url;
}

TansyNet::HttpServerRecv CObjectServerTest::Message(const FakeRequest& request) {
  TansyNet::HttpServerRecv msg;
  msg.method = request.method;
  msg.url = request.path;
  msg.query = request.query;
  msg.ip = "192.0.2.1";
  msg.headers = request.headers;
  if (!request.body.empty()) {
    msg.body = std::make_shared<std::string>(request.body);
  }
  msg.body_size = static_cast<std::uint32_t>(request.body.size());
  msg.content_length = msg.body_size;
  msg.token = std::make_shared<const int>(0);
  return msg;
}

TansyNet::HttpServerRecv CObjectServerTest::Signed(const FakeRequest& request) {
  TansyNet::HttpServerRecv msg = Message(request);
  msg.headers["Date"] = "Tue,  3 Nov 2026 08:05:09 GMT";
  const std::string resource = request.path + (request.query.empty() ? "" : "?" + request.query);
  const std::string text = request.method + "\n" + msg.headers["Content-MD5"] + "\n" + msg.headers["Content-Type"] +
                           "\n" + msg.headers["Date"] + "\n\n" + resource;
  msg.headers["Authorization"] = "quorvane access-key:" + CloudStorage::SignHmacSha1(text, "secret-key");
  return msg;
}

FakeAnswer CObjectServerTest::Send(const FakeRequest& request) {
  return SendMessage(Signed(request));
}

FakeAnswer CObjectServerTest::SendMessage(TansyNet::HttpServerRecv msg) {
  return http_.WaitForAnswer(http_.Deliver(&CloudStorage::CObjectServer::RecvMsgCallBack, std::move(msg)));
}

FakeAnswer CObjectServerTest::Get(const std::string& path, const std::string& query, const TansyNet::Headers& headers) {
  return Send({"GET", path, query, {}, headers});
}

FakeAnswer CObjectServerTest::Put(const std::string& path, const std::string& body) {
  return Send({"PUT", path, {}, body, {}});
}

FakeAnswer CObjectServerTest::Post(const std::string& path, const std::string& query, const std::string& body) {
  return Send({"POST", path, query, body, {}});
}

FakeAnswer CObjectServerTest::Delete(const std::string& path, const std::string& query) {
  return Send({"DELETE", path, query, {}, {}});
}

std::string CObjectServerTest::Pattern(std::size_t size, std::uint32_t seed) {
  return RandomBytes(size, seed);
}

std::string Xml(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + content;
}

std::string ErrorBody(const std::string& code, const std::string& message) {
  return Xml("<Error><Code>" + code + "</Code><Message>" + message + "</Message></Error>");
}

::testing::AssertionResult IsError(const FakeAnswer& answer, int status, const std::string& code,
                                   const std::string& message) {
  if (const auto head = HasXmlHead(answer, status); !head) {
    return head;
  }
  if (answer.body != ErrorBody(code, message.empty() ? code : message)) {
    return ::testing::AssertionFailure() << answer.body;
  }
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult IsXml(const FakeAnswer& answer, const std::string& body) {
  if (const auto head = HasXmlHead(answer, 200); !head) {
    return head;
  }
  if (answer.body != body) {
    return ::testing::AssertionFailure() << answer.body;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace Tansy::Tests
