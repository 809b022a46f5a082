// Storing objects: bodies that arrive whole and bodies that stream in.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "ObjectServerFixture.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "StorageServer/ObjectServer/ObjectServerTasks.h"
#include "StorageServer/ServerMsgLoop.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "fakes/HeldLoop.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::CObjectServer;
using CloudStorage::CServerMsgLoop;
using CloudStorage::ObjectInfo;
using CloudStorage::details::CBigFileStreamMgr;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kWholeLimit = 10485760;
constexpr const char* kNoBucket = "[%s]bucket name not exist[%s].[%s(%d)]";
constexpr const char* kKeyTooLong = "[%s]object key is too long, objectkey[%s].[%s(%d)]";
constexpr const char* kUploadFailed = "[%s]upload failed[%s].[%s(%d)]";
constexpr const char* kFinished = "[%s]recv object finished, session id[%d], size[%d:%d], url[%s].[%s(%d)]";
constexpr const char* kNoStream = "[%s]get stream info failed[%d].[%s(%d)]";
constexpr const char* kGaveUp = "[%s]recv msg failed[%d:%d], session id:%d.[%s(%d)]";
constexpr const char* kPiece = "[%s]handle object stream task[%s], size[%d].[%s(%d)]";
constexpr const char* kPieceNoBucket = "[%s]CObjectStreamTask bucket name not exist[%s].[%s(%d)]";
constexpr const char* kPieceFailed = "[%s]UploadStream failed[%d], bucket_name[%s], url[%s], size[%d].[%s(%d)]";
constexpr const char* kSaveFailed = "[%s]save file failed[%d].[%s(%d)]";

class CObjectServerWriteTest : public CObjectServerTest {
 protected:
  std::string Path(const std::string& key) const { return "/" + bucket_ + "/" + key; }
  bool IsStored(const std::string& key, ObjectInfo& object) { return catalogue_.GetObjectByName(object, key, bucket_); }

  // Streams a body as the HTTP library does and waits for the answer.
  FakeAnswer Stream(TansyNet::HttpServerRecv msg, const std::string& body, const std::vector<std::size_t>& pieces) {
    handle_ = http_.NewHandle();
    delivered_ = http_.Stream(handle_, &CObjectServer::RecvMsgCallBack, std::move(msg), body, pieces);
    return http_.WaitForAnswer(handle_);
  }
  FakeAnswer StreamSigned(const std::string& key, const std::string& body, const std::vector<std::size_t>& pieces) {
    return Stream(Signed({"PUT", Path(key), "", "", {}}), body, pieces);
  }
  // Waits until the loop has nothing to do any more. False when it is still at it after a time that is far below the
  // minute that a handler waits for the missing bytes of the uploads here.
  static bool WaitForQuietLoop() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (CServerMsgLoop::Instance().GetWorkTaskCount() != 0) {
      if (std::chrono::steady_clock::now() > end) {
        return false;
      }
      std::this_thread::yield();
    }
    return true;
  }
  bool HasNoStream() const { return streams_.IsStreamAbsent(static_cast<std::uint32_t>(handle_)); }

  const std::string bucket_ = NewBucket();
  CBigFileStreamMgr& streams_ = CBigFileStreamMgr::Instance();
  std::int32_t handle_ = 0;
  std::size_t delivered_ = 0;
};

TEST_F(CObjectServerWriteTest, ASmallBodyIsStoredWhole) {
  const CManualClock clock;
  const std::string body = Pattern(1000);
  EXPECT_TRUE(IsXml(Put(Path("k"), body), ""));

  const auto calls = storage_.Calls("save");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].location, "pool_name:" + bucket_ + ";");
  EXPECT_EQ(calls[0].size, 1000u);
  EXPECT_EQ(calls[0].flag, 1);
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_EQ(object.size, 1000u);
  EXPECT_EQ(object.update_time, "2026-11-03 08:05:09");
  EXPECT_EQ(storage_.Bytes(object.url), body);
  EXPECT_EQ(object.url.find("pool_name"), std::string::npos);
}

TEST_F(CObjectServerWriteTest, AnEmptyBodyIsAnEmptyObject) {
  EXPECT_TRUE(IsXml(Put(Path("k"), ""), ""));
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_EQ(object.size, 0u);
}

