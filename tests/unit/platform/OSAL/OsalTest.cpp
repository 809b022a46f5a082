#include "OSAL/Osal.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>
#include <limits>
#include <string>

namespace {

// Gives the list back whatever the test does with it.
class CAdapters {
 public:
  CAdapters() : result(OSAL_GetAdapterInfo(&list)) {}
  ~CAdapters() { OSAL_FreeAdapterInfo(list); }
  CAdapters(const CAdapters&) = delete;
  CAdapters& operator=(const CAdapters&) = delete;

  OSAL_AdapterInfo* list = nullptr;
  int result;
};

TEST(OsalAdapters, TheLoopbackAdapterIsThereWithItsAddressAndType) {
  const CAdapters adapters;
  ASSERT_EQ(adapters.result, 0);
  bool found = false;
  for (const auto* adapter = adapters.list; adapter != nullptr; adapter = adapter->next) {
    EXPECT_NE(adapter->name[0], '\0');
    for (const auto* address = adapter->ipv4; address != nullptr; address = address->next) {
      if (std::strcmp(address->text, "127.0.0.1") == 0) {
        found = true;
        EXPECT_EQ(adapter->type, OSAL_IF_TYPE_SOFTWARE_LOOPBACK);
      }
    }
  }
  EXPECT_TRUE(found);
}

TEST(OsalAdapters, EachAdapterIsListedOnce) {
  const CAdapters adapters;
  for (const auto* one = adapters.list; one != nullptr; one = one->next) {
    for (const auto* other = one->next; other != nullptr; other = other->next) {
      EXPECT_STRNE(one->name, other->name);
    }
  }
}

TEST(OsalAdapters, AReplacedSourceIsAskedInstead) {
  OSAL_SetAdapterSource([](OSAL_AdapterInfo** list) {
    *list = new OSAL_AdapterInfo;
    (*list)->type = OSAL_IF_TYPE_TUNNEL;
    (*list)->ipv6 = new OSAL_Ipv6Address;
    (*list)->ipv6->next = new OSAL_Ipv6Address;
    (*list)->next = new OSAL_AdapterInfo;
    (*list)->next->ipv4 = new OSAL_Ipv4Address;
    return 0;
  });
  {
    const CAdapters adapters;
    EXPECT_EQ(adapters.result, 0);
    EXPECT_EQ(adapters.list->type, OSAL_IF_TYPE_TUNNEL);
  }
  OSAL_SetAdapterSource([](OSAL_AdapterInfo**) { return 13; });
  {
    const CAdapters adapters;
    EXPECT_EQ(adapters.result, 13);
    EXPECT_EQ(adapters.list, nullptr);
  }
  OSAL_SetAdapterSource(nullptr);
  EXPECT_EQ(CAdapters().result, 0);
}

TEST(OsalAdapters, FreeingNoListDoesNothing) {
  OSAL_FreeAdapterInfo(nullptr);
}

TEST(OsalInetNtop, WritesBothFamilies) {
  char text[130];
  const std::array<unsigned char, 4> ipv4 = {192, 168, 0, 1};
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET, ipv4.data(), text, sizeof text), 1);
  EXPECT_STREQ(text, "192.168.0.1");
  std::array<unsigned char, 16> ipv6{};
  ipv6[15] = 1;
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET6, ipv6.data(), text, sizeof text), 1);
  EXPECT_STREQ(text, "::1");
  ipv6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x55};
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET6, ipv6.data(), text, sizeof text), 1);
  EXPECT_STREQ(text, "fe80::211:22ff:fe33:4455");
}

TEST(OsalInetNtop, RefusesWhatItCannotWrite) {
  char text[130];
  const std::array<unsigned char, 16> address{};
  EXPECT_EQ(OSAL_InetNtop(99, address.data(), text, sizeof text), 0);
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET, address.data(), text, 7), 0);
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET, address.data(), text, 8), 1);
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET, nullptr, text, sizeof text), 0);
  EXPECT_EQ(OSAL_InetNtop(OSAL_AF_INET, address.data(), nullptr, 0), 0);
}

TEST(OsalSleep, SleepsAtLeastAsLong) {
  const auto begin = std::chrono::steady_clock::now();
  OSAL_Sleep(20);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
}

TEST(OsalStrToi32, ReadsDecimalNumbers) {
  EXPECT_EQ(OSAL_StrToi32("0"), 0);
  EXPECT_EQ(OSAL_StrToi32("8080"), 8080);
  EXPECT_EQ(OSAL_StrToi32("-5"), -5);
  EXPECT_EQ(OSAL_StrToi32("+5"), 5);
  EXPECT_EQ(OSAL_StrToi32(" \t12"), 12);
  EXPECT_EQ(OSAL_StrToi32("12 monkeys"), 12);
  EXPECT_EQ(OSAL_StrToi32("010"), 10);
  EXPECT_EQ(OSAL_StrToi32("0x10"), 0);
}

TEST(OsalStrToi32, TextWithoutANumberIsZero) {
  EXPECT_EQ(OSAL_StrToi32(""), 0);
  EXPECT_EQ(OSAL_StrToi32("port"), 0);
  EXPECT_EQ(OSAL_StrToi32("-"), 0);
  EXPECT_EQ(OSAL_StrToi32(nullptr), 0);
}

TEST(OsalStrToi32, Saturates) {
  constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
  constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
  EXPECT_EQ(OSAL_StrToi32("2147483647"), kMax);
  EXPECT_EQ(OSAL_StrToi32("2147483648"), kMax);
  EXPECT_EQ(OSAL_StrToi32("4294967297"), kMax);
  EXPECT_EQ(OSAL_StrToi32("-2147483648"), kMin);
  EXPECT_EQ(OSAL_StrToi32("-2147483649"), kMin);
  EXPECT_EQ(OSAL_StrToi32("99999999999999999999999999"), kMax);
  EXPECT_EQ(OSAL_StrToi32("-99999999999999999999999999"), kMin);
}

TEST(OsalMemset, FillsWhatIsAskedAndNoMore) {
  std::array<unsigned char, 8> buffer{};
  EXPECT_EQ(OSAL_Memset_s(buffer.data(), buffer.size(), 0xAB, 5), 0);
  EXPECT_EQ(buffer, (std::array<unsigned char, 8>{0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0, 0, 0}));
  EXPECT_EQ(OSAL_Memset_s(buffer.data(), 6, 0x01, 7), -1);
  EXPECT_EQ(buffer, (std::array<unsigned char, 8>{1, 1, 1, 1, 1, 1, 0, 0}));
  EXPECT_EQ(OSAL_Memset_s(buffer.data(), buffer.size(), 0, 0), 0);
  EXPECT_EQ(OSAL_Memset_s(nullptr, 8, 0, 1), -1);
}

}  // namespace
