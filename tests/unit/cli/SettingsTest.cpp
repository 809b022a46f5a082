#include "Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "Failure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::HasSubstr;

class SettingsTest : public testing::Test {
 protected:
  SettingsTest() {
    environment_["XDG_CONFIG_HOME"] = folder_.Path("config");
    std::filesystem::current_path(folder_.GetPath());
  }
  ~SettingsTest() override { std::filesystem::current_path(before_); }

  Settings Find() {
    return FindSettings(globals_, [this](const char* name) {
      const auto found = environment_.find(name);
      return found == environment_.end() ? std::string() : found->second;
    });
  }

  void ExpectFailure(EExitCode exit_code, const std::string& text) {
    try {
      Find();
      ADD_FAILURE() << "no failure";
    } catch (const CFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), exit_code);
      EXPECT_THAT(failure.what(), HasSubstr(text));
      EXPECT_NE(failure.GetAdvice(), "");
    }
  }

  void MakeDataFolder(const std::string& name, const std::string& more = "") {
    folder_.Write(name + "/tansyd.toml",
                  more + "\n[credentials]\naccess_key = \"data-ak\"\nsecret_key = \"data-sk\"\n");
  }
  void MakeConfig(const std::string& content) { folder_.Write("config/tansy/config.toml", content); }

  const std::filesystem::path before_ = std::filesystem::current_path();
  Tests::CTempFolder folder_;
  Globals globals_;
  std::map<std::string, std::string> environment_;
};

constexpr char kHome[] =
    "default = \"home\"\n[servers.home]\nurl = \"http://10.0.0.5:9700\"\naccess_key = \"home-ak\"\n"
    "secret_key = \"home-sk\"\npool = \"photos\"\nca = \"/ca.pem\"\n"
    "[servers.work]\nurl = \"https://work.example:443\"\npicture_url = \"https://work.example:444\"\n"
    "access_key = \"work-ak\"\nsecret_key = \"work-sk\"\ninsecure = true\n";

TEST_F(SettingsTest, SaysThatNoServerIsKnown) {
  ExpectFailure(kExitUsage, "no server is known");
}

TEST_F(SettingsTest, UsesTheDataFolderThatLiesHere) {
  MakeDataFolder("tansy-data");
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://127.0.0.1:9700");
  EXPECT_EQ(settings.picture_server.Url(), "http://127.0.0.1:9701");
  EXPECT_EQ(settings.access_key, "data-ak");
  EXPECT_EQ(settings.secret_key, "data-sk");
  EXPECT_EQ(settings.pool, "");
  EXPECT_EQ(settings.data_folder, "tansy-data");
  EXPECT_EQ(settings.keys_file, "tansy-data/tansyd.toml");
}

TEST_F(SettingsTest, TakesThePortsOfADataFolder) {
  MakeDataFolder("other", "object-port = 1234\npicture-port = 4321\n");
  globals_.data = folder_.Path("other");
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://127.0.0.1:1234");
  EXPECT_EQ(settings.picture_server.Url(), "http://127.0.0.1:4321");
}

TEST_F(SettingsTest, TakesThePortsThatARunningServerTells) {
  MakeDataFolder("other", "object-port = 1234\npicture-port = 4321\n");
  folder_.Write("other/listening.toml", "object-port = 5678\nobject-https-port = 0\npicture-port = 8765\n");
  globals_.data = folder_.Path("other");
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://127.0.0.1:5678");
  EXPECT_EQ(settings.picture_server.Url(), "http://127.0.0.1:8765");
  EXPECT_EQ(settings.access_key, "data-ak");
}