TEST_F(CObjectServerWriteTest, ChecksInTheirOrder) {
  const std::string long_key(129, 'k');
  // Bucket, key and signature are all wrong. The server looks at them in this order.
  EXPECT_TRUE(IsError(SendMessage(Message({"PUT", "/none/" + long_key, "", "x", {}})), 404, "NoSuchBucket"));
  EXPECT_EQ(log_->Count(kNoBucket, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kNoBucket),
              StartsWith("[Tansy::CloudStorage::CObjectServer::HandleUploadObject]bucket name not exist[none].["));
  EXPECT_TRUE(IsError(SendMessage(Message({"PUT", Path(long_key), "", "x", {}})), 400, "KeyTooLong"));
  EXPECT_EQ(log_->Count(kKeyTooLong, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kKeyTooLong), HasSubstr("object key is too long, objectkey[" + long_key + "].["));
  EXPECT_TRUE(IsError(SendMessage(Message({"PUT", Path("k"), "", "x", {}})), 403, "AccessDenied"));
  EXPECT_TRUE(storage_.Calls("save").empty());
}

TEST_F(CObjectServerWriteTest, TheLongestKey) {
  EXPECT_TRUE(IsXml(Put(Path(std::string(128, 'k')), "x"), ""));
  EXPECT_TRUE(IsError(Put(Path(std::string(129, 'k')), "x"), 400, "KeyTooLong"));
}

TEST_F(CObjectServerWriteTest, StorageResults) {
  storage_.SetResult("save", 3);
  EXPECT_TRUE(IsError(Put(Path("k"), "x"), 500, "NotEnoughSpace"));
  storage_.SetResult("save", 1);
  EXPECT_TRUE(IsError(Put(Path("k"), "x"), 500, "ServerInternalError"));
  storage_.SetResult("save", -1);
  EXPECT_TRUE(IsError(Put(Path("k"), "x"), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kUploadFailed, logging::kError), 3u);
  EXPECT_THAT(log_->Text(kUploadFailed), HasSubstr("HandleUploadObject]upload failed[k].["));
  ObjectInfo object;
  EXPECT_FALSE(IsStored("k", object));
}

TEST_F(CObjectServerWriteTest, ACatalogueThatRefuses) {
  Database().FailStatementsWith("INSERT INTO platform.local_object");
  EXPECT_TRUE(IsError(Put(Path("k"), "x"), 500, "ServerInternalError"));
  Database().Heal();
  ObjectInfo object;
  EXPECT_FALSE(IsStored("k", object));
}

TEST_F(CObjectServerWriteTest, AStorageWithoutCallbacksIsAnError) {
  CloudStorage::StorageServerConfig_V1 config = Config();
  config.save_object = nullptr;
  config.stream_save = nullptr;
  server_.Init(config);
  EXPECT_TRUE(IsError(Put(Path("k"), "x"), 500, "ServerInternalError"));
  EXPECT_TRUE(IsError(StreamSigned("k", Pattern(11 * kMiB), {kWholeLimit}), 500, "ServerInternalError"));
  EXPECT_TRUE(IsError(Post(Path("k"), "uploads"), 500, "ServerInternalError"));
}

TEST_F(CObjectServerWriteTest, TheLargestWholeBody) {
  EXPECT_TRUE(IsXml(Put(Path("k"), Pattern(kWholeLimit)), ""));
  EXPECT_EQ(storage_.Calls("save").size(), 1u);
  EXPECT_TRUE(storage_.Calls("stream").empty());
}

TEST_F(CObjectServerWriteTest, OneByteMoreStreams) {
  const std::string body = Pattern(kWholeLimit + 1);
  EXPECT_TRUE(IsXml(StreamSigned("k", body, {kWholeLimit}), ""));

  const auto calls = storage_.Calls("stream");
  ASSERT_EQ(calls.size(), 2u);
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_EQ(calls[0].location, "pool_name:" + bucket_ + ";");
  EXPECT_EQ(calls[0].offset, 0u);
  EXPECT_EQ(calls[1].location, "pool_name:" + bucket_ + ";" + object.url);
  EXPECT_EQ(calls[1].offset, kWholeLimit);
  EXPECT_EQ(calls[1].size, 1u);
  EXPECT_EQ(object.size, body.size());
  EXPECT_EQ(storage_.Bytes(object.url), body);
  EXPECT_TRUE(storage_.Calls("save").empty());
  EXPECT_TRUE(HasNoStream());

  EXPECT_EQ(log_->Count(kPiece, logging::kTrace), 2u);
  EXPECT_THAT(log_->Text(kFinished),
              HasSubstr("session id[" + std::to_string(handle_) + "], size[10485761:10485761], url[" + object.url));
  EXPECT_EQ(log_->Count(kFinished, logging::kTrace), 1u);
}

