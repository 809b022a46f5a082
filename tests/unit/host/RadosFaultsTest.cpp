// What the store does when parts of the cluster die, say nothing or are full. The cluster notices after eight seconds
// that an OSD says nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "RadosStore.h"
#include "StartFailure.h"
#include "fakes/CephCluster.h"
#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using Clock = std::chrono::steady_clock;

class RadosFaultsTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::current_path(temp_.GetPath()); }
  void TearDown() override {
    store_.reset();
    std::filesystem::current_path(started_in_);
  }

  // A store whose client has these settings too.
  void Open(const std::string& settings = "") { Open(cluster_, settings); }
  void Open(Tests::CCephCluster& cluster, const std::string& settings = "") {
    RadosUrl url;
    ASSERT_TRUE(ParseRadosUrl(cluster.Url(cluster.NewNamespace()), url));
    url.conf = cluster.Conf("faults.conf", settings);
    store_ = OpenRadosStore(std::make_shared<CRadosPool>(url), EStoreUse::kServe);
  }
  EStoreResult Save(const std::string& bytes, StoredName& name) {
    return store_->SaveWhole(EContent::kObject, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name);
  }
  bool IsWhole(const StoredName& name, const std::string& bytes) {
    ReadBuffer buffer;
    return store_->ReadWhole(name, buffer) == EStoreResult::kDone &&
           std::string_view(buffer.data.get(), buffer.size) == bytes;
  }

  // Writes, reads and removes with four threads until `disturb` has returned and everything has gone on for a while.
  // Gives the longest time that one operation took. Nothing may fail.
  std::chrono::milliseconds WorkDuring(const std::function<void()>& disturb) {
    std::atomic<bool> is_over{false};
    std::atomic<int> rounds{0};
    std::atomic<std::int64_t> longest{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        const std::string bytes = Tests::RandomBytes(t % 2 == 0 ? 5000 : std::size_t{5} << 20U, 7 + t);
        std::vector<StoredName> names;
        while (!is_over) {
          const Clock::time_point begin = Clock::now();
          StoredName name;
          EXPECT_EQ(Save(bytes, name), EStoreResult::kDone);
          EXPECT_TRUE(IsWhole(name, bytes));
          names.push_back(name);
          if (names.size() > 5) {
            EXPECT_TRUE(IsWhole(names.front(), bytes));
            EXPECT_EQ(store_->Remove(names.front()), EStoreResult::kDone);
            names.erase(names.begin());
          }
          const std::int64_t took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
          std::int64_t before = longest;
          while (took > before && !longest.compare_exchange_weak(before, took)) {
          }
          ++rounds;
        }
        for (const StoredName& name : names) {
          EXPECT_TRUE(IsWhole(name, bytes));
        }
      });
    }
    WaitForRounds(rounds, 20);
    disturb();
    WaitForRounds(rounds, 200);
    is_over = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
    return std::chrono::milliseconds(longest);
  }
  static void WaitForRounds(const std::atomic<int>& rounds, int more) {
    const int enough = rounds + more;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
    while (rounds < enough) {
      ASSERT_LT(Clock::now(), deadline) << "nothing goes on";
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
  Tests::CCephCluster& cluster_ = Tests::CCephCluster::Shared();
  std::unique_ptr<IObjectStore> store_;
};

TEST_F(RadosFaultsTest, ADeadOsdIsNoError) {
  Tests::CCephCluster cluster;  // the other tests need all of theirs
  Open(cluster);
  const std::chrono::milliseconds pause = WorkDuring([&cluster] { cluster.KillOsd(0); });
  std::cout << "longest round: " << pause.count() << " ms\n";
  store_.reset();
}

TEST_F(RadosFaultsTest, AFrozenOsdIsNoError) {
  Open();
  const std::chrono::milliseconds pause = WorkDuring([this] { cluster_.SignalOsd(1, SIGSTOP); });
  std::cout << "longest round: " << pause.count() << " ms\n";
  cluster_.SignalOsd(1, SIGCONT);
  cluster_.WaitForOsds();
}

// Nobody answers: every call ends with an error within its time, and what was stored is there afterwards.
TEST_F(RadosFaultsTest, AClusterThatSaysNothingFailsEveryCallInTime) {
  Open("rados_osd_op_timeout = 2\n");
  const std::string bytes = Tests::RandomBytes(std::size_t{9} << 20U);
  StoredName name;
  ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
  for (int osd = 0; osd < Tests::CCephCluster::kOsds; ++osd) {
    cluster_.SignalOsd(osd, SIGSTOP);
  }
  const Clock::time_point begin = Clock::now();
  StoredName other = name;
  ReadBuffer buffer;
  std::uint64_t size = 0;
  EXPECT_EQ(store_->SaveAt(other, 0, "x", 1), EStoreResult::kFailed);
  EXPECT_EQ(store_->ReadRange(name, 5U << 20U, 10, buffer), EStoreResult::kFailed);
  EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kFailed);
  EXPECT_EQ(store_->Remove(name), EStoreResult::kFailed);
  EXPECT_FALSE(store_->ForEach(EContent::kObject, [](const StoredEntry&) { return true; }));
  StoredName failed;
  EXPECT_EQ(Save(bytes, failed), EStoreResult::kFailed);
  EXPECT_TRUE(failed.id.empty());
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(60));
  for (int osd = 0; osd < Tests::CCephCluster::kOsds; ++osd) {
    cluster_.SignalOsd(osd, SIGCONT);
  }
  cluster_.WaitForOsds();
  Open();  // with time enough for a cluster that wakes up
}

