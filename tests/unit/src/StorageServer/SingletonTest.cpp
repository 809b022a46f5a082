#include "Singleton.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "StorageServer/IInterfaceManager.h"
#include "StorageServer/ServerMsgLoop.h"

namespace Tansy::CloudStorage {
namespace {

std::atomic<int> g_made{0};

// Its construction takes a while, so that all threads meet in the accessor.
struct CSlow {
  CSlow() {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ++g_made;
    value = 42;
  }
  int value = 0;
};

TEST(Singleton, IsMadeOnceHoweverManyAsk) {
  std::vector<std::thread> threads;
  std::vector<CSlow*> seen(8, nullptr);
  std::vector<int> values(seen.size(), 0);
  std::atomic<bool> go{false};
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&, i] {
      while (!go) {
        std::this_thread::yield();
      }
      seen[i] = &CSingleton<CSlow>::Instance();
      values[i] = seen[i]->value;
    });
  }
  EXPECT_EQ(g_made, 0) << "made before anybody asked";
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(g_made, 1);
  EXPECT_EQ(std::set<CSlow*>(seen.begin(), seen.end()).size(), 1U);
  EXPECT_EQ(values, std::vector<int>(seen.size(), 42));
}

struct CFailsOnce {
  CFailsOnce() {
    if (++tries == 1) {
      throw std::runtime_error("not yet");
    }
  }
  static inline int tries = 0;
};

TEST(Singleton, IsTriedAgainAfterAFailure) {
  EXPECT_THROW(CSingleton<CFailsOnce>::Instance(), std::runtime_error);
  CFailsOnce& object = CSingleton<CFailsOnce>::Instance();
  EXPECT_EQ(&CSingleton<CFailsOnce>::Instance(), &object);
  EXPECT_EQ(CFailsOnce::tries, 2);
}

TEST(Singleton, GivesEachClassItsOwnObject) {
  EXPECT_EQ(&CServerMsgLoop::Instance(), &CServerMsgLoop::Instance());
  EXPECT_EQ(&CIInterfaceManager::Instance(), &CIInterfaceManager::Instance());
  EXPECT_NE(static_cast<void*>(&CServerMsgLoop::Instance()), static_cast<void*>(&CIInterfaceManager::Instance()));
}

}  // namespace
}  // namespace Tansy::CloudStorage