TEST_F(CObjectServerWriteTest, PiecesOfAnySizeComeInOrder) {
  const std::string body = Pattern(11 * kMiB, 7);
  std::mt19937 random(20261103);
  std::vector<std::size_t> pieces;
  for (std::size_t sum = 0; sum < body.size(); sum += pieces.back()) {
    pieces.push_back(1 + random() % (kMiB / 2));
  }
  EXPECT_TRUE(IsXml(StreamSigned("k", body, pieces), ""));
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_TRUE(storage_.Bytes(object.url) == body);
}

TEST_F(CObjectServerWriteTest, AnEmptyLastPieceStoresNothingMore) {
  const std::string body = Pattern(11 * kMiB);
  handle_ = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = static_cast<std::uint32_t>(body.size());
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, body, false);
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, "", true);
  EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle_), ""));
  EXPECT_EQ(storage_.Calls("stream").size(), 1u);
}

TEST_F(CObjectServerWriteTest, ManyUploadsAtOnce) {
  constexpr int kUploads = 12;
  std::vector<std::string> bodies(kUploads);
  std::vector<std::thread> clients;
  for (int i = 0; i < kUploads; ++i) {
    clients.emplace_back([this, i, &body = bodies[static_cast<std::size_t>(i)]] {
      body = Pattern(kWholeLimit + 1 + static_cast<std::size_t>(i), static_cast<std::uint32_t>(i) + 1);
      std::mt19937 random(static_cast<unsigned>(i));
      std::vector<std::size_t> pieces;
      for (int piece = 0; piece < 30; ++piece) {
        pieces.push_back(1 + random() % kMiB);
      }
      const std::int32_t handle = http_.NewHandle();
      http_.Stream(handle, &CObjectServer::RecvMsgCallBack, Signed({"PUT", Path("k" + std::to_string(i)), "", "", {}}),
                   body, pieces);
      EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle), ""));
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  for (int i = 0; i < kUploads; ++i) {
    ObjectInfo object;
    ASSERT_TRUE(IsStored("k" + std::to_string(i), object));
    EXPECT_TRUE(storage_.Bytes(object.url) == bodies[static_cast<std::size_t>(i)]) << i;
  }
}

// A storage that lets nobody go on before it is told to, and counts who is in it.
class CGate {
 public:
  // For the storage's calls of streams.
  void Pass() {
    std::unique_lock lock(mutex_);
    ++inside_;
    ++entered_;
    most_ = std::max(most_, inside_);
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_ || passes_ > 0; });
    passes_ -= open_ ? 0 : 1;
    --inside_;
    changed_.notify_all();
  }
  // Waits until so many calls have come in altogether; false when they do not come.
  bool WaitForEntered(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return entered_ >= count; });
  }
  void LetOnePass() {
    const std::lock_guard lock(mutex_);
    ++passes_;
    changed_.notify_all();
  }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  int Inside() const {
    const std::lock_guard lock(mutex_);
    return inside_;
  }
  int Most() const {
    const std::lock_guard lock(mutex_);
    return most_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int inside_ = 0;
  int entered_ = 0;
  int most_ = 0;
  int passes_ = 0;
  bool open_ = false;
};

// Twelve uploads whose first pieces are with a storage that takes them as slowly as the gate has it.
class CObjectServerSlowStorageTest : public CObjectServerWriteTest {
 protected:
  static constexpr int kUploads = 12;
  static constexpr int kAtATime = CServerMsgLoop::kThreads / 2;

