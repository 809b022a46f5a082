// "tansy pic ..." as people run it, against a real server.
#include <algorithm>
#include <cstdint>
#include <sstream>

#include "support/PictureSystemTest.h"
#include "support/Program.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

const char* const kAddress = "/pic[?]id=pc01[0-9a-f]{2}-[0-9a-f]{2}-[0-9a-f]{32}[.]d";

class PictureCommandTest : public PictureSystemTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_https = true;
    ASSERT_TRUE(server_.Start(launch));
    const Keys keys;
    UseServer("http", server_.GetObjectPort(), server_.GetPicturePort(), keys.secret_key);
  }

  // Sets the server that commands speak to from now on.
  void UseServer(const std::string& scheme, std::uint16_t object_port, std::uint16_t picture_port,
                 const std::string& secret_key, const std::string& more = "") {
    const Keys keys;
    const std::string url = scheme + "://127.0.0.1:";
    temp_.Write("config/tansy/config.toml", "default = \"here\"\n[servers.here]\nurl = \"" + url +
                                                std::to_string(object_port) + "\"\npicture_url = \"" + url +
                                                std::to_string(picture_port) + "\"\naccess_key = \"" + keys.access_key +
                                                "\"\nsecret_key = \"" + secret_key + "\"\n" + more);
  }

  // Runs "tansy pic" with these words, in the test's folder.
  Ended Pic(const std::vector<std::string>& words) const {
    Invocation invocation;
    invocation.arguments = {"pic"};
    invocation.arguments.insert(invocation.arguments.end(), words.begin(), words.end());
    invocation.environment = {{"XDG_CONFIG_HOME", temp_.Path("config")}};
    invocation.folder = temp_.GetPath();
    return RunProgram(invocation);
  }
  // Runs a command that is expected to succeed and to print one line, and gives that line.
  std::string Line(const std::vector<std::string>& words) const {
    const Ended ended = Pic(words);
    EXPECT_EQ(ended.code, 0) << words.at(0) << "\n" << ended.err << server_.GetLog();
    EXPECT_EQ(ended.err, "") << words.at(0);
    EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), 1) << ended.out;
    return ended.out.substr(0, ended.out.find('\n'));
  }
  // A text member of a line of --json, which has a blank behind each colon.
  static std::string Member(std::string line, const std::string& name) {
    for (std::size_t at = line.find("\": "); at != std::string::npos; at = line.find("\": ", at)) {
      line.erase(at + 2, 1);
    }
    return JsonText(line, name);
  }
  static std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
    }
    return lines;
  }
};

TEST_F(PictureCommandTest, PutPrintsTheAddressAndGetBringsThePictureBack) {
  for (const char* name : {"sample.jpg", "sample.png", "sample.webp"}) {
    temp_.Write(name, SamplePicture(name));
    const std::string address = Line({"put", name});
    EXPECT_THAT(address, MatchesRegex(kAddress));
    EXPECT_EQ(Line({"get", address, "copy"}), "copy");
    EXPECT_EQ(temp_.Read("copy") == SamplePicture(name), true) << name;
    EXPECT_EQ(SendPicture("GET", address).body == SamplePicture(name), true) << name;
  }
}

TEST_F(PictureCommandTest, SeveralPicturesAreAnsweredInTheirOrder) {
  std::vector<std::string> words = {"put"};
  for (int i = 0; i < 6; ++i) {
    const std::string name = std::to_string(i) + ".jpg";
    temp_.Write(name, RandomBytes(static_cast<std::size_t>(600000 - i * 100000), 20 + static_cast<std::uint64_t>(i)));
    words.push_back(name);
  }
  const Ended put = Pic(words);
  EXPECT_EQ(put.code, 0) << put.err;
  const std::vector<std::string> addresses = Lines(put.out);
  ASSERT_EQ(addresses.size(), 6U) << put.out;
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    EXPECT_EQ(SendPicture("GET", addresses[i]).body == temp_.Read(std::to_string(i) + ".jpg"), true) << i;
  }
}

