// Reading and removing objects, and the look-ups for hosts.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ObjectServerFixture.h"
#include "StorageServer/ObjectServer/ObjectServerBigSend.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "TansyCloudStorage/PictureServer.h"
#include "fakes/Latch.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::ByteRange;
using CloudStorage::CObjectServer;
using CloudStorage::ObjectInfo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::uint32_t kMiB = 1 << 20;
constexpr std::uint32_t kChunk = 10485760;
constexpr const char* kBytesType = "application/octet-stream; charset=utf-8";
constexpr const char* kInvalidUrl = "[%s]invalid url[%s][%s(%d)]";
constexpr const char* kNoBucket = "[%s]bucket name not exist[%s][%s(%d)]";
constexpr const char* kNoObject = "[%s]object name not exist[%s][%s(%d)]";
constexpr const char* kFailed = "[%s]download failed[%s][%s(%d)]";
constexpr const char* kBeyond = "[%s]download failed[%s], range_begin_value is greater than file size[%s(%d)]";
constexpr const char* kSuccess = "[%s]download file[%s:%s] success.[%s(%d)]";
constexpr const char* kSendFailed = "[%s]HttpServerSynSend error, revalue = %d, handle = %d[%s(%d)]";
constexpr const char* kRemoveNoBucket = "[%s]bucket not exist[%s].[%s(%d)]";

class CObjectServerReadTest : public CObjectServerTest {
 protected:
  std::string Path(const std::string& key) const { return "/" + bucket_ + "/" + key; }
  FakeAnswer GetRange(const std::string& key, const std::string& range) {
    return Get(Path(key), "", {{"Range", range}});
  }
  static ::testing::AssertionResult IsBytes(const FakeAnswer& answer, const std::string& bytes) {
    if (!answer.IsWhole() || answer.attempts != 1 || answer.response.status != 200 ||
        answer.response.content_type != kBytesType || !answer.response.headers.contains("Date")) {
      return ::testing::AssertionFailure() << answer.attempts << " answers, " << answer.response.status << " "
                                           << answer.response.content_type << ", " << answer.body.size() << " bytes";
    }
    return answer.body == bytes ? ::testing::AssertionSuccess()
                                : ::testing::AssertionFailure() << "other bytes: " << answer.body.substr(0, 100);
  }
  // An object whose bytes the picture service keeps.
  void NewPicture(const std::string& key, const std::string& url, const std::string& bytes) {
    ObjectInfo object;
    object.bucket_name = bucket_;
    object.name = key;
    object.size = bytes.size();
    object.url = url;
    ASSERT_TRUE(catalogue_.AddObject(object));
    storage_.Put(url, bytes);
    storage_.Put(url.substr(5), bytes);
    log_->Clear();
  }
  bool IsThere(const std::string& key) {
    ObjectInfo object;
    return catalogue_.GetObjectByName(object, key, bucket_);
  }

  const std::string bucket_ = NewBucket();
};

TEST_F(CObjectServerReadTest, AWholeObject) {
  const std::string bytes = Pattern(1000);
  const std::string location = NewObject(bucket_, "k", bytes);
  const FakeAnswer answer = Get(Path("k"));
  EXPECT_TRUE(IsBytes(answer, bytes));
  EXPECT_FALSE(answer.response.headers.contains("Content-Range"));
  const auto calls = storage_.Calls("range");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].location, "pool_name:" + bucket_ + ";" + location);
  EXPECT_EQ(calls[0].size, 1000u);
  EXPECT_EQ(calls[0].offset, 0u);
  EXPECT_EQ(log_->Count(kSuccess, logging::kNotable), 1u);
  EXPECT_THAT(log_->Text(kSuccess), StartsWith("[Tansy::CloudStorage::CObjectServer::HandleDownloadObject]download "
                                               "file[" +
                                               bucket_ + ":k] success.["));
}

TEST_F(CObjectServerReadTest, NothingIsReadForAnAnswerThatFindsNoRoom) {
  NewObject(bucket_, "k", Pattern(1000));
  CFakeHttpServer::Instance().HaveRoom(false);
  EXPECT_EQ(Get(Path("k")).response.status, 503);
  EXPECT_TRUE(storage_.Calls("range").empty());
  CFakeHttpServer::Instance().HaveRoom(true);
  EXPECT_TRUE(IsBytes(Get(Path("k")), Pattern(1000)));
}

TEST_F(CObjectServerReadTest, Ranges) {
  const std::string bytes = Pattern(1000);
  NewObject(bucket_, "k", bytes);
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=10-20"), bytes.substr(10, 10)));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=0-0"), bytes));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=10-"), bytes.substr(10)));
  EXPECT_TRUE(IsBytes(GetRange("k", "anything=999-1000"), bytes.substr(999)));
  EXPECT_TRUE(IsBytes(GetRange("k", "=1-2"), bytes.substr(1, 1)));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=0x10-0x20"), bytes.substr(16, 16)));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=010-16"), bytes.substr(8, 8)));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=x-5"), bytes.substr(0, 5)));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=1-2,5-9"), bytes.substr(1, 1)));
  EXPECT_FALSE(GetRange("k", "bytes=10-20").response.headers.contains("Content-Range"));
}