  CObjectServerSlowStorageTest() {
    storage_.SetHook([this](const CFakeStorage::Call& call) {
      if (call.kind == "stream") {
        gate_.Pass();
      }
    });
    for (int i = 0; i < kUploads; ++i) {
      const std::int32_t handle = handles_.emplace_back(http_.NewHandle());
      clients_.emplace_back([this, i, handle] {
        http_.Stream(handle, &CObjectServer::RecvMsgCallBack,
                     Signed({"PUT", Path("k" + std::to_string(i)), "", "", {}}), BodyOf(i),
                     std::vector<std::size_t>(2, 4 * kMiB));
      });
    }
  }
  ~CObjectServerSlowStorageTest() override {
    gate_.Open();
    for (std::thread& client : clients_) {
      client.join();
    }
    for (const std::int32_t handle : handles_) {
      EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle, 60000), ""));
    }
    storage_.SetHook(nullptr);
  }
  static std::string BodyOf(int upload) { return Pattern(11 * kMiB, static_cast<std::uint32_t>(upload) + 1); }

  CGate gate_;
  std::vector<std::int32_t> handles_;
  std::vector<std::thread> clients_;
};

TEST_F(CObjectServerSlowStorageTest, HalfOfTheThreadsWaitForItAndTheOthersServe) {
  ASSERT_TRUE(gate_.WaitForEntered(kAtATime)) << "different uploads are stored side by side";
  // All of this happens while no piece is stored: every answer passes the waiting pieces.
  NewObject(bucket_, "small", "x");
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Get(Path("small")).body, "x");
    EXPECT_TRUE(IsXml(Put(Path("other"), "y"), ""));
  }
  EXPECT_EQ(gate_.Inside(), kAtATime);
  EXPECT_EQ(gate_.Most(), kAtATime);
}

TEST_F(CObjectServerSlowStorageTest, LastPiecesLeaveTheOtherThreadsAloneToo) {
  // Two of three pieces of each upload are in; what is left are last pieces, whose handlers follow them.
  for (int i = 0; i < 2 * kUploads; ++i) {
    ASSERT_TRUE(gate_.WaitForEntered(i + 1));
    gate_.LetOnePass();
  }
  ASSERT_TRUE(gate_.WaitForEntered(2 * kUploads + kAtATime));
  EXPECT_TRUE(IsXml(Put(Path("other"), "y"), ""));
  EXPECT_EQ(Get(Path("other")).body, "y");
  EXPECT_EQ(gate_.Most(), kAtATime);
}

TEST_F(CObjectServerSlowStorageTest, EachUploadKeepsItsOrder) {
  gate_.Open();
  for (int i = 0; i < kUploads; ++i) {
    EXPECT_TRUE(IsXml(http_.WaitForAnswer(handles_[static_cast<std::size_t>(i)], 60000), ""));
    ObjectInfo object;
    ASSERT_TRUE(IsStored("k" + std::to_string(i), object));
    EXPECT_TRUE(storage_.Bytes(object.url) == BodyOf(i)) << i;
  }
}

// The library sends a piece when the one before is stored. Should it not, they are stored in their order all the same.
TEST_F(CObjectServerWriteTest, PiecesThatDoNotWaitForEachOtherKeepTheirOrder) {
  const std::string body = Pattern(12 * kMiB);
  CGate gate;
  storage_.SetHook([&](const CFakeStorage::Call&) { gate.Pass(); });
  handle_ = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = static_cast<std::uint32_t>(body.size());
  for (std::size_t i = 0; i < 12; ++i) {
    http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, body.substr(i * kMiB, kMiB), i == 11, false);
  }
  ASSERT_TRUE(gate.WaitForEntered(1));
  gate.Open();
  EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle_), ""));
  EXPECT_EQ(gate.Most(), 1) << "one piece of an upload at a time";
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_TRUE(storage_.Bytes(object.url) == body);
}

TEST_F(CObjectServerWriteTest, APieceThatRunsOutOfMemoryEndsItsUploadAtOnce) {
  storage_.SetHook([](const CFakeStorage::Call& call) {
    if (call.kind == "stream") {
      throw std::bad_alloc();
    }
  });
  handle_ = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = 60 * kMiB;
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, Pattern(kMiB), false);
  EXPECT_TRUE(IsError(http_.WaitForAnswer(handle_), 500, "ServerInternalError")) << "no other piece is waited for";
  EXPECT_TRUE(HasNoStream());
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, "late", true);
  EXPECT_EQ(http_.AnswerOf(handle_).attempts, 1);
  EXPECT_TRUE(WaitForQuietLoop()) << "nobody waits for the rest";
}

