#include "ListeningFile.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

class ListeningFileTest : public testing::Test {
 protected:
  ListeningFileTest() { std::filesystem::current_path(temp_.GetPath()); }
  ~ListeningFileTest() override { std::filesystem::current_path(started_in_); }

  const std::filesystem::path started_in_ = std::filesystem::current_path();
  Tests::CTempFolder temp_;
};

TEST_F(ListeningFileTest, HoldsThePorts) {
  temp_.Write("listening.toml", "object-port = 1\n# left by a crash\n");
  HostOptions options;
  options.object_port = 1234;
  options.object_https_port = 0;
  options.picture_port = 65535;
  options.picture_https_port = 4321;
  options.s3_port = 5;
  options.s3_https_port = 0;
  options.admin_port = 17;
  WriteListeningFile(options);
  const std::string text = temp_.Read("listening.toml");
  EXPECT_EQ(text.substr(text.find('\n') + 1),
            "object-port = 1234\nobject-https-port = 0\npicture-port = 65535\npicture-https-port = 4321\ns3-port = "
            "5\ns3-https-port = 0\nadmin-port = 17\n");
  EXPECT_EQ(text.front(), '#');
}

TEST_F(ListeningFileTest, NamesTheAddressWhereItIsNotTheUsualOne) {
  HostOptions options;
  options.listen = {"192.0.2.8"};
  WriteListeningFile(options);
  EXPECT_NE(temp_.Read("listening.toml").find("\naddress = \"192.0.2.8\"\n"), std::string::npos);
  options.listen = {"192.0.2.8", "127.0.0.1"};
  WriteListeningFile(options);
  EXPECT_EQ(temp_.Read("listening.toml").find("address"), std::string::npos);
}

TEST_F(ListeningFileTest, IsRemovedOnceOrNeverWasThere) {
  WriteListeningFile(HostOptions());
  RemoveListeningFile();
  EXPECT_FALSE(temp_.Exists("listening.toml"));
  RemoveListeningFile();
}

TEST_F(ListeningFileTest, AFailureIsNoReasonToStop) {
  std::filesystem::create_directory("listening.toml");
  WriteListeningFile(HostOptions());
  EXPECT_TRUE(std::filesystem::is_directory("listening.toml"));
}

}  // namespace
}  // namespace Tansy::Host