TEST_F(CObjectServerReadTest, AnEndBeyondTheObjectIsItsEnd) {
  const std::string bytes = Pattern(1000);
  NewObject(bucket_, "k", bytes);
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=990-2000"), bytes.substr(990)));
  EXPECT_EQ(storage_.Calls("range").back().size, 10u);
  for (const char* range : {"bytes=0-1001", "bytes=0-10485760", "bytes=0-10485761", "bytes=0-4294967295"}) {
    const FakeAnswer answer = GetRange("k", range);
    EXPECT_TRUE(IsBytes(answer, bytes)) << range;
    EXPECT_TRUE(answer.chunks.empty()) << range;
  }
  const std::string big = Pattern(15 * kMiB);
  NewObject(bucket_, "big", big);
  const FakeAnswer answer = GetRange("big", "bytes=0-4294967295");
  EXPECT_TRUE(IsBytes(answer, big));
  EXPECT_EQ(answer.total_size, 15 * kMiB);
  EXPECT_EQ(answer.response.headers.at("Content-Range"), "bytes 0-15728640/15728640");
}

TEST_F(CObjectServerReadTest, AnObjectBeyondThirtyTwoBitsIsNotServedInPart) {
  ObjectInfo object;
  object.bucket_name = bucket_;
  object.name = "k";
  object.url = "fs01huge.d";
  storage_.Put(object.url, Pattern(1000));
  for (const std::uint64_t size : {std::uint64_t{1} << 32, (std::uint64_t{1} << 32) + 20 * kMiB}) {
    object.size = size;
    ASSERT_TRUE(catalogue_.AddObject(object));
    EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError")) << size;
    EXPECT_TRUE(IsError(GetRange("k", "bytes=0-10"), 500, "ServerInternalError")) << size;
    EXPECT_TRUE(IsError(GetRange("k", "bytes=4284481536-"), 500, "ServerInternalError")) << size;
    EXPECT_EQ(Get(Path("k"), "metadata").response.headers.at("Object-Size"), std::to_string(size));
  }
  EXPECT_TRUE(storage_.Calls("range").empty());
  object.size = (std::uint64_t{1} << 32) - 1;
  ASSERT_TRUE(catalogue_.AddObject(object));
  EXPECT_TRUE(IsBytes(GetRange("k", "bytes=0-10"), Pattern(1000).substr(0, 10)))
      << "the largest object that has offsets";
}

// Puts other bytes in the place of an object, and makes the first read after that fail, as a host does whose old bytes
// are gone.
TEST_F(CObjectServerReadTest, AnObjectThatIsReplacedMeanwhileIsReadFromItsNewPlace) {
  NewObject(bucket_, "k", Pattern(1000, 1));
  std::atomic<int> reads{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    const bool first = ++reads == 1;
    if (first) {
      ObjectInfo object;
      EXPECT_TRUE(catalogue_.GetObjectByName(object, "k", bucket_));
      object.url = "fs01successor.d";
      storage_.Put(object.url, Pattern(1000, 2));
      EXPECT_TRUE(catalogue_.AddObject(object));
    }
    storage_.SetResult("range", first ? 1 : 0);
  });
  EXPECT_TRUE(IsBytes(Get(Path("k")), Pattern(1000, 2)));
  EXPECT_EQ(reads, 2);
}

