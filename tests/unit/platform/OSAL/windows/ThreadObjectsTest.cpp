#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <thread>

#include "OSAL/Osal.h"

namespace {

constexpr std::uint64_t kMark = 0x5ad1e5ad1e5ad1e5;

std::atomic<int> g_whole{0};  // objects that were as they had been made when they were destroyed

class CMarked {
 public:
  CMarked() { marks_.fill(kMark); }
  ~CMarked() {
    const bool is_whole = std::all_of(marks_.begin(), marks_.end(), [](std::uint64_t mark) { return mark == kMark; });
    g_whole += is_whole ? 1 : 0;
    marks_.fill(0);
  }
  std::uint64_t First() const { return marks_[0]; }

 private:
  std::array<std::uint64_t, 64> marks_;
};

TEST(ThreadObjectsTest, AreDestroyedBeforeTheirMemoryIsFreed) {
  constexpr int kThreads = 20;
  OSAL_Sleep(0);  // the program has to need the library
  for (int i = 0; i < kThreads; ++i) {
    std::thread([] {
      thread_local const CMarked marked;
      EXPECT_EQ(marked.First(), kMark);
    }).join();
  }
  EXPECT_EQ(g_whole, kThreads);
}

}  // namespace
