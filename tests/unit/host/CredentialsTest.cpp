#include "Credentials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "StartFailure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

class CredentialsTest : public testing::Test {
 protected:
  void SetUp() override { ClearEnvironment(); }
  void TearDown() override { ClearEnvironment(); }
  static void ClearEnvironment() {
    ::unsetenv("TANSY_ACCESS_KEY");
    ::unsetenv("TANSY_SECRET_KEY");
  }
  Settings ReadBack() {
    Settings settings;
    EXPECT_TRUE(ReadSettings(path_, false, settings));
    return settings;
  }

  Tests::CTempFolder temp_;
  std::string path_ = temp_.Path("tansyd.toml");
  bool created_ = false;
};

TEST_F(CredentialsTest, TheEnvironmentGoesFirstAndNothingIsWritten) {
  ::setenv("TANSY_ACCESS_KEY", "ea", 1);
  ::setenv("TANSY_SECRET_KEY", "es", 1);
  Settings settings;
  settings.access_key = "sa";
  settings.secret_key = "ss";
  const CredentialPair pair = ObtainCredentials(settings, path_, created_);
  EXPECT_EQ(pair.access_key, "ea");
  EXPECT_EQ(pair.secret_key, "es");
  EXPECT_FALSE(created_);
  EXPECT_FALSE(temp_.Exists("tansyd.toml"));
}

TEST_F(CredentialsTest, SettingsComeNext) {
  Settings settings;
  settings.access_key = "sa";
  settings.secret_key = "ss";
  EXPECT_EQ(ObtainCredentials(settings, path_, created_).secret_key, "ss");
  EXPECT_FALSE(created_);
}

TEST_F(CredentialsTest, OtherwiseARandomPairIsMadeAndKept) {
  const CredentialPair pair = ObtainCredentials({}, path_, created_);
  EXPECT_TRUE(created_);
  EXPECT_EQ(pair.access_key.size(), 20U);
  EXPECT_EQ(pair.secret_key.size(), 40U);
  EXPECT_THAT(pair.access_key + pair.secret_key, testing::MatchesRegex("[A-Za-z0-9]+"));
  struct stat info = {};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);

  const CredentialPair again = ObtainCredentials(ReadBack(), path_, created_);
  EXPECT_FALSE(created_);
  EXPECT_EQ(again.access_key, pair.access_key);
  EXPECT_EQ(again.secret_key, pair.secret_key);

  Tests::CTempFolder other;
  EXPECT_NE(ObtainCredentials({}, other.Path("s"), created_).secret_key, pair.secret_key);
}

TEST_F(CredentialsTest, AnExistingFileKeepsItsCommentsAndBecomesPrivate) {
  temp_.Write("tansyd.toml", "# mine\nobject-port = 1 # old\n");
  ::chmod(path_.c_str(), 0644);
  ObtainCredentials({}, path_, created_);
  EXPECT_THAT(temp_.Read("tansyd.toml"), testing::StartsWith("# mine\nobject-port = 1 # old\n"));
  EXPECT_EQ(ReadBack().secret_key.size(), 40U);
  struct stat info = {};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST_F(CredentialsTest, AnOddlyShapedFileIsLeftAsItIs) {
  const std::string content = "credentials = {}\nobject-port = 1\n";
  temp_.Write("tansyd.toml", content);
  EXPECT_ANY_THROW(ObtainCredentials({}, path_, created_));
  EXPECT_EQ(temp_.Read("tansyd.toml"), content);
}

TEST_F(CredentialsTest, HalfAnEnvironmentIsAMistake) {
  ::setenv("TANSY_ACCESS_KEY", "ea", 1);
  try {
    ObtainCredentials({}, path_, created_);
    FAIL();
  } catch (const CStartFailure& failure) {
    EXPECT_EQ(failure.GetExitCode(), kExitUsage);
  }
}

TEST_F(CredentialsTest, EmptyKeysAreAMistakeEverywhere) {
  const std::pair<const char*, const char*> pairs[] = {{"", ""}, {"ea", ""}, {"", "es"}};
  for (const auto& [access_key, secret_key] : pairs) {
    ::setenv("TANSY_ACCESS_KEY", access_key, 1);
    ::setenv("TANSY_SECRET_KEY", secret_key, 1);
    Settings settings;
    settings.access_key = "sa";
    settings.secret_key = "ss";
    try {
      ObtainCredentials(settings, path_, created_);
      ADD_FAILURE() << "\"" << access_key << "\" and \"" << secret_key << "\" are taken";
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitUsage);
      EXPECT_THAT(failure.what(), testing::HasSubstr("not empty"));
    }
    ClearEnvironment();
    settings.access_key = access_key;
    settings.secret_key = secret_key;
    if (access_key[0] != '\0') {  // without an access key there is no pair, and a new one is made
      EXPECT_THROW(ObtainCredentials(settings, path_, created_), CStartFailure);
    }
  }
  EXPECT_FALSE(temp_.Exists("tansyd.toml")) << "nothing is made in their place";
}

TEST_F(CredentialsTest, KeysThatWouldBreakTheHeaderAreRefused) {
  const auto refusal = [this](const std::string& access_key, const std::string& secret_key) -> std::string {
    Settings settings;
    settings.access_key = access_key;
    settings.secret_key = secret_key;
    try {
      ObtainCredentials(settings, path_, created_);
    } catch (const CStartFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitFailed);
      return failure.what();
    }
    return "";
  };
  for (const std::string key : {"a b", "a\tb", "a\r\nb", "k\xc3\xa9y", "a\x7f"}) {
    EXPECT_THAT(refusal(key, "s"), testing::HasSubstr("access_key must be")) << key;
    EXPECT_THAT(refusal("a", key), testing::HasSubstr("secret_key must be")) << key;
    EXPECT_THAT(refusal("a", key), testing::Not(testing::HasSubstr(key))) << "a secret is not shown";
  }
  EXPECT_THAT(refusal("a:b", "s"), testing::HasSubstr("access_key must be"));
  EXPECT_EQ(refusal("a", "s:s"), "") << "a colon hurts in the access key only";
}

TEST_F(CredentialsTest, AFolderThatCannotBeWrittenIsAFailure) {
  try {
    ObtainCredentials({}, temp_.Path("none/tansyd.toml"), created_);
    FAIL();
  } catch (const CStartFailure& failure) {
    EXPECT_EQ(failure.GetExitCode(), kExitFailed);
  }
}

}  // namespace
}  // namespace Tansy::Host
