// What requests hold while they are under way: memory, threads that others need, files of the host.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "S3ServerFixture.h"
#include "StorageServer/HostBuffer.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "StorageServer/ObjectServer/ReadLease.h"
#include "StorageServer/S3Server/S3TagWaiters.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/CloudStorage.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::CloudStorage::S3 {
namespace {

using Tests::CFakeStorage;

// Waits for what other threads do; false when it never comes.
bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
}

// Takes all memory that clients may use.
TansyNet::CMemoryShare TakeAllMemory() {
  const TansyNet::CMemoryAccount& account = TansyNet::CMemoryAccount::Process();
  TansyNet::CMemoryShare all;
  EXPECT_TRUE(all.Resize(account.Limit() - account.Used()));
  return all;
}

// The bytes as most programs send them today: in unsigned chunks.
std::string InChunks(const std::string& bytes, std::size_t chunk) {
  std::string body;
  for (std::size_t at = 0; at < bytes.size(); at += chunk) {
    const std::string part = bytes.substr(at, chunk);
    char length[20];
    std::snprintf(length, sizeof length, "%zx\r\n", part.size());
    body.append(length).append(part).append("\r\n");
  }
  return body + "0\r\n\r\n";
}

class S3MemoryTest : public S3ServerTest {
 protected:
  ~S3MemoryTest() override { storage_.SetHook(nullptr); }

  S3Call ChunkedCall(const std::string& key, const std::string& bytes, std::size_t chunk) const {
    return {.method = "PUT",
            .path = PathOf(key),
            .body = InChunks(bytes, chunk),
            .headers = {{"x-amz-decoded-content-length", std::to_string(bytes.size())}},
            .payload = "STREAMING-UNSIGNED-PAYLOAD-TRAILER"};
  }
  std::int32_t Begin(const S3Call& call) { return http_.Deliver(&CS3Server::RecvMsgCallBack, SignedCall(call)); }
  std::int32_t BeginHead(const std::string& key) { return Begin({.method = "HEAD", .path = PathOf(key)}); }
  // How many bytes were read from the storage.
  std::uint64_t BytesRead() const {
    std::uint64_t bytes = 0;
    for (const CFakeStorage::Call& call : storage_.Calls("range")) {
      bytes += call.size;
    }
    return bytes;
  }
};

TEST_F(S3MemoryTest, ABodyInChunksIsDecodedWithoutFurtherMemory) {
  const std::string small = Pattern(kMebibyte + 7);
  const std::string large = Pattern(13 * kMebibyte);
  const S3Call large_call = ChunkedCall("large", large, 65536);
  const TansyNet::CMemoryShare all = TakeAllMemory();
  EXPECT_EQ(Outcome(Do(ChunkedCall("small", small, 1000))), "200");
  EXPECT_EQ(Outcome(Stream(SignedCall(large_call), large_call.body)), "200");
  EXPECT_TRUE(GetKey("small").body == small);
  const std::string url = [&] {
    ObjectInfo object;
    catalogue_.GetObjectByName(object, "large", bucket_);
    return object.url;
  }();
  EXPECT_TRUE(storage_.Bytes(url) == large);
}

// The caller of a delivery may keep the bytes; then they must stay as they are.
TEST_F(S3MemoryTest, ABodyThatOthersHaveTooIsNotChanged) {
  const std::string bytes = Pattern(50000);
  TansyNet::HttpServerRecv msg = SignedCall(ChunkedCall("k", bytes, 1000));
  const std::shared_ptr<const std::string> body = msg.body;
  const std::string before = *body;
  EXPECT_EQ(Outcome(Do(std::move(msg))), "200");
  EXPECT_TRUE(*body == before);
  EXPECT_TRUE(GetKey("k").body == bytes);
}

TEST_F(S3MemoryTest, CopiesThatWaitForMemoryHoldUpNobodyElse) {
  NewObject(bucket_, "from", Pattern(3 * kMebibyte));
  std::vector<std::int32_t> copies;
  {
    const TansyNet::CMemoryShare all = TakeAllMemory();
    for (int i = 0; i < 8; ++i) {
      copies.push_back(Begin({.method = "PUT",
                              .path = PathOf("to" + std::to_string(i)),
                              .headers = {{"x-amz-copy-source", PathOf("from")}}}));
    }
    EXPECT_EQ(Outcome(PutKey("quick", "hello")), "200");
    EXPECT_EQ(GetKey("quick").body, "hello");
    for (const std::int32_t copy : copies) {
      EXPECT_FALSE(http_.IsAnswered(copy)) << "there was no room for it";
    }
  }
  for (const std::int32_t copy : copies) {
    EXPECT_EQ(Outcome(http_.WaitForAnswer(copy, 60000)), "200");
  }
}

