#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ObjectServerFixture.h"
#include "StorageServer/ObjectServer/BigFileStreamMgr.h"
#include "fakes/Latch.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::ObjectInfo;
using CloudStorage::details::CBigFileStreamMgr;
using CloudStorage::details::StreamEnd;
using std::chrono::milliseconds;
using ::testing::HasSubstr;

constexpr const char* kNoRecord = "[%s]get object failed, session id[%d].[%s(%d)]";
constexpr const char* kSaveFailed = "[%s]save file failed[%d].[%s(%d)]";

class CObjectServerStreamMgrTest : public CObjectServerTest {
 protected:
  ~CObjectServerStreamMgrTest() override { streams_.RemoveStream(id_); }

  CBigFileStreamMgr& streams_ = CBigFileStreamMgr::Instance();
  const std::uint32_t id_ = static_cast<std::uint32_t>(http_.NewHandle());
};

TEST_F(CObjectServerStreamMgrTest, ARecordFromItsRegistrationToItsRemoval) {
  ObjectInfo info;
  EXPECT_TRUE(streams_.IsStreamAbsent(id_));
  EXPECT_FALSE(streams_.GetStreamInfo(info, id_));
  EXPECT_FALSE(streams_.RemoveStream(id_));

  EXPECT_TRUE(streams_.RegisterStream(id_));
  EXPECT_FALSE(streams_.RegisterStream(id_));
  EXPECT_FALSE(streams_.IsStreamAbsent(id_));
  ASSERT_TRUE(streams_.GetStreamInfo(info, id_));
  EXPECT_EQ(info.size, 0u);
  EXPECT_EQ(info.url, "");

  EXPECT_TRUE(streams_.RemoveStream(id_));
  EXPECT_FALSE(streams_.RemoveStream(id_));
  EXPECT_TRUE(streams_.IsStreamAbsent(id_));
}

TEST_F(CObjectServerStreamMgrTest, PiecesAreAppended) {
  ASSERT_TRUE(streams_.RegisterStream(id_));
  EXPECT_TRUE(streams_.UploadStream(id_, "abc", 3, "b"));
  ObjectInfo info;
  ASSERT_TRUE(streams_.GetStreamInfo(info, id_));
  EXPECT_EQ(info.size, 3u);
  const std::string url = info.url;
  EXPECT_TRUE(streams_.UploadStream(id_, "de", 2, "b"));
  ASSERT_TRUE(streams_.GetStreamInfo(info, id_));
  EXPECT_EQ(info.size, 5u);
  EXPECT_EQ(storage_.Bytes(info.url), "abcde");
  const auto calls = storage_.Calls("stream");
  EXPECT_EQ(calls[0].location, "pool_name:b;");
  EXPECT_EQ(calls[1].location, "pool_name:b;" + url);
  EXPECT_EQ(calls[1].offset, 3u);
}

TEST_F(CObjectServerStreamMgrTest, WhatCannotBeAppended) {
  EXPECT_FALSE(streams_.UploadStream(id_, "abc", 3, "b"));
  EXPECT_THAT(log_->Text(kNoRecord), HasSubstr("session id[" + std::to_string(id_) + "]."));
  ASSERT_TRUE(streams_.RegisterStream(id_));
  storage_.SetResult("stream", 3);
  EXPECT_FALSE(streams_.UploadStream(id_, "abc", 3, "b"));
  EXPECT_THAT(log_->Text(kSaveFailed), HasSubstr("save file failed[3]."));
  ObjectInfo info;
  ASSERT_TRUE(streams_.GetStreamInfo(info, id_));
  EXPECT_EQ(info.size, 0u);
}

TEST_F(CObjectServerStreamMgrTest, ARecordThatGoesWhileItsPieceIsStored) {
  ASSERT_TRUE(streams_.RegisterStream(id_));
  storage_.SetHook([this](const CFakeStorage::Call&) { streams_.RemoveStream(id_); });
  EXPECT_FALSE(streams_.UploadStream(id_, "abc", 3, "b"));
  EXPECT_TRUE(streams_.IsStreamAbsent(id_));
}

TEST_F(CObjectServerStreamMgrTest, WaitingEndsWithTheChange) {
  ASSERT_TRUE(streams_.RegisterStream(id_));
  EXPECT_FALSE(streams_.WaitForChange(id_, 0, milliseconds(5)));
  EXPECT_TRUE(streams_.WaitForChange(id_, 1, milliseconds(10000)));

  auto stored = std::async(std::launch::async, [this] { return streams_.WaitForChange(id_, 0, milliseconds(10000)); });
  EXPECT_TRUE(streams_.UploadStream(id_, "abc", 3, "b"));
  EXPECT_TRUE(stored.get());

  auto gone = std::async(std::launch::async, [this] { return streams_.WaitForChange(id_, 3, milliseconds(10000)); });
  streams_.EndStream(id_, StreamEnd::kFailed);
  EXPECT_TRUE(gone.get());
}

