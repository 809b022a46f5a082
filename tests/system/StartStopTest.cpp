// How tansyd starts, what it refuses, and how it ends.
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "fakes/Ipv6Loopback.h"
#include "support/Ports.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class StartStopTest : public TansydTest {
 protected:
  // Expects a start to fail with this exit code and with one line on standard error that contains `words`.
  void ExpectFailure(const Launch& launch, int code, const std::string& words) {
    const Ended ended = server_.RunToEnd(launch);
    EXPECT_TRUE(ended.exited) << words;
    EXPECT_EQ(ended.code, code) << ended.err;
    EXPECT_THAT(ended.err, AllOf(StartsWith("tansyd: "), HasSubstr(words)));
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
    EXPECT_EQ(ended.out, "");
  }
  Launch With(std::vector<std::string> arguments) {
    Launch launch;
    launch.arguments = std::move(arguments);
    return launch;
  }
  mode_t ModeOf(const std::string& path) {
    struct stat info = {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
  }
};

TEST_F(StartStopTest, SaysReadyServesAndStops) {
  ASSERT_TRUE(server_.Start());
  EXPECT_THAT(server_.GetReadyLine(), HasSubstr("http://127.0.0.1:" + std::to_string(server_.GetObjectPort())));
  EXPECT_THAT(server_.GetReadyLine(), HasSubstr("http://127.0.0.1:" + std::to_string(server_.GetPicturePort())));
  EXPECT_EQ(Outcome(Send("GET", "/")), "200");
  EXPECT_TRUE(server_.Stop(SIGTERM));
  EXPECT_EQ(Call(server_.GetObjectPort(), {}).status, 0) << "nobody listens any more";
  ASSERT_TRUE(server_.Start());
  EXPECT_TRUE(server_.Stop(SIGINT));
  EXPECT_EQ(server_.GetErrors(), "");
}

// Programs read the addresses of the servers from this line, and the folder is all that is behind the last one.
TEST_F(StartStopTest, NamesAllServersInTheReadyLine) {
  Launch launch;
  launch.with_s3 = true;
  launch.with_https = true;
  ASSERT_TRUE(server_.Start(launch));
  const auto addresses = [](std::uint16_t port, std::uint16_t https_port) {
    return " http://127.0.0.1:" + std::to_string(port) + " https://127.0.0.1:" + std::to_string(https_port);
  };
  EXPECT_EQ(server_.GetReadyLine(),
            "tansyd ready: objects" + addresses(server_.GetObjectPort(), server_.GetObjectHttpsPort()) + ", pictures" +
                addresses(server_.GetPicturePort(), server_.GetPictureHttpsPort()) + ", S3" +
                addresses(server_.GetS3Port(), server_.GetS3HttpsPort()) + ", data " + server_.Data());
  EXPECT_TRUE(server_.Stop());
  launch.with_s3 = false;
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_THAT(server_.GetReadyLine(), Not(HasSubstr("S3")));
}

TEST_F(StartStopTest, ServesBothFamilies) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  ASSERT_TRUE(server_.Start());
  ConnectOptions options;
  options.ipv6 = true;
  EXPECT_EQ(Outcome(Send("GET", "/", "", {}, options)), "200");
}

TEST_F(StartStopTest, AMachineWithoutIpv6IsServedOnIpv4) {
  Launch launch;
  launch.without_ipv6 = true;
  launch.with_https = true;
  const bool started = server_.Start(launch);
  if (server_.IsFilterMissing()) {
    GTEST_SKIP() << "this machine does not let a test take IPv6 away from a process";
  }
  ASSERT_TRUE(started);
  EXPECT_EQ(Outcome(Send("GET", "/")), "200");
  ConnectOptions options;
  options.ipv6 = true;
  EXPECT_EQ(Send("GET", "/", "", {}, options).status, 0) << "nobody listens there";
  EXPECT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog(), HasSubstr("no IPv6 here, listen: :: port " + std::to_string(server_.GetObjectPort())));
  EXPECT_EQ(server_.GetErrors(), "");
}

TEST_F(StartStopTest, HelpAndVersion) {
  Launch launch = With({"--help"});
  launch.with_data = launch.with_ports = false;
  Ended ended = server_.RunToEnd(launch);
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, AllOf(HasSubstr("--object-port"), HasSubstr("--durability")));
  launch.arguments = {"--version"};
  ended = server_.RunToEnd(launch);
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, StartsWith("tansyd "));
  EXPECT_FALSE(std::filesystem::exists(temp_.Path("tansy-data")));
}