TEST_F(CObjectServerWriteTest, ALastPieceThatRunsOutOfMemoryIsAnsweredOnce) {
  std::atomic<int> calls{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (++calls == 2) {
      throw std::bad_alloc();
    }
  });
  EXPECT_TRUE(IsError(StreamSigned("k", Pattern(60 * kMiB), {kWholeLimit}), 500, "ServerInternalError"));
  EXPECT_TRUE(HasNoStream());
  EXPECT_EQ(http_.AnswerOf(handle_).attempts, 1);
}

// Its record would name its bytes as those of an upload under way for ever.
TEST_F(CObjectServerWriteTest, ARequestThatIsDroppedTakesItsUploadAlong) {
  handle_ = http_.NewHandle();
  const auto stream_id = static_cast<std::uint32_t>(handle_);
  ASSERT_TRUE(streams_.RegisterStream(stream_id));
  ASSERT_TRUE(streams_.UploadStream(stream_id, "bytes", 5, bucket_));
  streams_.NoteLastPiece(stream_id);
  std::make_unique<CloudStorage::CObjectMsgTask>(handle_, Signed({"PUT", Path("k"), "", "", {}})).reset();
  EXPECT_TRUE(IsError(http_.AnswerOf(handle_), 500, "ServerInternalError"));
  EXPECT_TRUE(HasNoStream());
}

// Until the row is there, nothing but the record says that the bytes belong to somebody.
TEST_F(CObjectServerWriteTest, AnUploadIsUnderWayUntilItsRowIsWritten) {
  std::vector<std::string> under_way;
  Database().SetHook([&](const std::string& sql) {
    if (sql.find("INSERT INTO platform.local_object ") != std::string::npos) {
      under_way = streams_.LocationsUnderWay([](std::uint32_t) { return false; });
    }
  });
  EXPECT_TRUE(IsXml(StreamSigned("k", Pattern(kWholeLimit + 1), {kWholeLimit}), ""));
  Database().SetHook(nullptr);
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_THAT(under_way, ::testing::ElementsAre(object.url));
  EXPECT_TRUE(HasNoStream());
}

TEST_F(CObjectServerWriteTest, TheNextPieceWaitsUntilTheLastIsStored) {
  CGate gate;
  storage_.SetHook([&](const CFakeStorage::Call&) { gate.Pass(); });
  handle_ = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "piece", {}});
  msg.content_length = 11 * kMiB;
  msg.error_code = TansyNet::kBodyPiece;
  auto token = std::make_shared<const int>(0);
  const std::weak_ptr<const int> watched = token;
  msg.token = std::move(token);
  CObjectServer::RecvMsgCallBack(handle_, msg);
  msg = {};
  ASSERT_TRUE(gate.WaitForEntered(1));
  EXPECT_FALSE(watched.expired()) << "the piece is with the storage";
  gate.Open();
  ASSERT_TRUE(WaitForQuietLoop());
  EXPECT_TRUE(watched.expired()) << "stored: the next one may come";
}

// A window for dates, and a clock that stands at the date of every signed request here.
class CObjectServerDatedUploadTest : public CObjectServerWriteTest {
 protected:
  CObjectServerDatedUploadTest() { CloudStorage::SetSignatureDateWindow(15); }
  ~CObjectServerDatedUploadTest() override { CloudStorage::SetSignatureDateWindow(0); }

  void DeliverPart(const std::string& piece, bool last) {
    TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
    msg.content_length = 11 * kMiB;
    http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, piece, last);
  }

  CManualClock clock_;
};

TEST_F(CObjectServerDatedUploadTest, AnUploadMayTakeLongerThanTheWindow) {
  handle_ = http_.NewHandle();
  DeliverPart(Pattern(10 * kMiB), false);
  clock_.Advance(3600);
  DeliverPart(Pattern(kMiB), true);
  EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle_), ""));
  ObjectInfo object;
  EXPECT_TRUE(IsStored("k", object));
}

