#include "StorageClient/ServerAddress.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::CloudStorage {
namespace {

TEST(ServerAddress, PutsAnIpv6AddressIntoBrackets) {
  EXPECT_EQ(HostAndPort("127.0.0.1", "80"), "127.0.0.1:80");
  EXPECT_EQ(HostAndPort("server.example", "80"), "server.example:80");
  EXPECT_EQ(HostAndPort("fd00::7", "80"), "[fd00::7]:80");
  EXPECT_EQ(HostAndPort("[fd00::7]", "80"), "[fd00::7]:80");
  EXPECT_EQ(HostAndPort("", "80"), ":80");
}

TEST(ServerAddress, TakesNodesAsServersWriteThem) {
  EXPECT_EQ(NodeAddress("127.0.0.1:80"), "127.0.0.1:80");
  EXPECT_EQ(NodeAddress("[fd00::7]:80"), "[fd00::7]:80");
  EXPECT_EQ(NodeAddress("fd00::7:80"), "[fd00::7]:80");
  EXPECT_EQ(NodeAddress("::1:80"), "[::1]:80");
  EXPECT_EQ(NodeAddress("server.example"), "server.example");
  EXPECT_EQ(NodeAddress(""), "");
}

TEST(ServerAddress, CutsTheAddressOutOfAUrl) {
  EXPECT_EQ(AddressOfUrl("http://127.0.0.1:80/pool/key?a=b"), "127.0.0.1:80");
  EXPECT_EQ(AddressOfUrl("https://[::1]:80/"), "[::1]:80");
  EXPECT_EQ(AddressOfUrl("http://server.example"), "server.example");
  EXPECT_EQ(AddressOfUrl(""), "");
}

TEST(ServerAddress, KnowsTheConfiguredServer) {
  SStorageServerConfig config;
  config.ip = "Server.Example";
  config.upload_port = 81;
  config.download_port = 82;
  EXPECT_TRUE(IsConfiguredServer(config, "http://server.example:81/pic?id=1"));
  EXPECT_TRUE(IsConfiguredServer(config, "http://SERVER.EXAMPLE:82/pic?id=1"));
  EXPECT_FALSE(IsConfiguredServer(config, "http://server.example:83/pic?id=1"));
  EXPECT_FALSE(IsConfiguredServer(config, "http://server.example/pic?id=1")) << "port 80";
  EXPECT_FALSE(IsConfiguredServer(config, "https://server.example:81/pic?id=1"));
  EXPECT_FALSE(IsConfiguredServer(config, "http://server.example.org:81/pic?id=1"));
  EXPECT_FALSE(IsConfiguredServer(config, "http://user@server.example:81/pic?id=1"));
  EXPECT_FALSE(IsConfiguredServer(config, "/pic?id=1"));
  EXPECT_FALSE(IsConfiguredServer(config, ""));
  config.is_https = true;
  EXPECT_TRUE(IsConfiguredServer(config, "https://server.example:81/pic?id=1"));
  for (const char* ip : {"fd00::7", "[fd00::7]"}) {
    config.ip = ip;
    EXPECT_TRUE(IsConfiguredServer(config, "https://[FD00::7]:81/pic?id=1")) << ip;
    EXPECT_FALSE(IsConfiguredServer(config, "https://[fd00::8]:81/pic?id=1")) << ip;
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