TEST_F(StartStopTest, WrongOptionsAreUsageAndTouchNothing) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
      {{"--no-such-option"}, "--no-such-option"},
      {{"--log-level"}, "--log-level"},
      {{"--log-level", "9"}, "--log-level \"9\" is not valid: give a level from 2"},
      {{"--durability", "some"}, "--durability \"some\" is not valid: give full or fast"},
      {{"--wan-object-port", "70000"}, "--wan-object-port \"70000\" is not valid: give a port"},
      {{"--wan-ip", "everywhere"}, "--wan-ip \"everywhere\" is not valid: give an IPv4 or IPv6 address"},
      {{"--database", "mysql://x"}, "--database is not valid: give sqlite:FILE or postgresql:"},
      {{"--storage", "objects"}, "--storage is not valid: give file:DIR"},
      {{"stray"}, "stray"},
      {{"--repair"}, "--check"},
  };
  for (const auto& [arguments, words] : rows) {
    ExpectFailure(With(arguments), 2, words);
  }
  EXPECT_FALSE(std::filesystem::exists(server_.Data()));
}

TEST_F(StartStopTest, TwoListenersOnOnePortAreUsage) {
  Launch launch = With({"--object-port", "23456", "--picture-port", "23456"});
  launch.with_ports = false;
  ExpectFailure(launch, 2, "object-port and picture-port are both 23456");
}

TEST_F(StartStopTest, SettingsCountAndTheCommandLineWins) {
  const std::vector<std::uint16_t> ports = FreePorts(3);
  std::filesystem::create_directories(server_.Data());
  std::ofstream(server_.Data("tansyd.toml"))
      << "object-port = " << ports[0] << "\npicture-port = " << ports[1]
      << "\nobject-https-port = 0\npicture-https-port = \"0\"\nlocal-ip = \"127.0.0.9\"\n";
  Launch launch = With({"--object-port", std::to_string(ports[2])});
  launch.with_ports = false;
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_THAT(server_.GetReadyLine(), HasSubstr("objects http://127.0.0.9:" + std::to_string(ports[2]) + ","));
  EXPECT_THAT(server_.GetReadyLine(), HasSubstr("pictures http://127.0.0.9:" + std::to_string(ports[1]) + ","));
  EXPECT_EQ(Outcome(Call(ports[2], Signed({"GET", "/", {}, ""}))), "200");
}

TEST_F(StartStopTest, BrokenSettingsAreFailuresThatLeaveTheFileAlone) {
  std::filesystem::create_directories(server_.Data());
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"object-prt = 1\nnonsense = 2\n", "unknown keys nonsense, object-prt"},
      {"[credentials]\naccess_kee = 'x'\n", "unknown key credentials.access_kee"},
      {"this is not toml", "line 1 is not valid TOML"},
      {"log-level = 'loud'\n", "log-level \"loud\" is not valid: give a level"},
      {"log-level = [3]\n", "log-level must be a text or a whole number"},
      {"[credentials]\naccess_key = 'only'\n", "needs both access_key and secret_key"},
  };
  for (const auto& [content, words] : rows) {
    std::ofstream(server_.Data("tansyd.toml")) << content;
    ExpectFailure({}, 1, words);
    std::ifstream file(server_.Data("tansyd.toml"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
  }
}

TEST_F(StartStopTest, ASettingsFileElsewhereMayNameTheDataFolder) {
  temp_.Write("etc/tansyd.toml", "data = 'kept'\n");
  Launch launch = With({"--config", "etc/tansyd.toml"});
  launch.with_data = false;
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(temp_.Exists("etc/kept/catalogue.db"));
  server_.Stop();
  ExpectFailure(With({"--config", "etc/none.toml"}), 1, "etc/none.toml does not exist");
}

TEST_F(StartStopTest, CredentialsAreMadeOnceAndShownNowhere) {
  Launch launch = With({"--log-level", "2"});
  launch.with_keys = false;
  ASSERT_TRUE(server_.Start(launch));
  std::ifstream file(server_.Data("tansyd.toml"));
  const std::string settings(std::istreambuf_iterator<char>(file), {});
  EXPECT_EQ(ModeOf(server_.Data("tansyd.toml")), 0600U);
  const auto value = [&settings](const std::string& key) {
    const std::size_t begin = settings.find(key + " = \"") + key.size() + 4;
    return settings.substr(begin, settings.find('"', begin) - begin);
  };
  const Keys keys = {value("access_key"), value("secret_key")};
  ASSERT_EQ(keys.secret_key.size(), 40U) << "made, with nothing built in";

  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), Signed({"GET", "/", {}, ""}, keys))), "200");
  // A wrong signature is used, because only its log lines carry the secret.
  Keys wrong = keys;
  wrong.secret_key = "wrong";
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), Signed({"GET", "/", {}, ""}, wrong))), "403 AccessDenied");
  std::ifstream command_line("/proc/" + std::to_string(server_.GetPid()) + "/cmdline");
  const std::string process(std::istreambuf_iterator<char>(command_line), {});
  server_.Stop();
  EXPECT_THAT(server_.GetLog(), HasSubstr("CheckHMACResult failed!"));
  for (const std::string& text : {server_.GetLog(), server_.GetErrors(), server_.GetReadyLine(), process}) {
    EXPECT_THAT(text, Not(HasSubstr(keys.secret_key)));
  }
  EXPECT_THAT(server_.GetLog(), HasSubstr(keys.access_key)) << "an operator has to see whose key is wrong";

  ASSERT_TRUE(server_.Start(launch));
  EXPECT_EQ(Outcome(Call(server_.GetObjectPort(), Signed({"GET", "/", {}, ""}, keys))), "200") << "kept";
}

