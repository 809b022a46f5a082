// How tansy finds its server and keys, and what it tells about itself.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "support/CommandLineFixture.h"

namespace system_tests {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

const char* const kCertificate = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt";

// ---- beside a tansyd of the same machine

// A server whose ports stand in its settings file and whose keys it has made itself.
class CommandLineZeroTest : public CommandLineFixture {
 protected:
  void SetUp() override {
    temp_.Write("work/tansy-data/tansyd.toml", "object-port = " + std::to_string(own_.GetObjectPort()) +
                                                   "\npicture-port = " + std::to_string(own_.GetPicturePort()) + "\n");
    launch_.with_keys = false;
    ASSERT_TRUE(own_.Start(launch_));
  }

  // These commands find nothing in the environment.
  Invocation Plain(const std::vector<std::string>& arguments) const {
    Invocation invocation = Tansy(arguments);
    invocation.environment = {{"HOME", temp_.Path("home")}};
    return invocation;
  }

  CTansyd own_{temp_.Path("work"), "tansy-data"};
};

TEST_F(CommandLineZeroTest, NeedsNothingBesideATansyd) {
  Write("a.txt", "content");
  EXPECT_EQ(Failure(RunProgram(Plain({"put", "a.txt"}))),
            "2 tansy: there is no bucket yet\n  make one: tansy mb BUCKET\n");
  EXPECT_EQ(RunProgram(Plain({"mb", "photos"})).out, "made photos\n");
  const Ended put = RunProgram(Plain({"put", "a.txt"}));
  EXPECT_EQ(Failure(put), "0 ") << "the only bucket is taken";
  EXPECT_EQ(RunProgram(Plain({"cat", Line(put.out)})).out, "content");
  RunProgram(Plain({"mb", "films"}));
  EXPECT_EQ(Failure(RunProgram(Plain({"put", "a.txt"}))),
            "2 tansy: which bucket? There are 2\n  name one with --pool or TANSY_POOL: films, photos\n");
  const Ended doctor = RunProgram(Plain({"doctor"}));
  EXPECT_EQ(doctor.code, 0) << doctor.out;
  EXPECT_THAT(doctor.out, HasSubstr("data folder tansy-data"));
  EXPECT_THAT(doctor.out, testing::ContainsRegex("ok +pictures "));
  EXPECT_THAT(doctor.out, testing::ContainsRegex("ok +space +[0-9.]+ [KMGTPE]iB free in the data folder"));
}

TEST_F(CommandLineZeroTest, TakesAnotherDataFolderByNameOrEnvironment) {
  Invocation invocation = Plain({"--data", WorkPath("tansy-data"), "mb", "photos"});
  invocation.folder = temp_.Path("home");
  EXPECT_EQ(RunProgram(invocation).out, "made photos\n");
  invocation.arguments = {"buckets"};
  invocation.environment["TANSY_DATA"] = WorkPath("tansy-data");
  EXPECT_EQ(RunProgram(invocation).out, "photos  local  -\n");
  invocation.environment.erase("TANSY_DATA");
  EXPECT_EQ(
      Failure(RunProgram(invocation)),
      "2 tansy: no server is known\n  give --server http://HOST:PORT, or --data DIR of a tansyd on this machine\n");
  invocation.arguments = {"--data", "nowhere", "buckets"};
  EXPECT_EQ(
      Failure(RunProgram(invocation)),
      "1 tansy: nowhere: there is no tansyd.toml in it\n  start tansyd with this data folder once, or name another "
      "one with --data\n");
}

TEST_F(CommandLineZeroTest, PutsTheDataFolderThatIsNamedBeforeTheEnvironment) {
  Invocation invocation = Plain({"--data", WorkPath("tansy-data"), "mb", "photos"});
  invocation.environment["TANSY_SERVER"] = "http://127.0.0.1:1";
  invocation.environment["TANSY_ACCESS_KEY"] = "another-server's";
  invocation.environment["TANSY_SECRET_KEY"] = "keys";
  EXPECT_EQ(RunProgram(invocation).out, "made photos\n");
}

// Ports that were given on the server's own command line are found too, and a crash leaves nothing wrong behind.
TEST_F(CommandLineZeroTest, FindsTheServerWhereverItGotItsPortsFrom) {
  CTansyd other(temp_.Path("work"), "other-data");
  launch_.with_keys = false;
  ASSERT_TRUE(other.Start(launch_));
  const Invocation buckets = Plain({"--data", WorkPath("other-data"), "buckets"});
  EXPECT_EQ(RunProgram(buckets).code, 0);
  EXPECT_EQ(RunProgram(Plain({"--data", WorkPath("other-data"), "pic", "version"})).code, 0);
  EXPECT_TRUE(std::filesystem::exists(WorkPath("other-data/listening.toml")));
  other.Kill();
  EXPECT_EQ(RunProgram(buckets).code, 6);
  CTansyd again(temp_.Path("work"), "other-data");
  ASSERT_TRUE(again.Start(launch_));
  ASSERT_NE(again.GetObjectPort(), other.GetObjectPort());
  EXPECT_EQ(RunProgram(buckets).code, 0);
  ASSERT_TRUE(again.Stop());
  EXPECT_FALSE(std::filesystem::exists(WorkPath("other-data/listening.toml")));
}

TEST_F(CommandLineZeroTest, SaysWhyADataFoldersServerDoesNotAnswer) {
  ASSERT_TRUE(own_.Stop());
  const Ended ended = RunProgram(Plain({"doctor"}));
  EXPECT_EQ(ended.code, 6);
  EXPECT_THAT(ended.out, HasSubstr("-> is tansyd running with this folder?"));
}

TEST_F(CommandLineZeroTest, WarnsOfKeysThatOthersCanRead) {
  EXPECT_THAT(RunProgram(Plain({"doctor"})).out, testing::Not(HasSubstr("can be read by others")));
  std::filesystem::permissions(WorkPath("tansy-data/tansyd.toml"), std::filesystem::perms::others_read,
                               std::filesystem::perm_options::add);
  const Ended ended = RunProgram(Plain({"doctor"}));
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, HasSubstr("tansy-data/tansyd.toml holds the secret key and can be read by others"));
}

