#include "Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StartFailure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

std::string FailureOf(const std::string& content, bool may_name_data = false) {
  try {
    ParseSettings(content, "s.toml", may_name_data);
  } catch (const CStartFailure& failure) {
    EXPECT_EQ(failure.GetExitCode(), kExitFailed);
    EXPECT_EQ(std::string(failure.what()).find('\n'), std::string::npos);
    return failure.what();
  }
  return "";
}

TEST(SettingsTest, NumbersAndTextsBecomeTexts) {
  const Settings settings = ParseSettings("object-port = 9\nlog-file = \"a b\"\n", "s", false);
  EXPECT_EQ(settings.texts, (OptionTexts{{"object-port", "9"}, {"log-file", "a b"}}));
  EXPECT_EQ(settings.access_key, "");
}

TEST(SettingsTest, AListIsAnArrayOrOneText) {
  EXPECT_EQ(ParseSettings("listen = ['127.0.0.1', '::1']", "s", false).texts.at("listen"), "127.0.0.1,::1");
  EXPECT_EQ(ParseSettings("listen = '::1'", "s", false).texts.at("listen"), "::1");
  EXPECT_THAT(FailureOf("listen = [['::1']]"), HasSubstr("listen must be a text"));
  EXPECT_THAT(FailureOf("log-file = ['a', 'b']"), HasSubstr("log-file must be a text"));
}

TEST(SettingsTest, CredentialsAreReadFromTheirTable) {
  const Settings settings = ParseSettings("[credentials]\naccess_key = 'a'\nsecret_key = 'b'\n", "s", false);
  EXPECT_EQ(settings.access_key, "a");
  EXPECT_EQ(settings.secret_key, "b");
}

TEST(SettingsTest, UnknownKeysAreNamedAllAtOnce) {
  EXPECT_EQ(FailureOf("object-port = 1\nobject-prt = 1\n"), "settings file s.toml: unknown key object-prt");
  EXPECT_EQ(FailureOf("a = 1\nb = 2\n[credentials]\nkey = 'x'\n[c]\nd = 1\n"),
            "settings file s.toml: unknown keys a, b, c, credentials.key");
  EXPECT_THAT(FailureOf("config = 'x'"), HasSubstr("unknown key config"));
  EXPECT_THAT(FailureOf("check = true"), HasSubstr("unknown key check"));
}

TEST(SettingsTest, KeysWithControlCharactersLeaveTheMessageOneLine) {
  EXPECT_EQ(FailureOf("\"a\\nb\\u007f\" = 1\n[credentials]\n\"\\t\" = 'x'\n"),
            "settings file s.toml: unknown keys a?b?, credentials.?");
}

TEST(SettingsTest, BrokenFilesAreToldByTheirLineWithoutShowingIt) {
  const std::string line = FailureOf("object-port = 1\n[credentials]\nsecret_key = hush\n");
  EXPECT_EQ(line, "settings file s.toml: line 3 is not valid TOML");
}

TEST(SettingsTest, ValuesOfAWrongKindAreNamed) {
  EXPECT_THAT(FailureOf("object-port = 1.5"), HasSubstr("object-port must be a text or a whole number"));
  EXPECT_THAT(FailureOf("object-port = [1]"), HasSubstr("object-port"));
  EXPECT_THAT(FailureOf("[object-port]\n"), HasSubstr("object-port"));
  EXPECT_THAT(FailureOf("credentials = 1"), HasSubstr("[credentials]"));
  EXPECT_THAT(FailureOf("[credentials]\naccess_key = 1\n"), HasSubstr("credentials.access_key"));
  EXPECT_THAT(FailureOf("[credentials]\naccess_key = ''\n"), HasSubstr("credentials.access_key"));
  EXPECT_THAT(FailureOf("[credentials]\naccess_key = 'a'\n"), HasSubstr("both"));
}

TEST(SettingsTest, OnlyAFileOutsideTheDataFolderMayNameIt) {
  EXPECT_THAT(FailureOf("data = 'x'"), HasSubstr("data cannot be set"));
  EXPECT_EQ(FailureOf("data = 'x'", true), "");
}

TEST(SettingsTest, AMissingFileIsNoFailureAndAFolderIsOne) {
  const Tests::CTempFolder temp;
  Settings settings;
  EXPECT_FALSE(ReadSettings(temp.Path("none"), false, settings));
  EXPECT_THROW(ReadSettings(temp.GetPath(), false, settings), CStartFailure);
}

TEST(SettingsTest, AddedCredentialsLeaveEverythingElseAlone) {
  const std::vector<std::string> contents = {
      "",
      "# only a comment",
      "object-port = 1 # why\n\n# end\n",
      "object-port = 1\n[credentials]\n# to be made\n",
      "[credentials]",
      "# a\n  [ credentials ] # mine\n",
  };
  for (const std::string& content : contents) {
    const std::string changed = AddCredentials(content, "key", "se\"cr\\et");
    const Settings settings = ParseSettings(changed, "s", false);
    EXPECT_EQ(settings.access_key, "key") << content;
    EXPECT_EQ(settings.secret_key, "se\"cr\\et") << content;
    // Every old line is there still, in its order.
    std::size_t position = 0;
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
      position = changed.find(line, position);
      ASSERT_NE(position, std::string::npos) << line << " in " << changed;
    }
  }
}

}  // namespace
}  // namespace Tansy::Host