// A removal frees the bytes before the object is gone from memory: whoever reads in between waits for its end.
TEST_F(CObjectServerReadTest, AnObjectThatIsRemovedMeanwhileIsNotThere) {
  NewObject(bucket_, "k", Pattern(1000));
  std::thread removal;
  std::promise<void> bytes_are_gone;
  std::promise<void> is_answered;
  storage_.SetHook([&](const CFakeStorage::Call&) {
    storage_.SetResult("range", 1);
    removal = std::thread([&] {
      const auto free_bytes = [&](const std::string&) {
        bytes_are_gone.set_value();
        // The answer must not come yet.
        EXPECT_EQ(is_answered.get_future().wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        return true;
      };
      EXPECT_TRUE(catalogue_.RemoveObject("k", bucket_, free_bytes));
    });
    bytes_are_gone.get_future().wait();
  });
  EXPECT_TRUE(IsError(Get(Path("k")), 404, "NoSuchKey"));
  is_answered.set_value();
  removal.join();
  EXPECT_EQ(log_->Count(kNoObject, logging::kError), 1u);
  EXPECT_EQ(log_->Count(kFailed), 0u);
}

TEST_F(CObjectServerReadTest, RangesThatMakeNoSense) {
  NewObject(bucket_, "k", Pattern(1000));
  for (const char* range : {"", "bytes", "bytes 0-1", "bytes=", "bytes=5", "bytes=-100", "bytes=-", "bytes=20-10",
                            "bytes=10-10", "bytes=99999999999-5", "bytes=99999999999-99999999999"}) {
    EXPECT_TRUE(IsError(GetRange("k", range), 400, "InvalidHttpContent")) << range;
  }
  EXPECT_EQ(log_->Count(kBeyond), 0u);
  for (const char* range : {"bytes=1000-", "bytes=1000-1001", "bytes=4294967295-", "bytes=99999999999999999999-"}) {
    EXPECT_TRUE(IsError(GetRange("k", range), 400, "InvalidHttpContent")) << range;
  }
  EXPECT_EQ(log_->Count(kBeyond, logging::kError), 4u);
  EXPECT_THAT(log_->Text(kBeyond), HasSubstr("download failed[k], range_begin_value"));
  EXPECT_TRUE(storage_.Calls("range").empty());
}

TEST_F(CObjectServerReadTest, RangeNumbersHaveThirtyTwoBits) {
  struct Case {
    const char* value;
    std::uint32_t begin;
    std::uint32_t end;
  };
  const Case cases[] = {{"bytes=0-4294967295", 0, 4294967295U},
                        {"bytes=0-4294967296", 0, 4294967295U},
                        {"bytes=0-18446744073709551616", 0, 4294967295U},
                        {"bytes=0-99999999999999999999999999", 0, 4294967295U},
                        {"bytes=5--1", 5, 4294967295U},
                        {"bytes=5--5", 5, 4294967291U},
                        {"bytes=5--4294967295", 0, 1},
                        {"bytes=5--99999999999999999999999", 5, 4294967295U},
                        {"bytes=5--4294967296", 5, 4294967295U}};
  for (const Case& c : cases) {
    TansyNet::HttpServerRecv msg;
    msg.headers["Range"] = c.value;
    ByteRange range;
    if (c.begin == 0 && c.end == 1) {  // wraps round to 1, which lies before the begin
      EXPECT_EQ(CObjectServer::ParseRangeHeader(msg, range), -18) << c.value;
      continue;
    }
    EXPECT_EQ(CObjectServer::ParseRangeHeader(msg, range), 0) << c.value;
    EXPECT_EQ(range.begin, c.begin) << c.value;
    EXPECT_EQ(range.end, c.end) << c.value;
  }
  TansyNet::HttpServerRecv none;
  ByteRange range{3, 4};
  EXPECT_EQ(CObjectServer::ParseRangeHeader(none, range), 0);
  EXPECT_EQ(range.begin, 0u);
  EXPECT_EQ(range.end, 0u);
}

TEST_F(CObjectServerReadTest, AnEmptyObjectHasNoFirstByte) {
  NewObject(bucket_, "k", "");
  EXPECT_TRUE(IsError(Get(Path("k")), 400, "InvalidHttpContent"));
}

TEST_F(CObjectServerReadTest, AShorterDeliveryShortensTheBody) {
  const std::string bytes = Pattern(1000);
  NewObject(bucket_, "k", bytes);
  storage_.ShortenReads(100);
  EXPECT_TRUE(IsBytes(Get(Path("k")), bytes.substr(0, 900)));
  storage_.ShortenReads(1000);
  EXPECT_TRUE(IsBytes(Get(Path("k")), ""));
}

TEST_F(CObjectServerReadTest, AStorageThatFails) {
  NewObject(bucket_, "k", Pattern(1000));
  storage_.SetResult("range", 1);
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kFailed, logging::kError), 1u);
}

TEST_F(CObjectServerReadTest, ASuccessWithoutBufferIsNotAnswered) {
  NewObject(bucket_, "k", Pattern(1000));
  storage_.DeliverNoBuffer(true);
  const std::int32_t handle = http_.NewHandle();
  EXPECT_EQ(server_.HandleObjectMsg(handle, Signed({"GET", Path("k"), "", "", {}})), -1);
  EXPECT_FALSE(http_.IsAnswered(handle));
}

TEST_F(CObjectServerReadTest, ChecksInTheirOrder) {
  NewObject(bucket_, "k", "bytes");
  for (const char* query : {"", "metadata"}) {
    log_->Clear();
    EXPECT_TRUE(IsError(SendMessage(Message({"GET", "/none/none", query, "", {}})), 404, "NoSuchBucket"));
    EXPECT_EQ(log_->Count(kNoBucket, logging::kError), 1u);
    EXPECT_TRUE(IsError(SendMessage(Message({"GET", Path("none"), query, "", {}})), 403, "AccessDenied"));
    EXPECT_TRUE(IsError(Get(Path("none"), query, {{"Range", "nonsense"}}), 404, "NoSuchKey"));
    EXPECT_EQ(log_->Count(kNoObject, logging::kError), 1u);
    EXPECT_THAT(log_->Text(kNoObject), HasSubstr("object name not exist[none]["));
  }
  for (const char* query : {"", "deletefile"}) {
    log_->Clear();
    EXPECT_TRUE(IsError(SendMessage(Message({"DELETE", "/none/none", query, "", {}})), 404, "NoSuchBucket"));
    EXPECT_EQ(log_->Count(kRemoveNoBucket, logging::kError), 1u);
    EXPECT_TRUE(IsError(SendMessage(Message({"DELETE", Path("none"), query, "", {}})), 403, "AccessDenied"));
    EXPECT_TRUE(IsError(Delete(Path("none"), query), 404, "NoSuchKey"));
    EXPECT_EQ(log_->Count(kNoObject, logging::kError), 1u);
  }
}