TEST_F(SettingsTest, FindsTheS3DoorBesideTheOtherPorts) {
  MakeDataFolder("other", "s3-port = 4322\ns3-region = \"eu\"\n");
  globals_.data = folder_.Path("other");
  EXPECT_EQ(S3Server(Find()).Url(), "http://127.0.0.1:4322");
  EXPECT_EQ(Find().s3_region, "eu");
  folder_.Write("other/listening.toml", "address = \"::1\"\nobject-port = 5678\ns3-port = 8766\n");
  EXPECT_EQ(S3Server(Find()).Url(), "http://[::1]:8766");
  folder_.Write("other/listening.toml", "object-port = 5678\ns3-port = 0\n");
  EXPECT_THROW(S3Server(Find()), CFailure) << "the server says that it has none";
  globals_.data = "";
  globals_.server = "https://host:9743";
  environment_["TANSY_ACCESS_KEY"] = "ak";
  environment_["TANSY_SECRET_KEY"] = "sk";
  environment_["TANSY_S3_URL"] = "http://elsewhere:1";
  EXPECT_EQ(S3Server(Find()).Url(), "https://host:9745") << "it belongs to the server of the environment only";
  EXPECT_EQ(Find().s3_region, "us-east-1");
  globals_.server = "http://host:65534";
  EXPECT_THROW(S3Server(Find()), CFailure);
  globals_.server = "";
  environment_["TANSY_SERVER"] = "http://host:9700";
  EXPECT_EQ(S3Server(Find()).Url(), "http://elsewhere:1");
}

TEST_F(SettingsTest, FindsTheAdminPort) {
  MakeDataFolder("tansy-data", "object-port = 7700\nadmin-port = 7777");
  EXPECT_EQ(AdminServer(Find()).Url(), "http://127.0.0.1:7777");
  folder_.Write("tansy-data/listening.toml", "address = \"10.0.0.5\"\nobject-port = 7700\nadmin-port = 7778\n");
  EXPECT_EQ(AdminServer(Find()).Url(), "http://127.0.0.1:7778") << "wherever the others listen";
  folder_.Write("tansy-data/listening.toml", "object-port = 7700\nadmin-port = 0\n");
  EXPECT_THROW(AdminServer(Find()), CFailure);

  environment_["TANSY_ACCESS_KEY"] = "a";
  environment_["TANSY_SECRET_KEY"] = "s";
  globals_.server = "http://127.0.0.1:9700";
  EXPECT_EQ(AdminServer(Find()).Url(), "http://127.0.0.1:9703");
  globals_.server = "http://10.0.0.5:9700";
  EXPECT_EQ(AdminServer(Find()).Url(), "https://10.0.0.5:9703") << "it speaks nothing else to strangers";
  globals_.server = "http://10.0.0.5:65534";
  EXPECT_THROW(AdminServer(Find()), CFailure);
  globals_.server.clear();
  environment_["TANSY_SERVER"] = "http://10.0.0.5:9700";
  environment_["TANSY_ADMIN_URL"] = "https://10.0.0.6:1";
  EXPECT_EQ(AdminServer(Find()).Url(), "https://10.0.0.6:1");
}

TEST_F(SettingsTest, TakesTheS3DoorOfTheConfiguration) {
  MakeConfig(
      "default = \"home\"\n[servers.home]\nurl = \"http://h:1\"\naccess_key = \"a\"\nsecret_key = \"s\"\n"
      "s3_url = \"https://s3.h\"\ns3_region = \"eu\"\n");
  EXPECT_EQ(S3Server(Find()).Url(), "https://s3.h:443");
  EXPECT_EQ(Find().s3_region, "eu");
}

// A server whose keys are in its environment need not have a settings file.
TEST_F(SettingsTest, TakesKeysFromElsewhereWhenADataFolderHasOnlyPorts) {
  folder_.Write("other/listening.toml", "object-port = 5678\npicture-port = 8765\n");
  globals_.data = folder_.Path("other");
  ExpectFailure(kExitUsage, "no keys are known for http://127.0.0.1:5678");
  environment_ = {{"TANSY_ACCESS_KEY", "env-ak"}, {"TANSY_SECRET_KEY", "env-sk"}};
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://127.0.0.1:5678");
  EXPECT_EQ(settings.secret_key, "env-sk");
}

TEST_F(SettingsTest, TakesTheDataFolderOfTheEnvironmentBeforeTheConfiguration) {
  MakeConfig(kHome);
  MakeDataFolder("other");
  environment_["TANSY_DATA"] = folder_.Path("other");
  EXPECT_EQ(Find().access_key, "data-ak");
  MakeDataFolder("tansy-data");
  environment_.erase("TANSY_DATA");
  EXPECT_EQ(Find().access_key, "home-ak") << "a folder that nobody named comes last";
}