TEST_F(StartStopTest, HalfAnEnvironmentIsUsage) {
  Launch launch;
  launch.with_keys = false;
  launch.environment["TANSY_SECRET_KEY"] = "hush";
  ExpectFailure(launch, 2, "set both TANSY_ACCESS_KEY and TANSY_SECRET_KEY");
}

TEST_F(StartStopTest, APortInUseIsOneLineAndHurtsNobody) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  CTansyd second(temp_.GetPath(), "second");
  Launch launch;
  launch.with_ports = false;
  launch.arguments = {"--object-port",
                      std::to_string(server_.GetObjectPort()),
                      "--picture-port",
                      std::to_string(second.GetPicturePort()),
                      "--object-https-port",
                      "0",
                      "--picture-https-port",
                      "0",
                      "--s3-port",
                      "0",
                      "--s3-https-port",
                      "0"};
  Ended ended = second.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, AllOf(StartsWith("tansyd: "), HasSubstr(std::to_string(server_.GetObjectPort()))));
  EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
  EXPECT_EQ(ended.out, "");

  launch.arguments[1] = std::to_string(second.GetObjectPort());
  launch.arguments[3] = std::to_string(server_.GetPicturePort());
  ended = second.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1) << "the picture port is as taken";
  EXPECT_THAT(ended.err, HasSubstr(std::to_string(server_.GetPicturePort())));
  EXPECT_EQ(Outcome(Send("GET", "/")), "200");
}

TEST_F(StartStopTest, ADataFolderServesOneAtATime) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  const Launch launch;
  std::vector<std::string> arguments = {"--data", server_.Data()};
  Launch other;
  other.with_data = other.with_ports = false;
  other.arguments = arguments;
  CTansyd second(temp_.GetPath(), "second");
  Ended ended = second.RunToEnd(other);
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, AllOf(HasSubstr(server_.Data()), HasSubstr("in use by another tansyd")));
  other.arguments.push_back("--check");
  ended = second.RunToEnd(other);
  EXPECT_EQ(ended.code, 0) << "to look at it is allowed: " << ended.err;

  // The same objects from another data folder.
  other.arguments = {"--data", temp_.Path("other"), "--storage", "file:" + server_.Data("objects")};
  ended = second.RunToEnd(other);
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, AllOf(HasSubstr("storage folder"), HasSubstr("in use by another tansyd")));
  EXPECT_EQ(Outcome(Send("GET", "/b?property")), "200");
}