TEST_F(CObjectServerReadTest, Metadata) {
  NewObject(bucket_, "k", Pattern(12345));
  const FakeAnswer answer = Get(Path("k"), "metadata");
  EXPECT_TRUE(IsXml(answer, ""));
  EXPECT_EQ(answer.response.headers.at("Object-Size"), "12345");
  EXPECT_TRUE(storage_.Calls("range").empty());
  EXPECT_TRUE(IsError(Get(Path("none"), "metadata"), 404, "NoSuchKey"));
}

TEST_F(CObjectServerReadTest, TheTagNamesTheVersion) {
  NewObject(bucket_, "k", Pattern(kChunk + 1));
  const std::string tag = Get(Path("k"), "metadata").response.headers.at("ETag");
  EXPECT_THAT(tag, ::testing::MatchesRegex("\"[0-9a-f]{32}\""));
  EXPECT_EQ(Get(Path("k")).response.headers.at("ETag"), tag) << "of an answer in chunks";
  EXPECT_EQ(GetRange("k", "bytes=5-10").response.headers.at("ETag"), tag);

  const auto changed_tag = [&](auto change) {
    ObjectInfo object;
    EXPECT_TRUE(catalogue_.GetObjectByName(object, "k", bucket_));
    change(object);
    EXPECT_TRUE(catalogue_.AddObject(object));
    return Get(Path("k"), "metadata").response.headers.at("ETag");
  };
  const std::string other_place = changed_tag([](ObjectInfo& o) { o.url = "fs01elsewhere.d"; });
  const std::string other_size = changed_tag([](ObjectInfo& o) { o.size -= 1; });
  const std::string other_time = changed_tag([](ObjectInfo& o) { o.update_time = "2026-11-03 08:05:10"; });
  EXPECT_EQ((std::set<std::string>{tag, other_place, other_size, other_time}.size()), 4u);
}

// The leases that the server takes, in the order of the calls.
class CLeases {
 public:
  CLeases() {
    calls_.clear();
    refused_ = false;
    CloudStorage::SetReadLeaseCallbacks(&Begin, &End);
  }
  ~CLeases() { CloudStorage::SetReadLeaseCallbacks(nullptr, nullptr); }
  CLeases(const CLeases&) = delete;
  CLeases& operator=(const CLeases&) = delete;

  static void Refuse(bool refused) { refused_ = refused; }
  static void Note(const std::string& call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
    changed_.notify_all();
  }
  // Waits until there are so many calls, and gives them.
  static std::vector<std::string> Wait(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(60), [count] { return calls_.size() >= count; });
    return calls_;
  }

 private:
  static int Begin(const std::string& location) {
    Note("begin " + location);
    return refused_ ? 1 : 0;
  }
  static void End(const std::string& location) { Note("end " + location); }

  static inline std::mutex mutex_;
  static inline std::condition_variable changed_;
  static inline std::vector<std::string> calls_;
  static inline std::atomic<bool> refused_{false};
};

TEST_F(CObjectServerReadTest, ADownloadInChunksHoldsALease) {
  const CLeases leases;
  const std::string location = "pool_name:" + bucket_ + ";" + NewObject(bucket_, "k", Pattern(2 * kChunk));
  NewObject(bucket_, "small", Pattern(1000));
  storage_.SetHook([](const CFakeStorage::Call& call) { CLeases::Note(call.kind + " " + call.location); });
  EXPECT_TRUE(Get(Path("k")).IsWhole());
  EXPECT_THAT(CLeases::Wait(4),
              ElementsAre("begin " + location, "range " + location, "range " + location, "end " + location));
  storage_.SetHook(nullptr);
  EXPECT_TRUE(Get(Path("small")).IsWhole());
  EXPECT_EQ(CLeases::Wait(0).size(), 4u) << "one read needs no lease";
}

TEST_F(CObjectServerReadTest, ABrokenOffDownloadGivesItsLeaseBack) {
  const CLeases leases;
  const std::string location = "pool_name:" + bucket_ + ";" + NewObject(bucket_, "k", Pattern(2 * kChunk));
  storage_.SetResult("range", 1);
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
  EXPECT_THAT(CLeases::Wait(2), ElementsAre("begin " + location, "end " + location));
}