TEST_F(S3MemoryTest, TagsThatWaitForMemoryHoldUpNobodyElse) {
  http_.LendThreads(true);
  std::vector<std::int32_t> heads;
  {
    const TansyNet::CMemoryShare all = TakeAllMemory();
    for (int i = 0; i < 12; ++i) {
      const std::string key = "k" + std::to_string(i);
      NewObject(bucket_, key, Pattern(i % 2 == 0 ? 1000 : 2 * kMebibyte));
      heads.push_back(BeginHead(key));
    }
    EXPECT_EQ(Outcome(PutKey("quick", "hello")), "200");
    EXPECT_EQ(GetKey("quick").body, "hello");
  }
  for (std::size_t i = 0; i < heads.size(); ++i) {
    const FakeAnswer answer = http_.WaitForAnswer(heads[i], 60000);
    EXPECT_EQ(answer.response.headers.at("ETag"), Md5(Pattern(i % 2 == 0 ? 1000 : 2 * kMebibyte))) << i;
  }
}

TEST_F(S3MemoryTest, ATagIsComputedOnceHoweverManyAsk) {
  for (const std::size_t size : {std::size_t{1000}, 9 * kMebibyte}) {
    const std::string key = std::to_string(size);
    const std::string bytes = Pattern(size);
    NewObject(bucket_, key, bytes);
    std::promise<void> all_have_come;
    const std::shared_future<void> come = all_have_come.get_future().share();
    storage_.SetHook([come](const CFakeStorage::Call& call) {
      if (call.kind == "range") {
        come.wait();
      }
    });
    const std::uint64_t before = BytesRead();
    std::vector<std::int32_t> heads;
    for (int i = 0; i < 20; ++i) {
      heads.push_back(BeginHead(key));
    }
    // Every one of them waits for the tag; then no thread has more to do than to compute it.
    EXPECT_TRUE(Eventually([] { return CServerMsgLoop::Instance().GetWorkTaskCount() <= 1; })) << size;
    all_have_come.set_value();
    for (const std::int32_t head : heads) {
      EXPECT_EQ(http_.WaitForAnswer(head, 60000).response.headers.at("ETag"), Md5(bytes)) << size;
    }
    EXPECT_EQ(BytesRead() - before, size);
    EXPECT_EQ(CTagWaiters::Instance().Size(), 0U);
  }
}

TEST_F(S3MemoryTest, ATagThatNobodyWaitsForIsGivenUp) {
  const std::string bytes = Pattern(21 * kMebibyte);
  NewObject(bucket_, "k", bytes);
  std::atomic<std::int32_t> asking{0};
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.kind == "range") {
      EXPECT_TRUE(Eventually([&] { return asking != 0; }));
      http_.GoAway(asking);
    }
  });
  asking = BeginHead("k");
  EXPECT_TRUE(Eventually([&] { return !storage_.Calls("range").empty() && CTagWaiters::Instance().Size() == 0; }));
  EXPECT_EQ(storage_.Calls("range").size(), 1U) << "its client is gone";
  EXPECT_TRUE(KeptTags().empty());
  storage_.SetHook(nullptr);
  const FakeAnswer answer = http_.WaitForAnswer(BeginHead("k"), 60000);
  EXPECT_EQ(answer.response.headers.at("ETag"), Md5(bytes)) << "the next client gets it";
}

// Threads of the HTTP library that serve all its clients are lent to reads. They must not wait for disks and databases.
TEST_F(S3MemoryTest, ATagIsNeitherComputedNorWrittenOnALentThread) {
  NewObject(bucket_, "k", Pattern(1000));
  http_.LendThreads(true);
  const std::thread::id lent = std::this_thread::get_id();
  std::atomic<int> calls_there{0};
  std::atomic<int> calls{0};
  const auto note = [&] {
    ++calls;
    calls_there += std::this_thread::get_id() == lent ? 1 : 0;
  };
  storage_.SetHook([&](const CFakeStorage::Call&) { note(); });
  Database().SetHook([&](const std::string&) { note(); });
  const FakeAnswer answer = http_.WaitForAnswer(BeginHead("k"));
  storage_.SetHook(nullptr);
  Database().SetHook(nullptr);
  EXPECT_EQ(answer.response.headers.at("ETag"), Md5(Pattern(1000)));
  EXPECT_EQ(KeptTags().size(), 1U);
  EXPECT_GE(calls, 2);
  EXPECT_EQ(calls_there, 0);
}

class S3SlowCopyTest : public S3MemoryTest {
 protected:
  static inline std::atomic<std::int64_t> uptime_{0};

  S3SlowCopyTest() {
    TansyBase::TimeUtil::SetUptimeClock([] { return uptime_.load(); });
    NewObject(bucket_, "from", bytes_);
  }
  ~S3SlowCopyTest() override { TansyBase::TimeUtil::SetUptimeClock(nullptr); }

  std::int32_t BeginCopy() {
    return Begin({.method = "PUT", .path = PathOf("to"), .headers = {{"x-amz-copy-source", PathOf("from")}}});
  }

  const std::string bytes_ = Pattern(17 * kMebibyte);  // five chunks
};