TEST_F(SettingsTest, SaysThatADataFolderIsNone) {
  globals_.data = folder_.Path("nothing");
  ExpectFailure(kExitFailed, "there is no tansyd.toml in it");
}

TEST_F(SettingsTest, AServerOnTheLastPortHasNoPicturePortBehindIt) {
  MakeConfig(kHome);
  globals_.server = "http://10.0.0.5:65535";
  environment_["TANSY_ACCESS_KEY"] = environment_["TANSY_SECRET_KEY"] = "k";
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://10.0.0.5:65535") << "objects do without it";
  try {
    PictureServer(settings);
    ADD_FAILURE() << "no failure";
  } catch (const CFailure& failure) {
    EXPECT_EQ(failure.GetExitCode(), kExitUsage);
    EXPECT_THAT(failure.what(), HasSubstr("no picture server is known for http://10.0.0.5:65535"));
    EXPECT_THAT(failure.GetAdvice(), HasSubstr("picture_url"));
  }
  globals_.server = "http://10.0.0.5:65534";
  EXPECT_EQ(PictureServer(Find()).Url(), "http://10.0.0.5:65535");
}

TEST_F(SettingsTest, UsesTheDefaultServerOfTheConfiguration) {
  MakeConfig(kHome);
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://10.0.0.5:9700");
  EXPECT_EQ(settings.picture_server.Url(), "http://10.0.0.5:9701") << "one above, unless it is named";
  EXPECT_EQ(settings.access_key, "home-ak");
  EXPECT_EQ(settings.pool, "photos");
  EXPECT_EQ(settings.ca, "/ca.pem");
  EXPECT_FALSE(settings.insecure);
}

TEST_F(SettingsTest, UsesANamedServer) {
  MakeConfig(kHome);
  globals_.server = "work";
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "https://work.example:443");
  EXPECT_EQ(settings.picture_server.Url(), "https://work.example:444");
  EXPECT_EQ(settings.secret_key, "work-sk");
  EXPECT_TRUE(settings.insecure);
  globals_.server = "nowhere";
  ExpectFailure(kExitUsage, "there is no server named \"nowhere\"");
}

TEST_F(SettingsTest, FindsTheKeysOfAnAddressInTheConfiguration) {
  MakeConfig(kHome);
  globals_.server = "https://work.example:443";
  EXPECT_EQ(Find().access_key, "work-ak");
  globals_.server = "http://unknown.example:80";
  ExpectFailure(kExitUsage, "no keys are known for http://unknown.example:80");
}

TEST_F(SettingsTest, PutsOptionsBeforeTheEnvironmentAndThatBeforeFiles) {
  MakeConfig(kHome);
  environment_["TANSY_SERVER"] = "http://env.example:1";
  environment_["TANSY_POOL"] = "env-pool";
  environment_["TANSY_ACCESS_KEY"] = "env-ak";
  environment_["TANSY_SECRET_KEY"] = "env-sk";
  Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://env.example:1");
  EXPECT_EQ(settings.pool, "env-pool");
  EXPECT_EQ(settings.access_key, "env-ak");
  globals_.server = "work";
  globals_.pool = "option-pool";
  globals_.ca = "/option.pem";
  settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "https://work.example:443");
  EXPECT_EQ(settings.pool, "option-pool");
  EXPECT_EQ(settings.ca, "/option.pem");
  EXPECT_EQ(settings.access_key, "work-ak") << "the server that was named has keys of its own";
  globals_.server = "http://option.example:2";
  settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://option.example:2");
  EXPECT_EQ(settings.access_key, "env-ak");
}