// A host frees its storage once the servers are down; a download that goes on must not come back to it.
TEST_F(CObjectServerReadTest, NoCallbackIsCalledOnceTheServersAreDown) {
  const CLeases leases;
  NewObject(bucket_, "k", Pattern(3 * kChunk));
  std::promise<void> reading;
  std::promise<void> go_on;
  std::atomic<int> reads{0};
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    CLeases::Note(call.kind + " " + call.location);
    if (++reads == 2) {
      reading.set_value();
      go_on.get_future().wait();
    }
  });
  const std::int32_t handle = http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", Path("k"), "", "", {}}));
  reading.get_future().wait();
  ASSERT_EQ(CloudStorage::SetObjectServerEnable(false), 0);
  auto uninit = std::async(std::launch::async, [] { return CloudStorage::UninitPicServer(); });
  EXPECT_EQ(uninit.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout) << "a callback is running";
  go_on.set_value();
  ASSERT_EQ(uninit.get(), 0);
  const std::vector<std::string> calls = CLeases::Wait(4);
  EXPECT_THAT(calls.back(), StartsWith("end "));
  http_.WaitForAnswer(handle);
  EXPECT_EQ(CLeases::Wait(0), calls);

  storage_.SetHook(nullptr);
  EXPECT_TRUE(CloudStorage::CServerMsgLoop::Instance().Start(4, 4, 5));
  EXPECT_EQ(CloudStorage::SetObjectServerEnable(true), 0);
}

TEST_F(CObjectServerReadTest, ALeaseThatTheHostRefusesHasNoEnd) {
  const CLeases leases;
  const std::string location = "pool_name:" + bucket_ + ";" + NewObject(bucket_, "k", Pattern(2 * kChunk));
  CLeases::Refuse(true);
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
  EXPECT_THAT(CLeases::Wait(1), ElementsAre("begin " + location));
  EXPECT_TRUE(storage_.Calls("range").empty());
}

TEST_F(CObjectServerReadTest, PicturesAreReadWholeByTheirUrl) {
  const std::string bytes = Pattern(1000);
  NewPicture("p", "/pic?name=1", bytes);
  EXPECT_TRUE(IsBytes(Get(Path("p")), bytes));
  const auto calls = storage_.Calls("read");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].location, "pool_name:" + bucket_ + ";/pic?name=1");
  EXPECT_EQ(calls[0].size, 1000u);
  EXPECT_EQ(calls[0].flag, 1);
  EXPECT_TRUE(IsBytes(GetRange("p", "bytes=0-1000"), bytes));
  EXPECT_EQ(storage_.Calls("read").size(), 2u);
}

TEST_F(CObjectServerReadTest, PartsOfPicturesAreReadByTheRestOfTheirUrl) {
  const std::string bytes = Pattern(1000);
  NewPicture("p", "/pic?name=1", bytes);
  EXPECT_TRUE(IsBytes(GetRange("p", "bytes=1-5"), bytes.substr(1, 4)));
  EXPECT_TRUE(IsBytes(GetRange("p", "bytes=0-999"), bytes.substr(0, 999)));
  const auto calls = storage_.Calls("range");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].location, "pool_name:" + bucket_ + ";name=1");
  EXPECT_TRUE(storage_.Calls("read").empty());
  storage_.SetResult("range", 1);
  storage_.SetResult("read", 1);
  EXPECT_TRUE(IsError(Get(Path("p")), 500, "ServerInternalError"));
  EXPECT_TRUE(IsError(GetRange("p", "bytes=1-5"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kFailed, logging::kError), 2u);
}

TEST_F(CObjectServerReadTest, BigPicturesAreSentWholeToo) {
  const std::string bytes = Pattern(kChunk + 1);
  NewPicture("p", "x/pic?name=1", bytes);
  const FakeAnswer answer = Get(Path("p"));
  EXPECT_TRUE(IsBytes(answer, bytes));
  EXPECT_TRUE(answer.chunks.empty());
}

TEST_F(CObjectServerReadTest, TenMiBAreSentInOnePiece) {
  const std::string bytes = Pattern(kChunk);
  NewObject(bucket_, "k", bytes);
  const FakeAnswer answer = Get(Path("k"));
  EXPECT_TRUE(IsBytes(answer, bytes));
  EXPECT_TRUE(answer.chunks.empty());
}

TEST_F(CObjectServerReadTest, TwentyFiveMiBAreSentInThreeChunks) {
  const std::string bytes = Pattern(25 * kMiB);
  const std::string location = NewObject(bucket_, "k", bytes);
  const FakeAnswer answer = Get(Path("k"));
  EXPECT_TRUE(IsBytes(answer, bytes));
  EXPECT_THAT(answer.chunks, ElementsAre(kChunk, kChunk, 5 * kMiB));
  EXPECT_EQ(answer.response.headers.at("Content-Range"), "bytes 0-26214400/26214400");
  const auto calls = storage_.Calls("range");
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].offset, 2 * kChunk);
  EXPECT_EQ(calls[2].location, "pool_name:" + bucket_ + ";" + location);
  EXPECT_EQ(log_->Count(kSuccess), 0u);
}

// Sets the size of chunks for the life of the object.
class CChunkSize {
 public:
  explicit CChunkSize(std::uint32_t bytes) { EXPECT_EQ(CloudStorage::SetDownloadChunk(bytes), 0); }
  ~CChunkSize() { CloudStorage::SetDownloadChunk(0); }
  CChunkSize(const CChunkSize&) = delete;
  CChunkSize& operator=(const CChunkSize&) = delete;
};

