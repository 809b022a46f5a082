#include "ClientSettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Failure.h"

namespace Tansy::Cli {
namespace {

using testing::HasSubstr;
using testing::Not;

Settings Home() {
  Settings settings;
  settings.s3_server = {true, "::1", 9745};
  settings.access_key = "ak";
  settings.secret_key = "it's $secret";
  settings.pool = "backups";
  settings.ca = "/ca.pem";
  return settings;
}

TEST(ClientSettingsTest, NamesAddressKeysAndCertificate) {
  for (const char* client : {"aws", "s3cmd", "rclone", "restic"}) {
    const std::string text = ClientSettings(client, Home());
    EXPECT_THAT(text, HasSubstr("[::1]:9745")) << client;
    EXPECT_THAT(text, HasSubstr("ak")) << client;
    EXPECT_THAT(text, HasSubstr("/ca.pem")) << client;
    EXPECT_THAT(text, HasSubstr("us-east-1")) << client;
  }
  EXPECT_THAT(ClientSettings("restic", Home()), HasSubstr("RESTIC_REPOSITORY='s3:https://[::1]:9745/backups'"));
}

TEST(ClientSettingsTest, QuotesForTheShell) {
  EXPECT_EQ(ShellWord("it's $secret"), "'it'\\''s $secret'");
  EXPECT_EQ(ShellWord(""), "''");
  EXPECT_THAT(ClientSettings("aws", Home()), HasSubstr("AWS_SECRET_ACCESS_KEY='it'\\''s $secret'\n"));
  EXPECT_THAT(ClientSettings("s3cmd", Home()), HasSubstr("secret_key = it's $secret\n")) << "that is a file";
}

// Other users of the machine can read the command lines of its programs.
TEST(ClientSettingsTest, PutsNoSecretOnACommandLine) {
  const std::string text = ClientSettings("aws", Home());
  EXPECT_THAT(text.substr(text.find("aws() {")), Not(HasSubstr("secret")));
}

TEST(ClientSettingsTest, NeedsAnS3Door) {
  Settings settings = Home();
  settings.s3_server.port = 0;
  EXPECT_THROW(ClientSettings("aws", settings), CFailure);
}

}  // namespace
}  // namespace Tansy::Cli