// ---- named servers

class CommandLineSettingsTest : public CommandLineFixture {
 protected:
  void WriteConfig(const std::string& content) const { temp_.Write("home/.config/tansy/config.toml", content); }

  std::string ServerTable(const std::string& name, const std::string& url, const std::string& more = "") const {
    const Keys keys;
    return "[servers." + name + "]\nurl = \"" + url + "\"\naccess_key = \"" + keys.access_key + "\"\nsecret_key = \"" +
           keys.secret_key + "\"\n" + more;
  }

  Invocation Plain(const std::vector<std::string>& arguments) const {
    Invocation invocation = Tansy(arguments);
    invocation.environment = {{"HOME", temp_.Path("home")}};
    return invocation;
  }
};

TEST_F(CommandLineSettingsTest, KnowsServersByName) {
  WriteConfig("default = \"home\"\n" + ServerTable("home", Url(), "pool = \"photos\"\n") +
              ServerTable("gone", "http://127.0.0.1:1"));
  Write("a.txt", "content");
  Do({"mb", "films"});
  const Ended put = RunProgram(Plain({"put", "a.txt", "--name", "key"}));
  EXPECT_EQ(Failure(put), "0 ") << "the default server, and its bucket of two";
  EXPECT_EQ(put.out, "/photos/key\n");
  EXPECT_EQ(RunProgram(Plain({"--server", "home", "cat", "key"})).out, "content");
  EXPECT_EQ(RunProgram(Plain({"--server", "gone", "buckets"})).code, 6);
  EXPECT_EQ(RunProgram(Plain({"--server", Url(), "buckets"})).code, 0) << "by its address too";
  EXPECT_EQ(RunProgram(Plain({"--pool", "films", "put", "a.txt", "--name", "key"})).out, "/films/key\n");
  EXPECT_EQ(Failure(RunProgram(Plain({"--server", "nonsense", "buckets"}))),
            "2 tansy: there is no server named \"nonsense\"\n  give http://HOST:PORT, or add [servers.nonsense] to " +
                temp_.Path("home/.config/tansy/config.toml") + "\n");
  EXPECT_THAT(RunProgram(Plain({"doctor"})).out, HasSubstr("server home of "));
}

