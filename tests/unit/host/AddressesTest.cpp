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
  EXPECT_THAT(AdapterAddresses(), ElementsAre("192.0.2.8", "2001::7", "2001::8"));
  EXPECT_EQ(DefaultLocalIp(), "192.0.2.8");
}

TEST_F(AddressesTest, AreLoopbackWhereThereAreNone) {
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
    *adapters = Adapter(OSAL_IF_TYPE_SOFTWARE_LOOPBACK, "127.0.0.1", 1, nullptr);
    return 0;
  });
  EXPECT_THAT(AdapterAddresses(), IsEmpty());
  EXPECT_EQ(DefaultLocalIp(), "127.0.0.1");
}

TEST_F(AddressesTest, AreLoopbackWhenTheSystemDoesNotTell) {
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** adapters) {
    *adapters = nullptr;
    return 111;
  });
  EXPECT_THAT(AdapterAddresses(), IsEmpty());
  EXPECT_EQ(DefaultLocalIp(), "127.0.0.1");
}

TEST_F(AddressesTest, StandInBracketsInAUrlWhenTheyNeedThem) {
  EXPECT_EQ(UrlHost("192.0.2.8"), "192.0.2.8");
  EXPECT_EQ(UrlHost("2001::7"), "[2001::7]");
}

}  // namespace
}  // namespace Tansy::Host