TEST_F(PictureCommandTest, TheOthersGoUpWhenOneCannot) {
  temp_.Write("good.jpg", "good");
  temp_.Write("empty.jpg", "");
  temp_.Write("large.jpg", std::string(33554433, 'x'));
  const Ended ended = Pic({"put", "none.jpg", "good.jpg", "empty.jpg", "large.jpg"});
  EXPECT_EQ(ended.code, 3) << "the first failure's code";
  ASSERT_EQ(Lines(ended.out).size(), 1U) << ended.out;
  EXPECT_EQ(SendPicture("GET", Lines(ended.out)[0]).body, "good");
  EXPECT_THAT(ended.err, HasSubstr("none.jpg"));
  EXPECT_THAT(ended.err, HasSubstr("empty.jpg: is empty"));
  EXPECT_THAT(ended.err, HasSubstr("large.jpg: is too large"));
  EXPECT_EQ(Pic({"put", "empty.jpg"}).code, 2);
  EXPECT_EQ(Pic({"put", "large.jpg"}).code, 2);
  EXPECT_EQ(Pic({"put", "."}).code, 2);
  EXPECT_EQ(Pic({"put"}).code, 2);
}

TEST_F(PictureCommandTest, TheLargestPictureGoesUp) {
  const std::string bytes = "first" + std::string(33554422, 'x') + "last.";
  ASSERT_EQ(bytes.size(), 33554432U);
  temp_.Write("largest.jpg", bytes);
  const std::string address = Line({"put", "largest.jpg"});
  EXPECT_EQ(Pic({"get", address, "-"}).out == bytes, true);
}

TEST_F(PictureCommandTest, GetNamesItsFileItself) {
  temp_.Write("a.jpg", "jpeg");
  const std::string address = Line({"put", "a.jpg"});
  EXPECT_EQ(Line({"get", address}), "picture.jpg");
  EXPECT_EQ(temp_.Read("picture.jpg"), "jpeg");
  EXPECT_EQ(Pic({"get", address, "-"}).out, "jpeg");
  EXPECT_EQ(Pic({"--quiet", "get", address, "b.jpg"}).out, "");
  EXPECT_EQ(temp_.Read("b.jpg"), "jpeg");
}

TEST_F(PictureCommandTest, AWholeAddressMustBeOneOfTheServerThatIsSet) {
  temp_.Write("a.jpg", "jpeg");
  const std::string whole = "http://127.0.0.1:" + std::to_string(server_.GetPicturePort()) + Line({"put", "a.jpg"});
  EXPECT_EQ(Line({"get", whole, "b.jpg"}), "b.jpg");
  EXPECT_EQ(temp_.Read("b.jpg"), "jpeg");
  const std::string log = server_.GetLog();
  UseServer("http", 1, 1, Keys().secret_key);
  for (const char* command : {"get", "link"}) {
    const Ended ended = Pic({command, whole});
    EXPECT_EQ(ended.code, 2) << command;
    EXPECT_THAT(ended.err, HasSubstr("is not the server that is set, http://127.0.0.1:1\n"));
  }
  EXPECT_EQ(server_.GetLog(), log) << "it has got no request, and so no signature";
}

TEST_F(PictureCommandTest, AFailedGetLeavesNothingAndTouchesNothing) {
  temp_.Write("old.jpg", "old");
  const std::string none = "/pic?id=pc0100-00-00000000000000000000000000000000.d";
  const Ended ended = Pic({"get", none, "old.jpg"});
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("/pic?id=pc01"));
  EXPECT_THAT(ended.err, HasSubstr("answered 500"));
  EXPECT_EQ(temp_.Read("old.jpg"), "old");
  EXPECT_EQ(Pic({"get", none, "new.jpg"}).code, 1);
  EXPECT_FALSE(temp_.Exists("new.jpg"));
  EXPECT_EQ(Pic({"get", "nonsense"}).code, 2);
  EXPECT_EQ(Pic({"get"}).code, 2);
  temp_.Write("a.jpg", "jpeg");
  EXPECT_NE(Pic({"get", Line({"put", "a.jpg"}), "no/such/folder"}).code, 0);
}

TEST_F(PictureCommandTest, ALinkOpensWithoutAHeader) {
  temp_.Write("a.jpg", "jpeg");
  const std::string address = Line({"put", "a.jpg"});
  const std::string start = "http://127.0.0.1:" + std::to_string(server_.GetPicturePort());
  const std::string link = Line({"link", address});
  ASSERT_THAT(link, StartsWith(start + address + "&AccessKeyId="));
  EXPECT_EQ(Ask({"GET", link.substr(start.size()), {}, ""}).body, "jpeg");
  // A link can be turned into a new link.
  const std::string again = Line({"link", link});
  EXPECT_EQ(again.find("&Signature="), again.rfind("&Signature="));
  EXPECT_EQ(Ask({"GET", again.substr(start.size()), {}, ""}).body, "jpeg");
  EXPECT_EQ(Line({"get", link, "copy"}), "copy");
  EXPECT_EQ(temp_.Read("copy"), "jpeg");
  EXPECT_EQ(Pic({"link", "/pic"}).code, 2);
  EXPECT_EQ(Pic({"link", "nonsense"}).code, 2);
  EXPECT_EQ(Pic({"link"}).code, 2);
}