TEST_F(CObjectServerStreamMgrTest, NoRoundEndsWhileAPieceIsWithTheStorage) {
  ASSERT_TRUE(streams_.RegisterStream(id_));
  std::promise<void> entered;
  std::promise<void> release;
  storage_.SetHook([&](const CFakeStorage::Call&) {
    entered.set_value();
    release.get_future().wait();
  });
  auto stored = std::async(std::launch::async, [this] { return streams_.UploadStream(id_, "abc", 3, "b"); });
  entered.get_future().wait();
  auto waited = std::async(std::launch::async, [this] { return streams_.WaitForChange(id_, 0, milliseconds(1)); });
  EXPECT_EQ(waited.wait_for(milliseconds(100)), std::future_status::timeout);
  release.set_value();
  EXPECT_TRUE(waited.get());
  EXPECT_TRUE(stored.get());
  storage_.SetHook(nullptr);
  EXPECT_FALSE(streams_.WaitForChange(id_, 3, milliseconds(1)));
}

TEST_F(CObjectServerStreamMgrTest, PiecesOfOneStreamAreStoredOneAfterAnother) {
  ASSERT_TRUE(streams_.RegisterStream(id_));
  std::promise<void> entered;
  std::promise<void> release;
  std::atomic<int> calls{0};
  storage_.SetHook([&](const CFakeStorage::Call&) {
    if (++calls == 1) {
      entered.set_value();
      release.get_future().wait();
    }
  });
  auto first = std::async(std::launch::async, [&] { return streams_.UploadStream(id_, "abc", 3, "b"); });
  entered.get_future().wait();
  std::atomic<bool> asked{false};
  auto second = std::async(std::launch::async, [&] {
    asked = true;
    return streams_.UploadStream(id_, "de", 2, "b");
  });
  while (!asked) {
    std::this_thread::yield();
  }
  release.set_value();
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(second.get());
  ObjectInfo info;
  ASSERT_TRUE(streams_.GetStreamInfo(info, id_));
  EXPECT_EQ(storage_.Bytes(info.url), "abcde");
}

// Each call of the storage waits for the other one to come in: one at a time would never end.
TEST_F(CObjectServerStreamMgrTest, DifferentStreamsAreStoredSideBySide) {
  const auto other = static_cast<std::uint32_t>(http_.NewHandle());
  ASSERT_TRUE(streams_.RegisterStream(id_));
  ASSERT_TRUE(streams_.RegisterStream(other));
  CLatch both(2);
  storage_.SetHook([&](const CFakeStorage::Call&) { both.ArriveAndWait(); });
  auto first = std::async(std::launch::async, [&] { return streams_.UploadStream(id_, "abc", 3, "b"); });
  EXPECT_TRUE(streams_.UploadStream(other, "de", 2, "b"));
  EXPECT_TRUE(first.get());
  streams_.RemoveStream(other);
}

TEST_F(CObjectServerStreamMgrTest, UploadsUnderWayAreThoseThatMayStillBecomeObjects) {
  using Locations = std::vector<std::string>;
  const auto open = [this](std::uint32_t session_id) { return session_id == id_; };
  const auto closed = [](std::uint32_t) { return false; };
  ASSERT_TRUE(streams_.RegisterStream(id_));
  EXPECT_EQ(streams_.LocationsUnderWay(open), Locations()) << "it has no bytes yet";
  ASSERT_TRUE(streams_.UploadStream(id_, "abc", 3, "b"));
  ObjectInfo info;
  ASSERT_TRUE(streams_.GetStreamInfo(info, id_));
  EXPECT_EQ(streams_.LocationsUnderWay(open), Locations{info.url});

  // Its client is gone, but a piece of it is just being stored.
  storage_.SetHook(
      [&](const CFakeStorage::Call&) { EXPECT_EQ(streams_.LocationsUnderWay(closed), Locations{info.url}); });
  ASSERT_TRUE(streams_.UploadStream(id_, "de", 2, "b"));
  storage_.SetHook(nullptr);
  // All of it is here; only the row is missing.
  const auto whole = static_cast<std::uint32_t>(http_.NewHandle());
  ASSERT_TRUE(streams_.RegisterStream(whole));
  streams_.NoteLastPiece(whole);
  ASSERT_TRUE(streams_.UploadStream(whole, "abc", 3, "b"));
  ObjectInfo whole_info;
  ASSERT_TRUE(streams_.GetStreamInfo(whole_info, whole));

  EXPECT_EQ(streams_.LocationsUnderWay(closed), Locations{whole_info.url});
  EXPECT_TRUE(streams_.IsStreamAbsent(id_));
  EXPECT_EQ(streams_.EndOf(id_), StreamEnd::kFailed) << "a late piece is not taken for a first one";
  EXPECT_FALSE(streams_.UploadStream(id_, "fg", 2, "b")) << "what is freed is not written to again";
  streams_.RemoveStream(whole);
}

