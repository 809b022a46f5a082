#include "TansyNet/server/HandleTable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <thread>
#include <vector>

namespace {

using TansyNet::CHandleTable;

TEST(HandleTable, CountsUpwardsFromOne) {
  CHandleTable table;
  EXPECT_EQ(table.Add(nullptr), 1);
  EXPECT_EQ(table.Add(nullptr), 2);
  table.Remove(1);
  EXPECT_EQ(table.Add(nullptr), 3) << "a handle is not used again";
  EXPECT_EQ(table.Size(), 2U);
}

TEST(HandleTable, RemovesOnlyWhatIsThere) {
  CHandleTable table;
  table.Remove(1);
  EXPECT_EQ(table.Size(), 0U);
  const std::int32_t handle = table.Add(nullptr);
  table.Remove(handle);
  table.Remove(handle);
  EXPECT_EQ(table.Size(), 0U);
  EXPECT_EQ(table.Find(handle), nullptr);
}

TEST(HandleTable, BeginsAnewWithoutZero) {
  CHandleTable table(0xFFFFFFFEU);
  EXPECT_EQ(table.Add(nullptr), -2);
  EXPECT_EQ(table.Add(nullptr), -1);
  EXPECT_EQ(table.Add(nullptr), 1) << "0 is no handle";
}

TEST(HandleTable, GivesEachThreadItsOwn) {
  CHandleTable table;
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::vector<std::vector<std::int32_t>> taken(kThreads);
  {
    std::vector<std::jthread> threads;
    for (auto& handles : taken) {
      threads.emplace_back([&] {
        for (int count = 0; count < kEach; ++count) {
          handles.push_back(table.Add(nullptr));
          if (count % 2 == 0) {
            table.Remove(handles.back());
          }
        }
      });
    }
  }
  std::set<std::int32_t> all;
  for (const auto& handles : taken) {
    all.insert(handles.begin(), handles.end());
  }
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kEach));
  EXPECT_EQ(table.Size(), static_cast<std::size_t>(kThreads * kEach / 2));
}

}  // namespace