TEST_F(StartStopTest, AFolderThatCannotBeIsAFailure) {
  temp_.Write("file", "kept");
  Launch launch;
  launch.with_data = false;
  launch.arguments = {"--data", temp_.Path("file/below")};
  ExpectFailure(launch, 1, "file/below cannot be made");
  launch.arguments = {"--data", temp_.Path("file")};
  ExpectFailure(launch, 1, "file cannot be made");
  EXPECT_EQ(temp_.Read("file"), "kept");
  launch.arguments = {"--data", server_.Data(), "--log-file", temp_.Path("file/x.log")};
  ExpectFailure(launch, 1, "log file");
  ExpectFailure(With({"--storage", "file:" + temp_.Path("file")}), 1, "storage folder");
  ExpectFailure(With({"--database", "sqlite:" + temp_.Path("none/x.db")}), 1, "database");
}

TEST_F(StartStopTest, ADatabaseThatIsNoneIsLeftAlone) {
  std::filesystem::create_directories(server_.Data());
  const std::string text(5000, 'x');
  std::ofstream(server_.Data("catalogue.db")) << text;
  ExpectFailure({}, 1, "database catalogue.db");
  std::ifstream file(server_.Data("catalogue.db"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), text);
}

TEST_F(StartStopTest, ANewerSchemaIsRefusedAndKept) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  server_.Stop();
  Query(server_.Data("catalogue.db"), "INSERT INTO schema_version VALUES (4711, 'later', '')");
  ExpectFailure({}, 1, "schema version 4711, made by a newer tansyd");
  Query(server_.Data("catalogue.db"), "DELETE FROM schema_version WHERE version = 4711");
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b?property")), "200");
}

TEST_F(StartStopTest, ACatalogueThatCannotBeReadIsNotTakenForAnEmptyOne) {
  ASSERT_TRUE(server_.Start());
  ASSERT_TRUE(server_.Stop());
  Query(server_.Data("catalogue.db"), "ALTER TABLE local_bucket RENAME TO moved_away");
  ExpectFailure({}, 1, "catalogue in database");
  Query(server_.Data("catalogue.db"), "ALTER TABLE moved_away RENAME TO local_bucket");
  EXPECT_TRUE(server_.Start());
}

TEST_F(StartStopTest, AStoreThatIsNotMountedIsNotTakenForAnEmptyOne) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/o", "bytes");
  server_.Stop();
  std::filesystem::rename(server_.Data("objects"), server_.Data("elsewhere"));
  ExpectFailure({}, 1, "storage folder objects is missing");
  EXPECT_FALSE(std::filesystem::exists(server_.Data("objects")));
  std::filesystem::rename(server_.Data("elsewhere"), server_.Data("objects"));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Get("/b/o"), "bytes");
}

TEST_F(StartStopTest, AMovedDataFolderStillHasEverything) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/o", "bytes");
  server_.Stop();
  std::filesystem::rename(server_.Data(), temp_.Path("moved"));
  CTansyd moved(temp_.GetPath(), "moved");
  ASSERT_TRUE(moved.Start());
  EXPECT_EQ(Call(moved.GetObjectPort(), Signed({"GET", "/b/o", {}, ""})).body, "bytes");
  EXPECT_EQ(Call(moved.GetObjectPort(), Signed({"DELETE", "/b/o?deletefile", {}, ""})).status, 200);
}

TEST_F(StartStopTest, HangUpOpensTheLogAnew) {
  ASSERT_TRUE(server_.Start());
  const std::string log = temp_.Path("data.log");
  std::filesystem::rename(log, log + ".1");
  server_.Signal(SIGHUP);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!std::filesystem::exists(log) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(Outcome(Send("GET", "/none/o")), "404 NoSuchBucket");
  server_.Stop();
  EXPECT_THAT(server_.GetLog(), HasSubstr("bucket name not exist[none]"));
}

TEST_F(StartStopTest, FilesAreForTheirOwnerOnly) {
  const mode_t before = ::umask(0);  // whoever starts tansyd may have any
  Launch launch;
  launch.with_https = true;
  launch.with_keys = false;
  const bool started = server_.Start(launch);
  ::umask(before);
  ASSERT_TRUE(started);
  std::ifstream file(server_.Data("tansyd.toml"));
  EXPECT_TRUE(file.good()) << "new credentials are among the files";
  EXPECT_EQ(ModeOf(server_.Data()) & 0077, 0U);
  EXPECT_EQ(ModeOf(temp_.Path("data.log")) & 0077, 0U);
  int keys = 0;
  int databases = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data())) {
    EXPECT_EQ(ModeOf(entry.path().string()) & 0077, 0U) << entry.path();
    keys += entry.path().extension() == ".key" ? 1 : 0;
    databases += entry.path().extension() == ".db" ? 1 : 0;
  }
  EXPECT_EQ(keys, 1);
  EXPECT_EQ(databases, 1);
}