TEST_F(CObjectServerReadTest, AHostMayAskForSmallerChunks) {
  const std::string bytes = Pattern(kChunk + kMiB + 1);
  NewObject(bucket_, "k", bytes);
  const CChunkSize size(4 * kMiB);
  const FakeAnswer answer = Get(Path("k"));
  EXPECT_TRUE(IsBytes(answer, bytes));
  EXPECT_THAT(answer.chunks, ElementsAre(4 * kMiB, 4 * kMiB, 3 * kMiB + 1));
  EXPECT_TRUE(GetRange("k", "bytes=0-10485760").chunks.empty()) << "what is sent in one piece stays so";
}

TEST_F(CObjectServerReadTest, ChunksAreNeverEmptyNorLargerThanTheLargest) {
  const std::string bytes = Pattern(kChunk + kMiB + 1);
  NewObject(bucket_, "k", bytes);
  for (const std::uint32_t bytes_asked : {0u, kChunk + 1, 0xFFFFFFFFu}) {
    const CChunkSize size(bytes_asked);
    const FakeAnswer answer = Get(Path("k"));
    EXPECT_TRUE(IsBytes(answer, bytes)) << bytes_asked;
    EXPECT_THAT(answer.chunks, ElementsAre(kChunk, kMiB + 1)) << bytes_asked;
  }
}

TEST_F(CObjectServerReadTest, BigRanges) {
  const std::string bytes = Pattern(25 * kMiB);
  NewObject(bucket_, "k", bytes);
  FakeAnswer answer = GetRange("k", "bytes=5-");
  EXPECT_TRUE(IsBytes(answer, bytes.substr(5)));
  EXPECT_EQ(answer.response.headers.at("Content-Range"), "bytes 5-26214400/26214400");
  answer = GetRange("k", "bytes=100-10485861");
  EXPECT_TRUE(IsBytes(answer, bytes.substr(100, kChunk + 1)));
  EXPECT_THAT(answer.chunks, ElementsAre(kChunk, 1u));
  EXPECT_EQ(answer.response.headers.at("Content-Range"), "bytes 100-10485861/26214400");
  answer = GetRange("k", "bytes=100-10485860");
  EXPECT_TRUE(IsBytes(answer, bytes.substr(100, kChunk)));
  EXPECT_TRUE(answer.chunks.empty());
}

TEST_F(CObjectServerReadTest, ABigReadThatFailsAtOnceIsAnError) {
  NewObject(bucket_, "k", Pattern(25 * kMiB));
  storage_.SetResult("range", 1);
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
  EXPECT_THAT(log_->Text(kFailed), HasSubstr("HandleBigFileSend]download failed[k]["));
}

TEST_F(CObjectServerReadTest, ABigReadThatRunsOutOfMemoryIsAnswered) {
  NewObject(bucket_, "k", Pattern(25 * kMiB));
  std::atomic<int> reads{0};
  std::atomic<int> fatal{1};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (++reads == fatal) {
      throw std::bad_alloc();
    }
  });
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
  reads = 0;
  fatal = 2;
  EXPECT_TRUE(Get(Path("k")).cut) << "the head is out";
  storage_.SetHook(nullptr);
}

TEST_F(CObjectServerReadTest, ABigReadThatFailsInTheMiddleEndsTheConnection) {
  NewObject(bucket_, "k", Pattern(25 * kMiB));
  std::atomic<int> reads{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (++reads == 2) {
      storage_.SetResult("range", 1);
    }
  });
  const FakeAnswer answer = Get(Path("k"));
  EXPECT_TRUE(answer.cut);
  EXPECT_THAT(answer.chunks, ElementsAre(kChunk));
  EXPECT_EQ(answer.body.size(), kChunk);
}

TEST_F(CObjectServerReadTest, AShortChunkIsAFailedRead) {
  const std::string bytes = Pattern(25 * kMiB);
  NewObject(bucket_, "k", bytes);
  storage_.Put("fs01" + bucket_ + "-k.d", bytes.substr(0, 25 * kMiB - 1));
  const FakeAnswer answer = Get(Path("k"));
  EXPECT_TRUE(answer.cut);
  EXPECT_THAT(answer.chunks, ElementsAre(kChunk, kChunk));
  EXPECT_EQ(log_->Count(kFailed, logging::kError), 1u);
}

TEST_F(CObjectServerReadTest, ABigReadWithoutBufferIsAFailedRead) {
  NewObject(bucket_, "k", Pattern(25 * kMiB));
  storage_.DeliverNoBuffer(true);
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
}