// Who is connected needs no monitor; a start does.
TEST_F(RadosFaultsTest, AFrozenMonitorStopsStartsInTimeAndNobodyElse) {
  Open();
  const std::string bytes = Tests::RandomBytes(std::size_t{9} << 20U);
  cluster_.SignalMonitor(SIGSTOP);
  StoredName name;
  EXPECT_EQ(Save(bytes, name), EStoreResult::kDone);
  EXPECT_TRUE(IsWhole(name, bytes));
  EXPECT_EQ(store_->Remove(name), EStoreResult::kDone);
  RadosUrl url;
  ASSERT_TRUE(ParseRadosUrl(cluster_.Url("x"), url));
  url.conf = cluster_.Conf("hasty.conf", "client_mount_timeout = 2\n");
  const Clock::time_point begin = Clock::now();
  EXPECT_THROW(CRadosPool{url}, CStartFailure);
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
  cluster_.SignalMonitor(SIGCONT);
}

// Writes are refused at once, not held until there is room, and room can be made.
TEST_F(RadosFaultsTest, AFullPoolIsNoSpace) {
  Open();
  const std::string small = "hello";
  const std::string large = Tests::RandomBytes(std::size_t{9} << 20U);
  StoredName first;
  StoredName second;
  StoredName parts;
  ASSERT_EQ(Save(small, first), EStoreResult::kDone);
  ASSERT_EQ(Save(large, second), EStoreResult::kDone);
  ASSERT_EQ(store_->SaveAt(parts, 0, "test", 4), EStoreResult::kDone);
  cluster_.SetFull(true);
  StoredName name;
  EStoreResult result = EStoreResult::kDone;
  for (const Clock::time_point begin = Clock::now();
       result == EStoreResult::kDone && Clock::now() - begin < std::chrono::seconds(60);) {
    result = Save(large, name);  // the OSDs hear of it by and by
    if (result == EStoreResult::kDone) {
      // Or else a fast machine really fills the OSDs before they hear of it, and no test after this one can write.
      ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  EXPECT_EQ(result, EStoreResult::kNoSpace);
  EXPECT_EQ(Save(small, name), EStoreResult::kNoSpace);
  EXPECT_EQ(store_->SaveAt(parts, 8U << 20U, large.data(), 1U << 20U), EStoreResult::kNoSpace);
  EXPECT_TRUE(IsWhole(first, small));
  EXPECT_TRUE(IsWhole(second, large));
  EXPECT_EQ(store_->Remove(second), EStoreResult::kDone);
  cluster_.SetFull(false);
  for (const Clock::time_point begin = Clock::now();
       result == EStoreResult::kNoSpace && Clock::now() - begin < std::chrono::seconds(60);) {
    result = Save(large, name);
  }
  EXPECT_EQ(result, EStoreResult::kDone);
}

}  // namespace
}  // namespace Tansy::Host