TEST_F(PictureCommandTest, PoolsAndVersion) {
  EXPECT_THAT(Line({"pools"}), MatchesRegex("1 +kiv_local_pool"));
  EXPECT_EQ(Line({"version"}), "2.0.0");
  EXPECT_EQ(Pic({"pools", "x"}).code, 2);
}

TEST_F(PictureCommandTest, JsonIsOneDocumentALine) {
  temp_.Write("a.jpg", "jpeg");
  temp_.Write("b.jpg", "more");
  const Ended put = Pic({"--json", "put", "a.jpg", "none.jpg", "b.jpg"});
  EXPECT_EQ(put.code, 3);
  const std::vector<std::string> lines = Lines(put.out);
  ASSERT_EQ(lines.size(), 2U) << put.out;
  for (const std::string& line : lines) {
    EXPECT_THAT(line, MatchesRegex(R"(\{"file": "[ab]\.jpg", "url": ")" + std::string(kAddress) +
                                   R"(", "size": 4, "seconds": [0-9]+\.[0-9]+\})"));
  }
  const std::string address = Member(lines[0], "url");
  EXPECT_EQ(Line({"--json", "get", address, "copy"}),
            "{\"url\": \"" + address + "\", \"file\": \"copy\", \"size\": 4}");
  const std::string link = Line({"--json", "link", address});
  EXPECT_EQ(Member(link, "url"), address);
  EXPECT_THAT(Member(link, "link"), HasSubstr(address + "&AccessKeyId="));
  EXPECT_EQ(Line({"--json", "pools"}), R"({"id": "1", "name": "kiv_local_pool", "size": 1000, "free": 1000})");
  EXPECT_EQ(Line({"--json", "version"}), R"({"version": "2.0.0"})");
}

TEST_F(PictureCommandTest, WrongKeysAreDenied) {
  temp_.Write("a.jpg", "jpeg");
  const std::string address = Line({"put", "a.jpg"});
  UseServer("http", server_.GetObjectPort(), server_.GetPicturePort(), "wrong");
  const std::vector<std::vector<std::string>> commands = {
      {"put", "a.jpg"}, {"get", address, "copy"}, {"pools"}, {"version"}};
  for (const std::vector<std::string>& words : commands) {
    const Ended ended = Pic(words);
    EXPECT_EQ(ended.code, 4) << words[0];
    EXPECT_EQ(ended.out, "") << words[0];
    EXPECT_THAT(ended.err, HasSubstr("denies access")) << words[0];
  }
}

TEST_F(PictureCommandTest, AServerThatIsAwayIsUnreachable) {
  temp_.Write("a.jpg", "jpeg");
  const std::string address = Line({"put", "a.jpg"});
  server_.Stop();
  const std::vector<std::vector<std::string>> commands = {
      {"put", "a.jpg"}, {"get", address, "copy"}, {"pools"}, {"version"}};
  for (const std::vector<std::string>& words : commands) {
    EXPECT_EQ(Pic(words).code, 6) << words[0];
  }
  EXPECT_THAT(Line({"link", address}), HasSubstr(address)) << "nothing is sent for it";
}

TEST_F(PictureCommandTest, EverythingGoesOverHttpsToo) {
  UseServer("https", server_.GetObjectHttpsPort(), server_.GetPictureHttpsPort(), Keys().secret_key,
            "ca = \"" + server_.Data("META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt") + "\"\n");
  temp_.Write("a.jpg", SamplePicture("sample.jpg"));
  const std::string address = Line({"put", "a.jpg"});
  EXPECT_EQ(Line({"get", address, "copy"}), "copy");
  EXPECT_EQ(temp_.Read("copy") == SamplePicture("sample.jpg"), true);
  EXPECT_EQ(Line({"version"}), "2.0.0");
  EXPECT_THAT(Line({"link", address}), StartsWith("https://127.0.0.1:"));
  // Without the certificate tansy trusts no server.
  UseServer("https", server_.GetObjectHttpsPort(), server_.GetPictureHttpsPort(), Keys().secret_key);
  EXPECT_NE(Pic({"put", "a.jpg"}).code, 0);
  EXPECT_NE(Pic({"version"}).code, 0);
}

}  // namespace
}  // namespace system_tests