TEST_F(CObjectServerDatedUploadTest, AnUploadThatBeginsLaterThanTheWindowIsRefused) {
  clock_.Advance(3600);
  for (const bool last : {false, true}) {
    handle_ = http_.NewHandle();
    DeliverPart(Pattern(11 * kMiB), last);
    EXPECT_TRUE(IsError(http_.WaitForAnswer(handle_), 403, "AccessDenied")) << last;
  }
  EXPECT_TRUE(IsError(Put(Path("k"), "x"), 403, "AccessDenied"));
  EXPECT_TRUE(storage_.Calls("stream").empty());
}

TEST_F(CObjectServerWriteTest, UploadsAreRefusedAtTheirFirstPiece) {
  const std::string body = Pattern(11 * kMiB);
  const std::string long_key(129, 'k');
  const auto first_of_many = std::vector<std::size_t>(11, kMiB);

  EXPECT_TRUE(
      IsError(Stream(Message({"PUT", "/none/" + long_key, "", "", {}}), body, first_of_many), 404, "NoSuchBucket"));
  EXPECT_EQ(delivered_, 1u);
  EXPECT_TRUE(HasNoStream());
  EXPECT_EQ(log_->Count(kNoBucket, logging::kError), 1u);
  EXPECT_TRUE(IsError(Stream(Message({"PUT", Path(long_key), "", "", {}}), body, first_of_many), 400, "KeyTooLong"));
  EXPECT_EQ(delivered_, 1u);
  EXPECT_TRUE(HasNoStream());
  EXPECT_TRUE(IsError(Stream(Message({"PUT", Path("k"), "", "", {}}), body, first_of_many), 403, "AccessDenied"));
  EXPECT_EQ(delivered_, 1u);
  EXPECT_TRUE(HasNoStream());
  EXPECT_TRUE(storage_.Calls("stream").empty());
}

TEST_F(CObjectServerWriteTest, BodiesThatNoUploadTakesAreAnsweredByTheirHandlers) {
  const std::string body = Pattern(11 * kMiB);
  const auto pieces = std::vector<std::size_t>(11, kMiB);
  // A bucket's body arrives empty, which is no XML.
  EXPECT_TRUE(
      IsError(Stream(Signed({"PUT", "/too-big-a-bucket", "", "", {}}), body, pieces), 400, "InvalidXmlContent"));
  EXPECT_EQ(delivered_, 1u);
  EXPECT_TRUE(HasNoStream());
  EXPECT_TRUE(IsError(Stream(Signed({"PUT", "/" + bucket_, "", "", {}}), body, pieces), 409, "BucketAlreadyExists"));
  EXPECT_TRUE(IsError(Stream(Message({"PUT", "/too-big-a-bucket", "", "", {}}), body, pieces), 403, "AccessDenied"));
  EXPECT_TRUE(IsError(Stream(Signed({"PUT", Path("k"), "x=1", "", {}}), body, pieces), 400, "URLNotSupport"));
  EXPECT_TRUE(IsError(Stream(Signed({"PUT", Path("a/b"), "", "", {}}), body, pieces), 400, "URLNotSupport"));
  EXPECT_EQ(delivered_, 1u);
  EXPECT_TRUE(HasNoStream());
  EXPECT_TRUE(storage_.Calls("stream").empty());
}

TEST_F(CObjectServerWriteTest, ALatePieceOfARefusedUploadIsDropped) {
  TansyNet::HttpServerRecv msg = Message({"PUT", Path("k"), "", "", {}});
  msg.content_length = 11 * kMiB;
  handle_ = http_.NewHandle();
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, "first", false);
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, "late", false);
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, "last", true);
  EXPECT_EQ(http_.AnswerOf(handle_).attempts, 1);
  EXPECT_TRUE(HasNoStream());
  EXPECT_EQ(CServerMsgLoop::Instance().GetWorkTaskCount(), 0u);
}