TEST_F(CommandLineSettingsTest, SaysWhatIsWrongWithTheConfiguration) {
  WriteConfig("default = \"home\"\n[servers.home\nsecret_key = \"do not show\"\n");
  const std::string failure = Failure(RunProgram(Plain({"buckets"})));
  EXPECT_THAT(failure, StartsWith("1 tansy: " + temp_.Path("home/.config/tansy/config.toml") + ": line "));
  EXPECT_THAT(failure, HasSubstr("is not valid TOML\n  mend that line\n"));
  EXPECT_THAT(failure, testing::Not(HasSubstr("do not show")));
  WriteConfig("default = \"work\"\n" + ServerTable("home", Url()));
  EXPECT_THAT(Failure(RunProgram(Plain({"buckets"}))), HasSubstr("default names the server work, which is not there"));
  for (const char* address : {"http://", "http://127.0.0.1:0", "http://127.0.0.1:99999", "ftp://127.0.0.1",
                              "http://127.0.0.1:9700/path", "http://user@127.0.0.1"}) {
    EXPECT_THAT(Failure(Run({"--server", address, "buckets"})), StartsWith("2 tansy: --server: \"")) << address;
  }
}

// ---- HTTPS

class CommandLineHttpsTest : public CommandLineFixture {
 protected:
  CommandLineHttpsTest() { launch_.with_https = true; }
  std::string SecureUrl(const std::string& host) const {
    return "https://" + host + ":" + std::to_string(server_.GetObjectHttpsPort());
  }
};

TEST_F(CommandLineHttpsTest, TrustsWhomItIsToldToTrust) {
  const std::string content = RandomBytes(11 * 1048576, 1);
  Write("file", content);
  const std::string url = SecureUrl("localhost");
  EXPECT_THAT(
      Failure(Run({"--server", url, "buckets"})),
      MatchesRegex("6 tansy: list of buckets: https://localhost:[0-9]+: certificate not trusted: .*\n  trust its "
                   "certificate with --ca FILE, or any with --insecure\n"));
  for (const std::vector<std::string>& trust :
       {std::vector<std::string>{"--insecure"}, std::vector<std::string>{"--ca", server_.Data(kCertificate)}}) {
    std::vector<std::string> arguments = {"--server", url};
    arguments.insert(arguments.end(), trust.begin(), trust.end());
    const auto with = [&](std::vector<std::string> words) {
      words.insert(words.begin(), arguments.begin(), arguments.end());
      return words;
    };
    const std::string object = Line(Do(with({"put", "file"})));
    EXPECT_TRUE(Do(with({"cat", object})) == content);
    EXPECT_EQ(Do(with({"get", object, "copy"})), "copy\n");
    EXPECT_TRUE(Read("copy") == content);
    EXPECT_THAT(Do(with({"--quiet", "sign", object})), StartsWith(url + object + "?"));
    EXPECT_EQ(Do(with({"rm", "--bytes", object})), "removed " + object + "\n");
  }
  Invocation environment = Tansy({"--server", url, "buckets"});
  environment.environment["TANSY_CA"] = server_.Data(kCertificate);
  EXPECT_EQ(Failure(RunProgram(environment)), "0 ");
  EXPECT_EQ(Run({"--server", url, "--ca", "nowhere.pem", "buckets"}).code, 6);
  EXPECT_EQ(Run({"--server", SecureUrl("127.0.0.1"), "--ca", server_.Data(kCertificate), "buckets"}).code, 0);
  const Ended doctor = Run({"--server", url, "--insecure", "doctor"});
  EXPECT_EQ(doctor.code, 0);
  EXPECT_THAT(doctor.out, HasSubstr("any certificate is trusted"));
}

TEST_F(CommandLineHttpsTest, SaysThatHttpAndHttpsAreMixedUp) {
  const std::string http_port = std::to_string(server_.GetObjectPort());
  EXPECT_THAT(Failure(Run({"--server", "https://127.0.0.1:" + http_port, "--insecure", "buckets"})),
              MatchesRegex("6 tansy: .*: TLS failed: .*\n  does the server speak HTTPS, .*\n"));
  const std::string https_port = std::to_string(server_.GetObjectHttpsPort());
  EXPECT_THAT(Failure(Run({"--server", "http://127.0.0.1:" + https_port, "buckets"})),
              testing::EndsWith("\n  is this an object server, and HTTP or HTTPS as it should be?\n"));
}

