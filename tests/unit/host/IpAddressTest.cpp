#include "IpAddress.h"

#include <gtest/gtest.h>

namespace Tansy::Host {
namespace {

TEST(IpAddressTest, ReadsBothFamilies) {
  for (const char* text : {"0.0.0.0", "127.0.0.1", "192.168.1.5", "255.255.255.255", "10.0.0.10"}) {
    const auto address = ParseIpAddress(text);
    ASSERT_TRUE(address.has_value()) << text;
    EXPECT_EQ(address->text, text);
    EXPECT_FALSE(address->is_ipv6) << text;
  }
  for (const char* text : {"::", "::1", "2001:db8::1", "fe80::1", "1:2:3:4:5:6:7:8"}) {
    const auto address = ParseIpAddress(text);
    ASSERT_TRUE(address.has_value()) << text;
    EXPECT_EQ(address->text, text);
    EXPECT_TRUE(address->is_ipv6) << text;
  }
}

TEST(IpAddressTest, BringsIpv6IntoItsUsualSpelling) {
  EXPECT_EQ(ParseIpAddress("2001:0DB8:0:0:0:0:0:1")->text, "2001:db8::1");
  EXPECT_EQ(ParseIpAddress("0:0:0:0:0:0:0:0")->text, "::");
}

TEST(IpAddressTest, RefusesWhatIsNotOnlyAnAddress) {
  for (const std::string text : {"",           "localhost",    "1.2.3",        "1.2.3.4.5",  "1.2.3.256",
                                 "1.2.3.4:80", "192.168.1.5 ", " 192.168.1.5", "1.2.3.4\n",  "\t1.2.3.4",
                                 "01.2.3.4",   "1.2.3.04",     "+1.2.3.4",     "-1.2.3.4",   "1..3.4",
                                 "1.2.3.",     ".1.2.3",       "1,2,3,4",      "0x7f.1.1.1", "[::1]",
                                 "::1 ",       " ::1",         "::1\n",        "::1::",      "1:2",
                                 ":::",        "12345::",      "fe80::1%eth0", "::g",        "1:2:3:4:5:6:7:8:9"}) {
    EXPECT_FALSE(ParseIpAddress(text).has_value()) << "\"" << text << "\"";
  }
  EXPECT_FALSE(ParseIpAddress(std::string("1.2.3.4\0", 8)).has_value());
  EXPECT_FALSE(ParseIpAddress(std::string("::1\0", 4)).has_value());
}

TEST(IpAddressTest, KnowsWhatAnAddressIsGoodFor) {
  EXPECT_TRUE(ParseIpAddress("0.0.0.0")->is_any);
  EXPECT_TRUE(ParseIpAddress("::")->is_any);
  EXPECT_FALSE(ParseIpAddress("1.0.0.0")->is_any);
  EXPECT_TRUE(ParseIpAddress("127.9.9.9")->is_loopback);
  EXPECT_TRUE(ParseIpAddress("::1")->is_loopback);
  EXPECT_FALSE(ParseIpAddress("128.0.0.1")->is_loopback);
  EXPECT_TRUE(ParseIpAddress("169.254.3.4")->is_link_local);
  EXPECT_TRUE(ParseIpAddress("febf::1")->is_link_local);
  EXPECT_FALSE(ParseIpAddress("fec0::1")->is_link_local);
  EXPECT_FALSE(ParseIpAddress("169.253.3.4")->is_link_local);
}

}  // namespace
}  // namespace Tansy::Host