TEST_F(CObjectServerWriteTest, APieceThatCannotBeStoredIsAnsweredAtTheNext) {
  storage_.SetResult("stream", 3);
  const FakeAnswer answer = StreamSigned("k", Pattern(11 * kMiB), std::vector<std::size_t>(11, kMiB));
  EXPECT_TRUE(IsError(answer, 500, "ServerInternalError"));
  EXPECT_EQ(delivered_, 2u);
  EXPECT_EQ(storage_.Calls("stream").size(), 1u);
  EXPECT_TRUE(HasNoStream());
  EXPECT_EQ(log_->Count(kSaveFailed, logging::kError), 1u);
  EXPECT_EQ(log_->Count(kNoStream, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kPieceFailed), HasSubstr("UploadStream failed[" + std::to_string(handle_) + "], bucket_name[" +
                                                  bucket_ + "], url[" + Path("k") + "], size[1048576]."));
  // The library would send no more; if it did, nothing would come of it.
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = 11 * kMiB;
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, "late", true);
  EXPECT_EQ(http_.AnswerOf(handle_).attempts, 1);
}

TEST_F(CObjectServerWriteTest, ALastPieceThatCannotBeStored) {
  std::atomic<int> calls{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (++calls == 2) {
      storage_.SetResult("stream", 1);
    }
  });
  EXPECT_TRUE(IsError(StreamSigned("k", Pattern(11 * kMiB), {kWholeLimit}), 500, "ServerInternalError"));
  EXPECT_EQ(delivered_, 2u);
  EXPECT_TRUE(HasNoStream());
  ObjectInfo object;
  EXPECT_FALSE(IsStored("k", object));
}

TEST_F(CObjectServerWriteTest, ABucketThatVanishesInTheMiddle) {
  std::atomic<int> calls{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (++calls == 2) {
      CloudStorage::BucketInfo bucket;
      ASSERT_TRUE(catalogue_.GetBucketByName(bucket, bucket_));
      ASSERT_TRUE(catalogue_.RemoveBucket(bucket.id));
    }
  });
  EXPECT_TRUE(IsError(StreamSigned("k", Pattern(11 * kMiB), std::vector<std::size_t>(11, kMiB)), 404, "NoSuchBucket"));
  EXPECT_EQ(calls, 2);
  EXPECT_THAT(log_->Text(kPieceNoBucket),
              HasSubstr("CObjectStreamTask::Exec]CObjectStreamTask bucket name not exist[" + bucket_ + "].["));
  EXPECT_EQ(log_->Count(kPieceNoBucket, logging::kError), 1u);
  EXPECT_EQ(delivered_, 4u) << "the piece after the one without a bucket is the last";
  EXPECT_TRUE(HasNoStream());
}

TEST_F(CObjectServerWriteTest, ABucketThatComesBackInTheMiddleDoesNotCloseTheGap) {
  handle_ = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = 11 * kMiB;
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, Pattern(kMiB), false);
  CloudStorage::BucketInfo bucket;
  ASSERT_TRUE(catalogue_.GetBucketByName(bucket, bucket_));
  ASSERT_TRUE(catalogue_.RemoveBucket(bucket.id));
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, Pattern(kMiB), false);
  ASSERT_TRUE(catalogue_.AddBucket(bucket));
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, Pattern(9 * kMiB), true);
  // The answer comes at once, because there is nothing to wait for.
  EXPECT_TRUE(IsError(http_.WaitForAnswer(handle_, 5000), 500, "ServerInternalError"));
  EXPECT_EQ(storage_.Calls("stream").size(), 1u);
  ObjectInfo object;
  EXPECT_FALSE(IsStored("k", object));
}

TEST_F(CObjectServerWriteTest, WhatWasGivenUpCountsForALaterRequestOfTheSameHandle) {
  handle_ = http_.NewHandle();
  const auto stream_id = static_cast<std::uint32_t>(handle_);
  ASSERT_TRUE(streams_.RegisterStream(stream_id));
  ASSERT_TRUE(streams_.UploadStream(stream_id, "left", 4, bucket_));
  ObjectInfo left;
  ASSERT_TRUE(streams_.GetStreamInfo(left, stream_id));

  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = kWholeLimit + 1;
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, Pattern(kWholeLimit - 3), true);
  EXPECT_TRUE(IsXml(http_.WaitForAnswer(handle_), ""));
  const auto calls = storage_.Calls("stream");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].offset, 4u);
  EXPECT_EQ(calls[1].location, "pool_name:" + bucket_ + ";" + left.url);
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_EQ(object.size, kWholeLimit + 1);
  EXPECT_EQ(storage_.Bytes(object.url), "left" + Pattern(kWholeLimit - 3));
}