TEST_F(S3SlowCopyTest, SaysNowAndThenThatItGoesOn) {
  storage_.SetHook([](const CFakeStorage::Call& call) { uptime_ += call.kind == "stream" ? 11 : 0; });
  const FakeAnswer answer = http_.WaitForAnswer(BeginCopy(), 60000);
  EXPECT_EQ(answer.response.status, 200);
  EXPECT_TRUE(answer.IsWhole());
  EXPECT_EQ(answer.chunks.size(), 5U) << "the head, three blanks, the document";
  EXPECT_TRUE(answer.body.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n   <CopyObjectResult"))
      << answer.body;
  EXPECT_EQ(answer.body.find("<?xml", 1), std::string::npos);
  EXPECT_EQ(Values(answer.body, "ETag").at(0), "&quot;" + Md5(bytes_).substr(1, 32) + "&quot;");
  EXPECT_EQ(answer.body.find_last_not_of('\n') + 1, answer.body.find("</CopyObjectResult>") + 19);
}

TEST_F(S3SlowCopyTest, SaysInTheDocumentThatItFailed) {
  std::atomic<int> writes{0};
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.kind == "stream") {
      uptime_ += 11;
      if (++writes == 3) {
        storage_.SetResult("stream", 1);
      }
    }
  });
  const FakeAnswer answer = http_.WaitForAnswer(BeginCopy(), 60000);
  EXPECT_EQ(answer.response.status, 200);
  EXPECT_TRUE(answer.IsWhole());
  EXPECT_EQ(Outcome(answer), "200 InternalError");
  EXPECT_EQ(Outcome(GetKey("to")), "404 NoSuchKey");
}

TEST_F(S3SlowCopyTest, EndsWhenItsClientIsGone) {
  std::atomic<std::int32_t> handle{0};
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.kind == "stream") {
      EXPECT_TRUE(Eventually([&] { return handle != 0; }));
      http_.GoAway(handle);
    }
  });
  handle = BeginCopy();
  EXPECT_TRUE(Eventually([&] { return http_.IsAnswered(handle); }));
  EXPECT_EQ(storage_.Calls("stream").size(), 1U);
  EXPECT_EQ(Outcome(GetKey("to")), "404 NoSuchKey");
}

// An object of many parts may have more of them than the host can keep open.
class S3LeaseTest : public S3MemoryTest {
 protected:
  using Texts = std::vector<std::string>;

  S3LeaseTest() {
    calls_.clear();
    SetReadLeaseCallbacks(&BeginLease, &EndLease);
  }
  ~S3LeaseTest() override { SetReadLeaseCallbacks(nullptr, nullptr); }

  static int BeginLease(const std::string& location) {
    calls_.push_back("begin " + location.substr(location.find(';') + 1));
    return calls_.back() == refused_ ? 1 : 0;
  }
  static void EndLease(const std::string& location) {
    calls_.push_back("end " + location.substr(location.find(';') + 1));
  }

  static inline Texts calls_;
  static inline std::string refused_;
};

TEST_F(S3LeaseTest, ARangeHoldsThePiecesThatItLiesInAndNoOthers) {
  using CloudStorage::details::CReadLease;
  CloudStorage::details::PieceList pieces;
  std::string all;
  for (int i = 0; i < 800; ++i) {
    const std::string url = "piece" + std::to_string(i);
    const std::string bytes = i == 501 ? std::string() : Pattern(10, static_cast<std::uint32_t>(i));
    storage_.Put(url, bytes);
    pieces.push_back({static_cast<std::uint32_t>(bytes.size()), url});
    all += bytes;
  }
  const std::string location = CloudStorage::details::LocationText(
      bucket_, CloudStorage::details::PieceListText(CloudStorage::details::PieceOwner("upload"), pieces));
  const S3ServerConfig config = S3Config();
  std::shared_ptr<CReadLease> lease = CReadLease::Begin(location, 20, 4995);
  ASSERT_NE(lease, nullptr);
  EXPECT_EQ(calls_, (Texts{"begin piece499", "begin piece500", "begin piece502"})) << "an empty piece is never read";
  for (const auto& [begin, size] : {std::pair(4995U, 20U), {4995U, 1U}, {4999U, 2U}, {5001U, 9U}, {5014U, 1U}}) {
    CloudStorage::details::HostBuffer buffer;
    ASSERT_EQ(lease->Read(config, buffer, size, begin), 0);
    EXPECT_EQ(std::string(buffer.data.get(), buffer.size), all.substr(begin, size)) << begin;
  }
  CloudStorage::details::HostBuffer outside;
  EXPECT_NE(lease->Read(config, outside, 1, 100), 0);
  lease.reset();
  EXPECT_EQ(calls_.size(), 6U);
  EXPECT_EQ(calls_.back(), "end piece502");
  // What was begun is ended when the host says that one of them is gone.
  calls_.clear();
  refused_ = "begin piece500";
  EXPECT_EQ(CReadLease::Begin(location, 20, 4995), nullptr);
  EXPECT_EQ(calls_, (Texts{"begin piece499", "begin piece500", "end piece499"}));
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
