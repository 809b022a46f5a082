#include "StorageServer/ConfigSnapshot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Tansy::CloudStorage {
namespace {

// Two fields that every writer keeps equal, so that a torn or half-changed record shows.
struct Pair {
  std::string left = "0";
  std::string right = "0";
  int updates = 0;
};

// Counts its living instances.
struct Counted {
  Counted() { ++alive; }
  Counted(const Counted& other) : value(other.value) { ++alive; }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --alive; }
  int value = 0;
  static inline std::atomic<int> alive{0};
};

TEST(ConfigSnapshot, StartsWithADefaultRecordAndNeverWithNull) {
  CConfigSnapshot<Pair> snapshot;
  ASSERT_NE(snapshot.Load(), nullptr);
  EXPECT_EQ(snapshot.Load()->left, "0");
}

TEST(ConfigSnapshot, StoreReplacesTheRecord) {
  CConfigSnapshot<Pair> snapshot;
  snapshot.Store(Pair{"a", "b", 1});
  EXPECT_EQ(snapshot.Load()->left, "a");
  EXPECT_EQ(snapshot.Load()->right, "b");
}

TEST(ConfigSnapshot, UpdateChangesOnlyWhatItTouches) {
  CConfigSnapshot<Pair> snapshot(Pair{"a", "b", 1});
  snapshot.Update([](Pair& pair) { pair.right = "c"; });
  EXPECT_EQ(snapshot.Load()->left, "a");
  EXPECT_EQ(snapshot.Load()->right, "c");
}

TEST(ConfigSnapshot, ASnapshotKeepsItsValueAcrossUpdates) {
  CConfigSnapshot<Pair> snapshot(Pair{"old", "old", 0});
  const auto held = snapshot.Load();
  snapshot.Store(Pair{"new", "new", 0});
  snapshot.Update([](Pair& pair) { pair.left = "newer"; });
  EXPECT_EQ(held->left, "old");
  EXPECT_EQ(held->right, "old");
  EXPECT_EQ(snapshot.Load()->left, "newer");
}

TEST(ConfigSnapshot, ASnapshotOutlivesTheHolder) {
  CConfigSnapshot<Pair>::Pointer held;
  {
    CConfigSnapshot<Pair> snapshot(Pair{"x", "y", 0});
    held = snapshot.Load();
  }
  EXPECT_EQ(held->right, "y");
}

TEST(ConfigSnapshot, AnUpdateThatThrowsChangesNothing) {
  CConfigSnapshot<Pair> snapshot(Pair{"a", "b", 0});
  EXPECT_THROW(snapshot.Update([](Pair& pair) {
    pair.left = "half";
    throw std::runtime_error("no");
  }),
               std::runtime_error);
  EXPECT_EQ(snapshot.Load()->left, "a");
  snapshot.Store(Pair{"c", "d", 0});
  EXPECT_EQ(snapshot.Load()->left, "c");
}

TEST(ConfigSnapshot, FreesEveryReplacedRecord) {
  ASSERT_EQ(Counted::alive, 0);
  {
    CConfigSnapshot<Counted> snapshot;
    for (int i = 0; i < 100; ++i) {
      snapshot.Update([i](Counted& counted) { counted.value = i; });
      EXPECT_EQ(snapshot.Load()->value, i);
      EXPECT_EQ(Counted::alive, 1);
    }
  }
  EXPECT_EQ(Counted::alive, 0);
}

TEST(ConfigSnapshot, ReadersNeverSeeAMixedRecordAndNoUpdateIsLost) {
  constexpr int kWriters = 3;
  constexpr int kReaders = 4;
  constexpr int kUpdates = 3000;
  CConfigSnapshot<Pair> snapshot;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      while (!done) {
        const auto pair = snapshot.Load();
        torn += pair->left != pair->right ? 1 : 0;
      }
    });
  }
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back([&, i] {
      for (int n = 0; n < kUpdates; ++n) {
        snapshot.Update([&](Pair& pair) {
          pair.left = pair.right = std::string(40, static_cast<char>('a' + i)) + std::to_string(n);
          ++pair.updates;
        });
      }
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  done = true;
  for (auto& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(snapshot.Load()->updates, kWriters * kUpdates);
}

TEST(ConfigSnapshot, FreesEveryRecordUnderContention) {
  ASSERT_EQ(Counted::alive, 0);
  {
    CConfigSnapshot<Counted> snapshot;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        for (int n = 0; n < 3000; ++n) {
          if (i % 2 == 0) {
            snapshot.Store(Counted{});
          } else {
            (void)snapshot.Load()->value;
          }
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(Counted::alive, 1);
  }
  EXPECT_EQ(Counted::alive, 0);
}

}  // namespace
}  // namespace Tansy::CloudStorage