TEST_F(CObjectServerReadTest, AClientThatGoesAwayEndsTheSending) {
  NewObject(bucket_, "k", Pattern(25 * kMiB));
  http_.FailSends(1007, 1);
  const std::int32_t handle = http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", Path("k"), "", "", {}}));
  for (int i = 0; i < 1000 && log_->Count(kSendFailed) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_THAT(
      log_->Text(kSendFailed),
      HasSubstr("HandleBigFileSend]HttpServerSynSend error, revalue = 1007, handle = " + std::to_string(handle) + "["));
  EXPECT_THAT(http_.AnswerOf(handle).chunks, ElementsAre(kChunk));
  EXPECT_EQ(storage_.Calls("range").size(), 2u);
}

TEST_F(CObjectServerReadTest, ManyBigDownloadsAtOnce) {
  const std::string bytes = Pattern(11 * kMiB);
  NewObject(bucket_, "k", bytes);
  constexpr int kDownloads = 12;  // more than the loop has threads
  // The first read of each waits for the first reads of all others.
  CLatch all(kDownloads);
  std::atomic<int> reads{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (reads++ < kDownloads) {
      all.ArriveAndWait();
    }
  });
  std::vector<std::int32_t> handles;
  for (int i = 0; i < kDownloads; ++i) {
    handles.push_back(http_.Deliver(&CObjectServer::RecvMsgCallBack, Signed({"GET", Path("k"), "", "", {}})));
  }
  for (const std::int32_t handle : handles) {
    EXPECT_TRUE(IsBytes(http_.WaitForAnswer(handle, 60000), bytes));
  }
}

