#include "Addresses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "OSAL/Osal.h"

namespace Tansy::Host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

OSAL_AdapterInfo* Adapter(std::uint32_t type, const char* ipv4, unsigned char ipv6_end, OSAL_AdapterInfo* next) {
  auto* adapter = new OSAL_AdapterInfo;
  adapter->type = type;
  adapter->next = next;
  if (ipv4 != nullptr) {
    adapter->ipv4 = new OSAL_Ipv4Address;
    std::strncpy(adapter->ipv4->text, ipv4, sizeof(adapter->ipv4->text) - 1);
  }
  if (ipv6_end != 0) {
    adapter->ipv6 = new OSAL_Ipv6Address;
    adapter->ipv6->bytes[0] = 0x20;
    adapter->ipv6->bytes[1] = 0x01;
    adapter->ipv6->bytes[15] = ipv6_end;
  }
  return adapter;
}

class AddressesTest : public testing::Test {
 protected:
  ~AddressesTest() override { OSAL_SetAdapterSource(nullptr); }
};

TEST_F(AddressesTest, AreThoseOfRealAdaptersOldFamilyFirst) {
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
    *adapters = Adapter(
        OSAL_IF_TYPE_SOFTWARE_LOOPBACK, "127.0.0.1", 1,
        Adapter(OSAL_IF_TYPE_TUNNEL, "10.9.9.9", 0,
                Adapter(OSAL_IF_TYPE_ETHERNET, nullptr, 7, Adapter(OSAL_IF_TYPE_ETHERNET, "192.0.2.8", 8, nullptr))));
    return 0;
  });
  EXPECT_THAT(AdapterAddresses(), Optional(ElementsAre("192.0.2.8", "2001::7", "2001::8")));
}

TEST_F(AddressesTest, AreNoneOnAMachineWithLoopbackOnly) {
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
    *adapters = Adapter(OSAL_IF_TYPE_SOFTWARE_LOOPBACK, "127.0.0.1", 1, nullptr);
    return 0;
  });
  EXPECT_THAT(AdapterAddresses(), Optional(IsEmpty()));
}

TEST_F(AddressesTest, AreUnknownWhenTheSystemDoesNotTell) {
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
    *adapters = nullptr;
    return 111;
  });
  EXPECT_EQ(AdapterAddresses(), std::nullopt);
}

TEST(LocalIpTest, IsTheOneThatMostClientsCanUse) {
  const auto choose = [](const std::vector<std::string>& adapters) { return ChooseLocalIp({}, adapters); };
  EXPECT_EQ(choose({}), "127.0.0.1");
  EXPECT_EQ(choose({"192.0.2.8", "192.0.2.9"}), "192.0.2.8") << "the system's order";
  EXPECT_EQ(choose({"2001::7", "192.0.2.8"}), "192.0.2.8");
  EXPECT_EQ(choose({"169.254.1.1", "2001::7"}), "2001::7");
  EXPECT_EQ(choose({"169.254.1.1", "192.0.2.8"}), "192.0.2.8");
  EXPECT_EQ(choose({"169.254.1.1"}), "169.254.1.1");
  EXPECT_EQ(choose({"fe80::1"}), "127.0.0.1") << "needs to be told the adapter";
}

TEST(LocalIpTest, IsOneThatIsListenedOn) {
  const std::vector<std::string> adapters = {"192.0.2.8", "2001::7"};
  EXPECT_EQ(ChooseLocalIp({"192.0.2.9"}, adapters), "192.0.2.9");
  EXPECT_EQ(ChooseLocalIp({"127.0.0.1", "192.0.2.9"}, adapters), "192.0.2.9");
  EXPECT_EQ(ChooseLocalIp({"127.0.0.1"}, adapters), "127.0.0.1");
  EXPECT_EQ(ChooseLocalIp({"::1"}, adapters), "::1");
  EXPECT_EQ(ChooseLocalIp({"::"}, adapters), "2001::7");
  EXPECT_EQ(ChooseLocalIp({"::"}, {"192.0.2.8"}), "::1");
  EXPECT_EQ(ChooseLocalIp({"::", "0.0.0.0"}, adapters), "192.0.2.8");
  EXPECT_EQ(ChooseLocalIp({"::1", "0.0.0.0"}, {}), "::1");
}

TEST(LoopbackAddressTest, IsOneThatIsListenedOn) {
  EXPECT_EQ(LoopbackAddress({}), "127.0.0.1");
  EXPECT_EQ(LoopbackAddress({"192.0.2.8", "0.0.0.0"}), "127.0.0.1");
  EXPECT_EQ(LoopbackAddress({"::1", "127.0.0.1"}), "127.0.0.1");
  EXPECT_EQ(LoopbackAddress({"192.0.2.8", "::"}), "::1");
  EXPECT_EQ(LoopbackAddress({"192.0.2.8", "::1"}), "::1");
  EXPECT_EQ(LoopbackAddress({"192.0.2.8"}), "192.0.2.8");
}

TEST_F(AddressesTest, StandInBracketsInAUrlWhenTheyNeedThem) {
  EXPECT_EQ(UrlHost("192.0.2.8"), "192.0.2.8");
  EXPECT_EQ(UrlHost("2001::7"), "[2001::7]");
}

}  // namespace
}  // namespace Tansy::Host