TEST_F(CObjectServerWriteTest, BytesThatNeverComeAreGivenUp) {
  // Twenty MiB declared, ten delivered: a hundred rounds are the limit, one more is waited. Rounds take 200 ms.
  handle_ = http_.NewHandle();
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "", {}});
  msg.content_length = 20 * kMiB;
  const auto begin = std::chrono::steady_clock::now();
  http_.DeliverPiece(handle_, &CObjectServer::RecvMsgCallBack, msg, Pattern(kWholeLimit), true);
  EXPECT_TRUE(IsError(http_.WaitForAnswer(handle_, 40000), 500, "ServerInternalError"));
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, std::chrono::milliseconds(101 * 200));
  EXPECT_LT(waited, std::chrono::milliseconds(101 * 200 + 4000));
  EXPECT_EQ(log_->Count(kGaveUp, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kGaveUp), HasSubstr("recv msg failed[101:100], session id:" + std::to_string(handle_) + "."));
  // The record stays, and the bytes count for whoever asks with the same id.
  ObjectInfo stream;
  ASSERT_TRUE(streams_.GetStreamInfo(stream, static_cast<std::uint32_t>(handle_)));
  EXPECT_EQ(stream.size, kWholeLimit);
  streams_.RemoveStream(static_cast<std::uint32_t>(handle_));
}

TEST_F(CObjectServerWriteTest, AWholeBodyThatDeclaresMoreHasNoStream) {
  TansyNet::HttpServerRecv msg = Signed({"PUT", Path("k"), "", "x", {}});
  msg.content_length = kWholeLimit + 1;
  handle_ = http_.Deliver(&CObjectServer::RecvMsgCallBack, msg);
  EXPECT_TRUE(IsError(http_.WaitForAnswer(handle_), 500, "ServerInternalError"));
  EXPECT_EQ(log_->Count(kNoStream, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kNoStream),
              HasSubstr("HandleUploadObject]get stream info failed[" + std::to_string(handle_) + "].["));
}

TEST_F(CObjectServerWriteTest, PathsOfAnotherShape) {
  // Routing lets no such path through, but the stream task checks it too.
  EXPECT_TRUE(IsError(Put("/bucket/a/b", "x"), 400, "URLNotSupport"));

  CloudStorage::CObjectStreamTask(http_.NewHandle(), Message({"PUT", "/bucket/a/b", "", "x", {}})).Exec();
  EXPECT_THAT(log_->Text("[%s]CObjectStreamTask invalid url[%s].[%s(%d)]"),
              HasSubstr("CObjectStreamTask::Exec]CObjectStreamTask invalid url[/bucket/a/b].["));
  EXPECT_EQ(log_->Count("[%s]CObjectStreamTask invalid url[%s].[%s(%d)]", logging::kError), 1u);
  EXPECT_TRUE(storage_.Calls("stream").empty());
}

TEST_F(CObjectServerWriteTest, AStreamTaskHoldsItsToken) {
  TansyNet::HttpServerRecv msg = Message({"PUT", Path("k"), "", "x", {}});
  auto token = std::make_shared<const int>(0);
  const std::weak_ptr<const int> watched = token;
  msg.token = std::move(token);
  auto task = std::make_unique<CloudStorage::CObjectStreamTask>(http_.NewHandle(), msg);
  msg.token.reset();
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ(msg.body.use_count(), 2);  // shared, not copied
  task.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(msg.body.use_count(), 1);
}

TEST_F(CObjectServerWriteTest, AKeyIsReplaced) {
  EXPECT_TRUE(IsXml(Put(Path("k"), "old"), ""));
  EXPECT_TRUE(IsXml(Put(Path("k"), "newer"), ""));
  ObjectInfo object;
  ASSERT_TRUE(IsStored("k", object));
  EXPECT_EQ(object.size, 5u);
  EXPECT_EQ(storage_.Bytes(object.url), "newer");
}

}  // namespace
}  // namespace Tansy::Tests