TEST_F(StartStopTest, StoredBytesAreForTheirOwnerOnly) {
  const mode_t before = ::umask(0);
  const bool started = server_.Start();
  ::umask(before);
  ASSERT_TRUE(started);
  MakeBucket("b");
  Put("/b/small", "bytes");
  Put("/b/large", std::string(100000, 'x'));
  std::multiset<std::string> kinds;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects"))) {
    EXPECT_EQ(ModeOf(entry.path().string()) & 0077, 0U) << entry.path();
    kinds.insert(entry.path().extension().string());
  }
  EXPECT_EQ(kinds.count(".d"), 1U);
  EXPECT_EQ(kinds.count(".log"), 1U);
}

// Removes what scripts of the schema behind the second one have made.
void TakeSchemaBack(const std::string& database) {
  const std::string of_later_scripts =
      "name LIKE 'local_upload%' OR name LIKE 'local_object_attributes%' OR "
      "name LIKE 'local_object_of_parts%' OR name LIKE 'local_object_pieces%' OR name LIKE 'access_keys%'";
  for (const std::string kind : {"trigger", "table"}) {
    for (const std::string& name :
         Query(database, "SELECT name FROM sqlite_master WHERE type = '" + kind + "' AND (" + of_later_scripts + ")")) {
      Query(database, "DROP " + kind + " " + name);
    }
  }
  Query(database, "ALTER TABLE local_object DROP COLUMN pieces");
  Query(database, "DELETE FROM schema_version WHERE version > 2");
}

// Before small objects lay together, each had a file of its own.
TEST_F(StartStopTest, SmallObjectsOfTheVersionBeforeStayWhatTheyAre) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  for (const char* key : {"/b/kept", "/b/replaced", "/b/removed"}) {
    Put(key, std::string(100000, 'x'));
  }
  ASSERT_TRUE(server_.Stop());
  const auto newest = Query(server_.Data("catalogue.db"), "SELECT MAX(version) FROM schema_version");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects/fs01"))) {
    if (entry.is_regular_file()) {
      std::ofstream(entry.path()) << "small";
    }
  }
  Query(server_.Data("catalogue.db"), "UPDATE local_object SET size = 5");
  Query(server_.Data("catalogue.db"), "DELETE FROM picture_url_encrypt WHERE encrypt_url = 'lg01'");
  TakeSchemaBack(server_.Data("catalogue.db"));
  ASSERT_FALSE(std::filesystem::exists(server_.Data("objects/lg01")));

  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Query(server_.Data("catalogue.db"), "SELECT MAX(version) FROM schema_version"), newest);
  EXPECT_EQ(Get("/b/kept"), "small");
  Put("/b/replaced", "replaced");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/removed?deletefile")), "200");
  Put("/b/new", "new");
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Get("/b/kept"), "small");
  EXPECT_EQ(Get("/b/replaced"), "replaced");
  EXPECT_EQ(Get("/b/new"), "new");
  EXPECT_EQ(CountFiles(server_.Data("objects/fs01")), 2U) << "the removed one is gone, the replaced one has its time";
}

// Running requests finish, and new ones are not taken meanwhile.
TEST_F(StartStopTest, StoppingLetsRunningRequestsFinish) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  const std::string bytes = RandomBytes(24 * 1024 * 1024, 1);
  Put("/b/big", bytes);
  ConnectOptions slow;
  slow.receive_buffer = 64 * 1024;
  const auto reader = CConnection::Open(server_.GetObjectPort(), slow);
  ASSERT_NE(reader, nullptr);
  ASSERT_TRUE(reader->Send(Serialize(Signed({"GET", "/b/big", {}, ""}), server_.GetObjectPort())));
  const std::string first = reader->ReceiveBytes(100000);
  EXPECT_THAT(first, StartsWith("HTTP/1.1 200"));
  server_.Signal(SIGTERM);
  ASSERT_TRUE(WaitUntil([this] { return CConnection::Open(server_.GetObjectPort()) == nullptr; }))
      << "new clients are turned away";
  EXPECT_TRUE(server_.IsRunning());
  std::string rest = first;
  while (true) {
    const std::string more = reader->ReceiveBytes(1 << 20);
    if (more.empty()) {
      break;
    }
    rest += more;
  }
  EXPECT_EQ(rest.substr(rest.find("\r\n\r\n") + 4) == bytes, true) << rest.size();
  const Ended ended = server_.WaitForEnd();
  EXPECT_TRUE(ended.exited);
  EXPECT_EQ(ended.code, 0);
}