// ---- help, and what is made from it

class CommandLineHelpTest : public testing::Test {
 protected:
  static std::string Do(const std::vector<std::string>& arguments) {
    Invocation invocation;
    invocation.arguments = arguments;
    invocation.folder = "/";
    const Ended ended = RunProgram(invocation);
    EXPECT_EQ(ended.code, 0) << testing::PrintToString(arguments) << ended.err;
    EXPECT_EQ(ended.err, "");
    return ended.out;
  }

  // "mb", "pic put": as the list in the help text has them.
  static std::vector<std::string> Commands() {
    std::vector<std::string> commands;
    bool listed = false;
    for (const std::string& line : Lines(Do({"--help"}))) {
      if (listed && line.empty()) {
        break;
      }
      if (listed) {
        commands.push_back(line.substr(2, line.find("  ", 2) - 2));
      }
      listed = listed || line == "Commands:";
    }
    return commands;
  }

  static std::vector<std::string> Words(const std::string& text) {
    const std::size_t blank = text.find(' ');
    return blank == std::string::npos ? std::vector<std::string>{text}
                                      : std::vector<std::string>{text.substr(0, blank), text.substr(blank + 1)};
  }

  static std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  static std::string WithoutBackslashes(std::string text) {
    std::erase(text, '\\');
    return text;
  }
};

TEST_F(CommandLineHelpTest, EachCommandExplainsItselfEverywhere) {
  const std::vector<std::string> commands = Commands();
  for (const char* name : {"mb", "buckets", "bucket", "put", "get", "cat", "stat", "rm", "sign", "bestnode", "parts",
                           "version", "doctor", "completion"}) {
    EXPECT_THAT(commands, testing::Contains(name));
  }
  const std::string manual = WithoutBackslashes(Do({"completion", "man"}));
  const std::string page = ReadFile(TANSY_DOCS "/command-line.md");
  ASSERT_NE(page, "");
  for (const std::string& command : commands) {
    std::vector<std::string> words = Words(command);
    words.emplace_back("--help");
    const std::string help = Do(words);
    const std::string usage = Lines(help).at(0);
    EXPECT_THAT(usage, StartsWith("Usage: tansy " + command));
    EXPECT_THAT(help, HasSubstr("\nExamples:\n  ")) << command;
    EXPECT_THAT(manual, HasSubstr(".SS " + usage.substr(7) + "\n"));
    EXPECT_THAT(page, HasSubstr("\n- `" + usage.substr(13) + "`: ")) << "the page has a line for each";
    for (const std::string& line : Lines(help)) {
      EXPECT_LE(line.size(), 100u) << line;
    }
  }
}

TEST_F(CommandLineHelpTest, OptionsVariablesAndExitCodesAreTheSameEverywhere) {
  const std::string help = Do({"--help"});
  const std::string manual = WithoutBackslashes(Do({"completion", "man"}));
  const std::string page = ReadFile(TANSY_DOCS "/command-line.md");
  for (const char* word :
       {"--server", "--pool", "--data", "--ca", "--insecure", "--json", "--quiet", "--verbose", "TANSY_SERVER",
        "TANSY_POOL", "TANSY_DATA", "TANSY_CA", "TANSY_ACCESS_KEY", "TANSY_SECRET_KEY"}) {
    EXPECT_THAT(help, HasSubstr(word));
    EXPECT_THAT(manual, HasSubstr(word));
    EXPECT_THAT(page, HasSubstr(word));
  }
  bool listed = false;
  int codes = 0;
  for (const std::string& line : Lines(help)) {
    if (listed && line.empty()) {
      break;
    }
    if (listed) {
      const std::size_t blank = line.find(' ', 2);
      const std::string code = line.substr(2, blank - 2);
      const std::string meaning = line.substr(line.find_first_not_of(' ', blank));
      EXPECT_THAT(page, HasSubstr("| " + code + " | " + meaning + " |"));
      EXPECT_THAT(manual, HasSubstr(".B " + code + "\n" + meaning + "\n"));
      ++codes;
    }
    listed = listed || line == "Exit codes:";
  }
  EXPECT_EQ(codes, 8);
}