TEST_F(SettingsTest, PutsADataFolderThatIsNamedByHandBeforeTheEnvironment) {
  MakeConfig(kHome);
  MakeDataFolder("other", "object-port = 1234\n");
  environment_["TANSY_SERVER"] = "http://env.example:1";
  environment_["TANSY_ACCESS_KEY"] = "env-ak";
  environment_["TANSY_SECRET_KEY"] = "env-sk";
  environment_["TANSY_DATA"] = folder_.Path("missing");
  globals_.data = folder_.Path("other");
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://127.0.0.1:1234");
  EXPECT_EQ(settings.access_key, "data-ak");
  EXPECT_EQ(settings.source, "data folder " + folder_.Path("other"));
  environment_["TANSY_SERVER"] = "nonsense";
  EXPECT_EQ(Find().access_key, "data-ak") << "a server that nobody asks for need not be there";
}

TEST_F(SettingsTest, DoesNotSendOneServersKeysToAnother) {
  MakeConfig(kHome);
  folder_.Write("other/listening.toml", "object-port = 5678\npicture-port = 8765\n");
  globals_.data = folder_.Path("other");
  ExpectFailure(kExitUsage, "no keys are known for http://127.0.0.1:5678");
}

TEST_F(SettingsTest, TakesTheAddressThatARunningServerTells) {
  MakeDataFolder("other");
  folder_.Write("other/listening.toml",
                "address = \"fd00::5\"\nobject-port = 5678\npicture-port = 8765\nsomething-new = true\n");
  globals_.data = folder_.Path("other");
  const Settings settings = Find();
  EXPECT_EQ(settings.object_server.Url(), "http://[fd00::5]:5678");
  EXPECT_EQ(settings.picture_server.Url(), "http://[fd00::5]:8765");
}

TEST_F(SettingsTest, DoesNotMixServersOfDifferentPlaces) {
  MakeDataFolder("tansy-data", "picture-port = 4321\n");
  globals_.server = "http://10.0.0.9:9000";
  EXPECT_EQ(Find().picture_server.Url(), "http://10.0.0.9:9001");
}

TEST_F(SettingsTest, NeedsBothKeys) {
  environment_["TANSY_SERVER"] = "http://env.example:1";
  environment_["TANSY_ACCESS_KEY"] = "env-ak";
  ExpectFailure(kExitUsage, "only one of TANSY_ACCESS_KEY and TANSY_SECRET_KEY");
}

TEST_F(SettingsTest, NamesTheLineButNotTheSecretOfABrokenFile) {
  MakeConfig("default = \"home\"\n[servers.home]\nsecret_key = \"top-secret\n");
  try {
    Find();
    ADD_FAILURE() << "no failure";
  } catch (const CFailure& failure) {
    EXPECT_EQ(failure.GetExitCode(), kExitFailed);
    EXPECT_THAT(failure.what(), HasSubstr("line 3 is not valid TOML"));
    EXPECT_THAT(failure.what(), testing::Not(HasSubstr("top-secret")));
  }
}

TEST_F(SettingsTest, RefusesServersWithoutAnAddress) {
  MakeConfig("default = \"home\"\n[servers.home]\naccess_key = \"a\"\n");
  ExpectFailure(kExitFailed, "server home has no url");
  MakeConfig("default = \"gone\"\n[servers.home]\nurl = \"http://a:1\"\n");
  ExpectFailure(kExitFailed, "default names the server gone");
  MakeConfig("default = \"home\"\n[servers.home]\nurl = \"http://a:1/path\"\naccess_key=\"a\"\nsecret_key=\"b\"\n");
  ExpectFailure(kExitUsage, "is no server address");
}

TEST(ServerAddressTest, IsReadAndWritten) {
  ServerAddress address;
  EXPECT_TRUE(ParseServerUrl("http://[::1]:9700", address));
  EXPECT_EQ(address.Url(), "http://[::1]:9700");
  EXPECT_TRUE(ParseServerUrl("https://example.org/", address));
  EXPECT_EQ(address.Url(), "https://example.org:443");
  for (const char* text : {"", "example.org", "ftp://example.org", "http://example.org/x", "http://", "http://a b"}) {
    EXPECT_FALSE(ParseServerUrl(text, address)) << text;
  }
}

}  // namespace
}  // namespace Tansy::Cli
