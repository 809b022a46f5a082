#include "AddressWatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "OSAL/Osal.h"

namespace Tansy::Host {
namespace {

// What the machine's only adapter has at present.
std::mutex g_mutex;
std::condition_variable g_looked;
std::string g_address;     // empty: no adapter
bool g_is_silent = false;  // the system does not say
int g_looks = 0;

int TellAdapters(OSAL_AdapterInfo** adapters) {
  const std::lock_guard lock(g_mutex);
  ++g_looks;
  g_looked.notify_all();
  *adapters = nullptr;
  if (!g_address.empty()) {
    *adapters = new OSAL_AdapterInfo;
    (*adapters)->ipv4 = new OSAL_Ipv4Address;
    std::strncpy((*adapters)->ipv4->text, g_address.c_str(), sizeof((*adapters)->ipv4->text) - 1);
  }
  return g_is_silent ? 111 : 0;
}

class AddressWatchTest : public testing::Test {
 protected:
  AddressWatchTest() {
    OSAL_SetAdapterSource(&TellAdapters);
    Set("", false);
  }
  ~AddressWatchTest() override { OSAL_SetAdapterSource(nullptr); }

  static void Set(const std::string& address, bool is_silent) {
    const std::lock_guard lock(g_mutex);
    g_address = address;
    g_is_silent = is_silent;
  }
  // Lets the watch look at what has been set, and waits until it has done with it.
  static void Look(CAddressWatch& watch) {
    for (int i = 0; i < 2; ++i) {  // the second look begins after the first is over
      std::unique_lock lock(g_mutex);
      const int before = g_looks;
      watch.Wake();
      g_looked.wait(lock, [&] { return g_looks > before; });
    }
  }
  std::vector<std::string> Updates() {
    const std::lock_guard lock(mutex_);
    return updates_;
  }
  CAddressWatch::Update Note() {
    return [this](const std::string& ip) {
      const std::lock_guard lock(mutex_);
      updates_.push_back(ip);
    };
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> updates_;
};

TEST_F(AddressWatchTest, FollowsTheAdapter) {
  CAddressWatch watch({}, "127.0.0.1", Note());
  ASSERT_TRUE(watch.Start(3600000));
  Look(watch);
  EXPECT_THAT(Updates(), testing::IsEmpty()) << "started before the machine had an address";
  Set("192.0.2.8", false);
  Look(watch);
  EXPECT_THAT(Updates(), testing::ElementsAre("192.0.2.8"));
  Look(watch);
  EXPECT_EQ(Updates().size(), 1U) << "told once";
  Set("192.0.2.9", false);
  Look(watch);
  EXPECT_THAT(Updates(), testing::ElementsAre("192.0.2.8", "192.0.2.9"));
  Set("", false);
  Look(watch);
  EXPECT_EQ(Updates().back(), "127.0.0.1") << "the clients that are left are on this machine";
}

TEST_F(AddressWatchTest, KeepsTheAddressWhileTheSystemDoesNotSay) {
  Set("192.0.2.8", false);
  CAddressWatch watch({}, "192.0.2.8", Note());
  ASSERT_TRUE(watch.Start(3600000));
  Set("", true);
  Look(watch);
  EXPECT_THAT(Updates(), testing::IsEmpty());
}

TEST_F(AddressWatchTest, ChangesNothingWhereOneAddressIsListenedOn) {
  Set("192.0.2.8", false);
  CAddressWatch watch({"192.0.2.7"}, "192.0.2.7", Note());
  ASSERT_TRUE(watch.Start(3600000));
  Look(watch);
  EXPECT_THAT(Updates(), testing::IsEmpty());
}

}  // namespace
}  // namespace Tansy::Host