TEST_F(CObjectServerReadTest, DownloadsBeyondTheThreadsWait) {
  using CloudStorage::details::CBigFileSendThreads;
  CBigFileSendThreads& threads = CBigFileSendThreads::Instance();
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  std::atomic<std::size_t> running{0};
  std::atomic<std::size_t> done{0};
  const auto job = [&, released] {
    ++running;
    released.wait();
    ++done;
  };
  constexpr std::size_t kAll = CBigFileSendThreads::kMaxThreads + CBigFileSendThreads::kMaxWaiting;
  for (std::size_t i = 0; i < kAll; ++i) {
    ASSERT_TRUE(threads.Run(job)) << i;
  }
  EXPECT_FALSE(threads.Run(job));
  // The next download gets an error of the protocol.
  NewObject(bucket_, "k", Pattern(11 * kMiB));
  EXPECT_TRUE(IsError(Get(Path("k")), 500, "ServerInternalError"));
  for (int i = 0; i < 1000 && running < CBigFileSendThreads::kMaxThreads; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(running, CBigFileSendThreads::kMaxThreads);
  release.set_value();
  for (int i = 0; i < 1000 && done < kAll; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(done, kAll);
  EXPECT_TRUE(Get(Path("k")).IsWhole());
}

TEST_F(CObjectServerReadTest, RemovingLeavesTheBytes) {
  const std::string location = NewObject(bucket_, "k", "bytes");
  EXPECT_TRUE(IsXml(Delete(Path("k")), ""));
  EXPECT_FALSE(IsThere("k"));
  EXPECT_EQ(storage_.Bytes(location), "bytes");
  EXPECT_TRUE(storage_.Calls("remove").empty());
}

TEST_F(CObjectServerReadTest, ARemovalThatTheDatabaseRefusesIsAnErrorAndChangesNothing) {
  const std::string location = NewObject(bucket_, "k", "bytes");
  Database().FailStatementsWith("DELETE FROM platform.local_object");
  for (const char* query : {"", "deletefile"}) {
    log_->Clear();
    EXPECT_TRUE(IsError(Delete(Path("k"), query), 500, "ServerInternalError")) << query;
    EXPECT_EQ(log_->Count("[%s]remove object[%s] failed, db operation failed.[%s(%d)]", logging::kError), 1u);
    EXPECT_EQ(log_->Count("[%s]object name not exist[%s][%s(%d)]", logging::kError), 1u);
    EXPECT_EQ(Get(Path("k")).body, "bytes");
  }
  EXPECT_TRUE(storage_.Calls("remove").empty());
  Database().Heal();
  EXPECT_TRUE(IsXml(Delete(Path("k"), "deletefile"), ""));
  EXPECT_TRUE(IsError(Get(Path("k")), 404, "NoSuchKey"));
  EXPECT_EQ(storage_.Calls("remove").size(), 1u);
}

// The new object is neither removed in the old one's place nor left without a name for its bytes.
TEST_F(CObjectServerReadTest, AnUploadBesideARemovalOfTheFileComesAfterIt) {
  NewObject(bucket_, "k", "old bytes");
  std::thread other;
  std::atomic<bool> done{false};
  storage_.SetHook([&](const CFakeStorage::Call& call) {
    if (call.kind == "remove") {
      other = std::thread([&] {
        EXPECT_TRUE(IsXml(Put(Path("k"), "new bytes"), ""));
        done = true;
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      EXPECT_FALSE(done) << "the upload does not wait for the removal";
    }
  });
  EXPECT_TRUE(IsXml(Delete(Path("k"), "deletefile"), ""));
  ASSERT_TRUE(other.joinable());
  other.join();
  EXPECT_EQ(Get(Path("k")).body, "new bytes");
}

TEST_F(CObjectServerReadTest, RemovingTheFileHandsItsResolvedPathOver) {
  NewObject(bucket_, "k", "bytes");
  EXPECT_TRUE(IsXml(Delete(Path("k"), "deletefile"), ""));
  EXPECT_FALSE(IsThere("k"));
  const auto calls = storage_.Calls("remove");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].location, "disk\\" + bucket_ + "\\k.d");
}

TEST_F(CObjectServerReadTest, RemovingAFileThatCannotBeFoundRemovesTheObject) {
  ObjectInfo object;
  object.bucket_name = bucket_;
  object.name = "k";
  object.size = 5;
  object.url = "no-such-form";
  ASSERT_TRUE(catalogue_.AddObject(object));
  EXPECT_TRUE(IsXml(Delete(Path("k"), "deletefile"), ""));
  EXPECT_FALSE(IsThere("k"));
  EXPECT_TRUE(storage_.Calls("remove").empty());
}

TEST_F(CObjectServerReadTest, AFileThatCannotBeRemovedKeepsTheObject) {
  NewObject(bucket_, "k", "bytes");
  storage_.SetResult("remove", -13);
  EXPECT_TRUE(IsError(Delete(Path("k"), "deletefile"), 404, "NoSuchKey"));
  EXPECT_TRUE(IsThere("k"));
  EXPECT_EQ(log_->Count(kFailed, logging::kError), 1u);
  // A result that is no error of the protocol is answered with empty texts.
  storage_.SetResult("remove", 5);
  const FakeAnswer answer = Delete(Path("k"), "deletefile");
  EXPECT_EQ(answer.response.status, 200);
  EXPECT_THAT(answer.body, HasSubstr("<Error>"));
  EXPECT_TRUE(IsThere("k"));
  EXPECT_EQ(Get(Path("k")).body, "bytes");
  EXPECT_EQ(Database().Column("SELECT * FROM platform.local_object WHERE bucket_name='" + bucket_ + "'", "name").size(),
            1u);
}

TEST_F(CObjectServerReadTest, ARemovalThatThrowsInTheStorageKeepsTheObject) {
  NewObject(bucket_, "k", "bytes");
  storage_.SetHook([](const CFakeStorage::Call& call) {
    if (call.kind == "remove") {
      throw std::runtime_error("the host's storage is not well");
    }
  });
  EXPECT_TRUE(IsError(Delete(Path("k"), "deletefile"), 500, "ServerInternalError"));
  EXPECT_EQ(Get(Path("k")).body, "bytes");
  const std::string rows = "SELECT * FROM platform.local_object WHERE bucket_name='" + bucket_ + "'";
  EXPECT_EQ(Database().Column(rows, "name").size(), 1u) << "gone after the next start";
  storage_.SetHook(nullptr);
  EXPECT_TRUE(IsXml(Delete(Path("k"), "deletefile"), ""));
  EXPECT_TRUE(Database().Column(rows, "name").empty());
}

TEST_F(CObjectServerReadTest, InternalUrls) {
  const std::string location = NewObject(bucket_, "k", "bytes");
  std::string url = "old";
  EXPECT_TRUE(server_.GetInternalURLByObjectUrl(url, Path("k")));
  EXPECT_EQ(url, location);
  url = "old";
  EXPECT_FALSE(server_.GetInternalURLByObjectUrl(url, "k"));
  EXPECT_THAT(log_->Text("[%s]GetInternalURLByObjectUrl, parse url[%s] error[%s(%d)]"),
              HasSubstr("parse url[k] error["));
  EXPECT_FALSE(server_.GetInternalURLByObjectUrl(url, Path("none")));
  EXPECT_FALSE(server_.GetInternalURLByObjectUrl(url, "/none/none"));
  EXPECT_EQ(url, "old");
  EXPECT_THAT(log_->Text("[%s]GetInternalURLByObjectUrl, bucket[%s] or object[%s] not exist.[%s(%d)]"),
              HasSubstr("bucket[none] or object[none] not exist."));
}

TEST_F(CObjectServerReadTest, RequestsThatTheHostReceived) {
  const std::string location = NewObject(bucket_, "k", "bytes");
  const auto check = [this](std::string path, bool sign, std::string& internal_url) {
    std::string method = "GET";
    std::string query;
    const TansyNet::HttpServerRecv msg =
        sign ? Signed({method, path, query, "", {}}) : Message({method, path, query, "", {}});
    std::map<std::string, std::string> headers = msg.headers;
    return server_.CheckObjectRequestValid(internal_url, path, method, query, headers);
  };
  std::string url = "old";
  EXPECT_EQ(check("k", true, url), -18);
  EXPECT_EQ(log_->Count(kInvalidUrl, logging::kError), 1u);
  EXPECT_EQ(check("/none/k", true, url), -12);
  EXPECT_EQ(log_->Count(kNoBucket, logging::kError), 1u);
  EXPECT_EQ(check(Path("k"), false, url), -1);
  EXPECT_EQ(check(Path("none"), true, url), -13);
  EXPECT_EQ(log_->Count(kNoObject, logging::kError), 1u);
  NewPicture("p", "/pic?name=1", "bytes");
  EXPECT_EQ(check(Path("p"), true, url), -19);
  EXPECT_EQ(url, "old");
  EXPECT_EQ(log_->Count(kSuccess), 0u);

  EXPECT_EQ(check(Path("k"), true, url), 0);
  EXPECT_EQ(url, "pool_name:" + bucket_ + ";" + location);
  EXPECT_EQ(log_->Count(kSuccess, logging::kNotable), 1u);
}

}  // namespace
}  // namespace Tansy::Tests
