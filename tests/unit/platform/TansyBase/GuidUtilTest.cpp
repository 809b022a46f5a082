#include "TansyBase/GuidUtil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace TansyBase {
namespace {

TEST(GuidUtil, LooksLikeARandomGuid) {
  for (int i = 0; i < 100; ++i) {
    const std::string guid = GuidUtil::CreateGuid();
    EXPECT_THAT(guid, ::testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  }
}

TEST(GuidUtil, NoThreadRepeatsAnother) {
  std::mutex mutex;
  std::set<std::string> all;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 1000; ++n) {
        const std::string guid = GuidUtil::CreateGuid();
        const std::lock_guard lock(mutex);
        all.insert(guid);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(all.size(), 4000u);
}

}  // namespace
}  // namespace TansyBase