TEST_F(StartStopTest, StoppingWhileBusyIsBoundedAndClean) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  // One client stalls in the middle of its upload, and another keeps its connection and sends nothing.
  const auto stalled = CConnection::Open(server_.GetObjectPort());
  Request upload = Signed({"PUT", "/b/stalled", {{"Content-Length", "50000000"}}, ""});
  ASSERT_TRUE(stalled->Send(Serialize(upload, server_.GetObjectPort())));
  ASSERT_TRUE(stalled->Send(std::string(11000000, 'x')));
  const auto idle = CConnection::Open(server_.GetObjectPort());
  std::atomic<bool> stop{false};
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([this, i, &stop] {
      for (int n = 0; !stop; ++n) {
        Call(server_.GetObjectPort(),
             Signed({"PUT", "/b/o" + std::to_string(i) + "-" + std::to_string(n), {}, std::string(5000, 'y')}));
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(server_.Stop(SIGTERM, std::chrono::seconds(60)));
  // The upload has five seconds to go on; a busy machine needs some more.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
  stop = true;
  for (std::thread& client : clients) {
    client.join();
  }
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b/stalled")), "404 NoSuchKey");
  EXPECT_EQ(Outcome(Send("GET", "/b/o0-0")), "200");
}

TEST_F(StartStopTest, ABrokenCertificateIsOneLine) {
  Launch launch;
  launch.with_https = true;
  ASSERT_TRUE(server_.Start(launch));
  server_.Stop();
  const std::string path = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server";
  EXPECT_EQ(ModeOf(server_.Data(path + ".key")), 0600U);
  std::filesystem::rename(server_.Data(path + ".key"), server_.Data("key"));
  ExpectFailure(launch, 1, "A-server.key cannot be read");
  std::ofstream(server_.Data(path + ".key")) << "nonsense";
  ExpectFailure(launch, 1, "A-server.key holds no private key");
  std::filesystem::remove(server_.Data(path + ".crt"));
  std::filesystem::rename(server_.Data("key"), server_.Data(path + ".key"));
  EXPECT_TRUE(server_.Start(launch)) << "a key alone gets a certificate";
}

TEST_F(StartStopTest, CheckFindsAndFreesWhatNothingRefersTo) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/kept", "kept");
  Put("/b/dropped", "dropped");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/dropped")), "200");
  server_.Stop();
  Query(server_.Data("catalogue.db"), "DELETE FROM released_bytes");  // otherwise the bytes would have their time
  Launch check = With({"--check"});
  check.with_ports = false;
  Ended ended = server_.RunToEnd(check);
  EXPECT_EQ(ended.code, 3) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("1 orphans (7 bytes), 0 freed, 0 damaged"));
  check.arguments.push_back("--repair");
  ended = server_.RunToEnd(check);
  EXPECT_EQ(ended.code, 3) << "7 of 11 bytes are more than a tenth";
  EXPECT_THAT(ended.out, HasSubstr("1 orphans (7 bytes), 0 freed, 0 damaged"));
  check.arguments.push_back("--force");
  ended = server_.RunToEnd(check);
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("1 orphans (7 bytes), 1 freed, 0 damaged"));
  check.arguments = {"--check"};
  ended = server_.RunToEnd(check);
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, StartsWith("check: 1 rows, 1 stored files, 0 orphans"));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Get("/b/kept"), "kept");
}

TEST_F(StartStopTest, CheckOfNothingMakesNothing) {
  Launch check = With({"--check"});
  check.with_ports = false;
  ExpectFailure(check, 1, "does not exist");
  EXPECT_FALSE(std::filesystem::exists(server_.Data()));
}

}  // namespace
}  // namespace system_tests