TEST_F(CObjectServerStreamMgrTest, TheWayAStreamEndedIsRemembered) {
  EXPECT_EQ(streams_.EndOf(id_), StreamEnd::kNone);
  streams_.RegisterStream(id_);
  streams_.RemoveStream(id_);
  EXPECT_EQ(streams_.EndOf(id_), StreamEnd::kNone);
  streams_.EndStream(id_, StreamEnd::kFailed);
  EXPECT_EQ(streams_.EndOf(id_), StreamEnd::kFailed);
  streams_.EndStream(id_, StreamEnd::kAnswered);
  EXPECT_EQ(streams_.EndOf(id_), StreamEnd::kAnswered);
}

TEST_F(CObjectServerStreamMgrTest, NotMoreEndsAreRememberedThanNeeded) {
  constexpr std::uint32_t kFirst = 0x40000000;
  for (std::uint32_t i = 0; i < 20000; ++i) {
    streams_.EndStream(kFirst + i, StreamEnd::kAnswered);
  }
  EXPECT_EQ(streams_.EndOf(kFirst), StreamEnd::kNone);
  EXPECT_EQ(streams_.EndOf(kFirst + 19999), StreamEnd::kAnswered);
  EXPECT_EQ(streams_.EndOf(kFirst + 19999 - 10000), StreamEnd::kAnswered);
}

TEST_F(CObjectServerStreamMgrTest, ClientsThatWentAwayAreForgottenOnceThereAreMany) {
  CManualClock clock;
  constexpr std::uint32_t kFirst = 0x50000000;
  constexpr std::uint32_t kMany = 1030;
  for (std::uint32_t i = 0; i < kMany; ++i) {
    ASSERT_TRUE(streams_.RegisterStream(kFirst + i));
  }
  streams_.NoteLastPiece(kFirst);  // its handler decides
  clock.Advance(6 * 3600);
  streams_.UploadStream(kFirst + 1, "abc", 3, "b");  // still alive
  clock.Advance(1);
  ASSERT_TRUE(streams_.RegisterStream(id_));

  EXPECT_FALSE(streams_.IsStreamAbsent(kFirst));
  EXPECT_FALSE(streams_.IsStreamAbsent(kFirst + 1));
  EXPECT_TRUE(streams_.IsStreamAbsent(kFirst + 2));
  EXPECT_TRUE(streams_.IsStreamAbsent(kFirst + kMany - 1));
  EXPECT_FALSE(streams_.IsStreamAbsent(id_));
  // Should one of them come back, its next piece is not taken for a first one.
  EXPECT_EQ(streams_.EndOf(kFirst + 2), StreamEnd::kFailed);
  streams_.RemoveStream(kFirst);
  streams_.RemoveStream(kFirst + 1);
}

TEST_F(CObjectServerStreamMgrTest, ATimeOfDayThatIsSetEndsNoUpload) {
  CManualClock clock;
  constexpr std::uint32_t kFirst = 0x60000000;
  constexpr std::uint32_t kMany = 1030;
  for (std::uint32_t i = 0; i < kMany; ++i) {
    ASSERT_TRUE(streams_.RegisterStream(kFirst + i));
  }
  clock.Set(clock.Now() + 30 * 86400);
  ASSERT_TRUE(streams_.RegisterStream(id_));
  for (std::uint32_t i = 0; i < kMany; ++i) {
    EXPECT_FALSE(streams_.IsStreamAbsent(kFirst + i));
    streams_.RemoveStream(kFirst + i);
  }
}

TEST_F(CObjectServerStreamMgrTest, AFewRecordsStayForGood) {
  CManualClock clock;
  ASSERT_TRUE(streams_.RegisterStream(id_));
  clock.Advance(30 * 86400);
  const auto other = static_cast<std::uint32_t>(http_.NewHandle());
  ASSERT_TRUE(streams_.RegisterStream(other));
  EXPECT_FALSE(streams_.IsStreamAbsent(id_));
  streams_.RemoveStream(other);
}

}  // namespace
}  // namespace Tansy::Tests