// What a shell offers for the words of a line; the last is the one to complete.
class CommandLineCompletionTest : public CommandLineHelpTest {
 protected:
  std::set<std::string> Complete(const std::vector<std::string>& words) const {
    Invocation bash;
    bash.program = "bash";
    bash.folder = folder_.GetPath();
    std::string script = "source <(" + TansyPath() + " completion bash)\nCOMP_WORDS=(tansy";
    for (const std::string& word : words) {
      script += " '" + word + "'";
    }
    script += ")\nCOMP_CWORD=" + std::to_string(words.size()) + "\n_tansy\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n";
    bash.arguments = {"-c", script};
    const Ended ended = RunProgram(bash);
    EXPECT_EQ(ended.err, "");
    const std::vector<std::string> lines = Lines(ended.out);
    return {lines.begin(), lines.end()};
  }

  Tansy::Tests::CTempFolder folder_;
};

TEST_F(CommandLineCompletionTest, OffersWhatCanFollow) {
  EXPECT_THAT(Complete({"bu"}), ElementsAre("bucket", "buckets"));
  EXPECT_THAT(Complete({"--server", "x", "pu"}), ElementsAre("put"));
  EXPECT_THAT(Complete({"--j"}), ElementsAre("--json"));
  EXPECT_THAT(Complete({"put", "--n"}), ElementsAre("--name"));
  folder_.Write("cat.jpg", "");
  folder_.Write("cat and dog.jpg", "");
  EXPECT_THAT(Complete({"put", "ca"}), ElementsAre("cat and dog.jpg", "cat.jpg"));
  EXPECT_THAT(Complete({"--ca", "ca"}), ElementsAre("cat and dog.jpg", "cat.jpg"));
  EXPECT_THAT(Complete({"completion", ""}), testing::IsSupersetOf({"bash", "zsh", "fish", "man"}));
  EXPECT_THAT(Complete({"pic", "p"}), testing::Contains("put"));
  EXPECT_THAT(Complete({""}), testing::IsSupersetOf({"mb", "put", "get", "doctor", "pic", "--help"}));
}

TEST_F(CommandLineCompletionTest, PrintsScriptsThatTheShellsRead) {
  Invocation check;
  check.folder = "/";
  for (const char* shell : {"bash", "zsh", "fish"}) {
    const std::string script = Do({"completion", shell});
    EXPECT_THAT(script, HasSubstr("Completion of tansy for " + std::string(shell)));
    for (const char* word : {"--server", "buckets", "completion"}) {
      EXPECT_THAT(script, HasSubstr(std::string(shell) == "fish" && *word == '-' ? word + 2 : word)) << shell;
    }
    check.program = "sh";
    check.arguments = {"-c", "command -v " + std::string(shell)};
    if (RunProgram(check).code != 0) {
      continue;  // a shell that is not here cannot read it; the words are looked at above
    }
    check.program = shell;
    check.arguments = {"-n", "/dev/stdin"};
    const Ended read = RunProgram(check, script);
    EXPECT_EQ(read.code, 0) << read.err;
  }
}

TEST_F(CommandLineCompletionTest, PrintsAManualThatFormatsWithoutComplaint) {
  Invocation format;
  format.folder = "/";
  format.program = "groff";
  format.arguments = {"-man", "-Tutf8", "-ww", "-P-c", "/dev/stdin"};
  Ended page = RunProgram(format, Do({"completion", "man"}));
  // Bold letters are printed twice, with a backspace in between.
  for (std::size_t at = 0; (at = page.out.find('\b', at)) != std::string::npos;) {
    page.out.erase(--at, 2);
  }
  EXPECT_EQ(std::to_string(page.code) + " " + page.err, "0 ");
  for (const char* section : {"NAME", "SYNOPSIS", "OPTIONS", "COMMANDS", "SETTINGS", "ENVIRONMENT", "EXIT STATUS"}) {
    EXPECT_THAT(page.out, HasSubstr(section));
  }
}

}  // namespace
}  // namespace system_tests
