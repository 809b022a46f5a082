// Further keys of the S3 protocol: made and removed by tansy beside a running tansyd, and used by others at once.
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <string>

#include "support/CommandLineFixture.h"
#include "support/S3Sign.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kDigestOfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class KeysTest : public CommandLineFixture {
 protected:
  KeysTest() { launch_.with_s3 = launch_.with_admin = true; }
  void SetUp() override {
    CommandLineFixture::SetUp();
    Do({"mb", "other"});
    ASSERT_EQ(Ask({}, {"PUT", "/photos/cat", {}, "meow"}), "200");
    ASSERT_EQ(Ask({}, {"PUT", "/other/dog", {}, "woof"}), "200");
  }

  // "200", or "403 AccessDenied".
  std::string Ask(const Keys& keys, const Request& request) const {
    S3Claim claim;
    claim.keys = keys;
    const Reply reply = Call(server_.GetS3Port(), S3Signed(request, server_.GetS3Port(), claim));
    const std::string code = XmlValue(reply.body, "Code");
    return std::to_string(reply.status) + (code.empty() ? "" : " " + code);
  }
  std::string Read(const Keys& keys, const std::string& path = "/photos/cat") const {
    return Ask(keys, {"GET", path, {}, ""});
  }
  std::string Write(const Keys& keys, const std::string& path) const { return Ask(keys, {"PUT", path, {}, "x"}); }

  Ended Key(const std::vector<std::string>& words) const {
    std::vector<std::string> arguments = {"--data", server_.Data(), "key"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    return Run(arguments);
  }
  // Makes a key and gives the pair that was printed.
  Keys Add(const std::vector<std::string>& words) const {
    std::vector<std::string> all = {"add"};
    all.insert(all.end(), words.begin(), words.end());
    const Ended ended = Key(all);
    EXPECT_EQ(ended.code, 0) << ended.err;
    const std::vector<std::string> lines = Lines(ended.out);
    EXPECT_EQ(lines.size(), 2U) << ended.out;
    const auto last_word = [](const std::string& line) { return line.substr(line.rfind(' ') + 1); };
    return lines.size() == 2 ? Keys{last_word(lines[0]), last_word(lines[1])} : Keys();
  }
  std::string List() const { return Key({"ls"}).out; }
};

TEST_F(KeysTest, AKeyCountsAtOnceWithItsRightsAndOverARestart) {
  const Keys all = Add({"all"});
  const Keys guest = Add({"guest", "--bucket", "photos", "--bucket", "more", "--read-only", "--expires", "7d"});
  const auto expect_rights = [&] {
    EXPECT_EQ(Read(all), "200");
    EXPECT_EQ(Write(all, "/other/new"), "200");
    EXPECT_EQ(Read(guest), "200");
    EXPECT_EQ(Read(guest, "/other/dog"), "403 AccessDenied");
    EXPECT_EQ(Read(guest, "/more/none"), "404 NoSuchBucket");
    EXPECT_EQ(Write(guest, "/photos/new"), "403 AccessDenied");
    EXPECT_EQ(Ask(guest, {"DELETE", "/photos/cat", {}, ""}), "403 AccessDenied");
    EXPECT_EQ(Read({guest.access_key, all.secret_key}), "403 SignatureDoesNotMatch");
  };
  expect_rights();
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(launch_));
  expect_rights();

  EXPECT_THAT(List(), AllOf(HasSubstr("all    " + all.access_key), HasSubstr("photos,more"), HasSubstr("reads  "),
                            Not(HasSubstr(all.secret_key)), Not(HasSubstr(guest.secret_key))));
  EXPECT_EQ(Key({"rm", "guest"}).out, "removed guest\n");
  EXPECT_EQ(Read(guest), "403 InvalidAccessKeyId");
  EXPECT_EQ(Read(all), "200");
  EXPECT_THAT(List(), Not(HasSubstr("guest")));
}

TEST_F(KeysTest, NoSecretIsWrittenAnywhereButSealed) {
  const Keys guest = Add({"guest"});
  struct stat seal {};
  ASSERT_EQ(stat(server_.Data("key-seal").c_str(), &seal), 0);
  EXPECT_EQ(seal.st_mode & 0777, 0600U);
  ASSERT_TRUE(server_.Stop());
  for (const char* name : {"catalogue.db", "key-seal", "tansyd.toml"}) {
    std::ifstream file(server_.Data(name), std::ios::binary);
    const std::string content(std::istreambuf_iterator<char>(file), {});
    EXPECT_EQ(content.find(guest.secret_key), std::string::npos) << name;
  }
  EXPECT_EQ(server_.GetLog().find(guest.secret_key), std::string::npos);
}

TEST_F(KeysTest, WithoutTheirSealKeysCountNoMoreAndTheLogSaysSo) {
  const Keys guest = Add({"guest"});
  ASSERT_TRUE(server_.Stop());
  ASSERT_EQ(std::rename(server_.Data("key-seal").c_str(), temp_.Path("seal").c_str()), 0);
  ASSERT_TRUE(server_.Start(launch_));
  EXPECT_EQ(Read(guest), "403 InvalidAccessKeyId");
  EXPECT_EQ(Read({}), "200");
  EXPECT_TRUE(WaitUntil([this] { return server_.GetLog().find("key guest cannot be opened") != std::string::npos; }));
  EXPECT_THAT(List(), HasSubstr("cannot be opened"));
  EXPECT_THAT(Failure(Key({"add", "more"})), AllOf(HasSubstr("1 tansy: "), HasSubstr("key-seal is missing")));
  ASSERT_EQ(std::rename(temp_.Path("seal").c_str(), server_.Data("key-seal").c_str()), 0);
  EXPECT_TRUE(WaitUntil([&] { return Read(guest) == "200"; }));
}

TEST_F(KeysTest, AKeyEndsByItself) {
  const Keys brief = Add({"brief", "--expires", "1s"});
  EXPECT_TRUE(WaitUntil([&] { return Read(brief) == "403 InvalidAccessKeyId"; }));
  EXPECT_THAT(List(), HasSubstr(" (ended)"));
}

TEST_F(KeysTest, KeysMoveWithTheCatalogue) {
  const Keys guest = Add({"guest", "--bucket", "photos"});
  CTansyd command(temp_.GetPath(), "command");
  Launch move;
  move.arguments = {"move", "--data", server_.Data(), "--to-database", "sqlite:" + temp_.Path("new.db")};
  move.with_data = move.with_ports = false;
  const Ended ended = command.RunToEnd(move);
  ASSERT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_EQ(Read(guest), "200");
  const Keys later = Add({"later"});
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(launch_));
  EXPECT_EQ(Read(guest), "200");
  EXPECT_EQ(Read(guest, "/other/dog"), "403 AccessDenied");
  EXPECT_EQ(Read(later, "/other/dog"), "200");
}

TEST_F(KeysTest, OnlyTheServersOwnKeysMayMakeOthers) {
  const Keys guest = Add({"guest"});
  const std::uint16_t port = server_.GetAdminPort();
  const auto list = [&](const S3Claim& claim) {
    return Call(port, S3Signed({"GET", "/admin/keys", {}, ""}, port, claim)).status;
  };
  EXPECT_EQ(list({kDigestOfNothing, 0, {}, "tansy-admin"}), 200);
  EXPECT_EQ(list({kDigestOfNothing, 0, guest, "tansy-admin"}), 403);
  EXPECT_EQ(list({kDigestOfNothing, 3600, {}, "tansy-admin"}), 403);
  EXPECT_EQ(list({"UNSIGNED-PAYLOAD", 0, {}, "tansy-admin"}), 403);
  EXPECT_EQ(Call(port, {"GET", "/admin/keys", {}, ""}).status, 403) << "not even from this machine";
  EXPECT_EQ(Call(port, {"POST", "/admin/keys", {}, R"({"name":"mine"})"}).status, 403);
  EXPECT_EQ(Call(port, {"PUT", "/admin/keys", {}, std::string(std::size_t{11} << 20, 'x')}).status, 403);
  EXPECT_EQ(
      Call(port, S3Signed({"GET", "/admin/other", {}, ""}, port, {kDigestOfNothing, 0, {}, "tansy-admin"})).status,
      404);
  EXPECT_EQ(Call(port, S3Signed({"PUT", "/admin/keys", {}, ""}, port, {kDigestOfNothing, 0, {}, "tansy-admin"})).status,
            405);
}

// A bucket may be called "admin", and whoever records a signed request to it cannot use it at the admin port.
TEST_F(KeysTest, ARequestThatWasSignedForTheS3ServerDoesNothingAtTheAdminPort) {
  const std::string digest = "41d538fc3d8bdd3149c7d586988d121b32b9f2cdaed179362ae2c7efa36f3a0c";
  const Request recorded = S3Signed({"PUT", "/admin/keys", {}, R"({"name":"guest"})"}, server_.GetS3Port(), {digest});
  Do({"mb", "admin"});
  EXPECT_EQ(Call(server_.GetS3Port(), recorded).status, 200);
  const auto at_admin_port = [&](const Request& request) {
    const auto connection = CConnection::Open(server_.GetAdminPort());
    return connection != nullptr && connection->Send(Serialize(request, server_.GetS3Port()))
               ? connection->Receive().status
               : 0;
  };
  EXPECT_EQ(at_admin_port(recorded), 403);
  EXPECT_EQ(at_admin_port(S3Signed({"GET", "/admin/keys", {}, ""}, server_.GetS3Port(), {kDigestOfNothing})), 403);
  EXPECT_THAT(List(), Not(HasSubstr("guest")));
}

TEST_F(KeysTest, WhatIsWrongIsSaidInWords) {
  Add({"guest"});
  EXPECT_THAT(Failure(Key({"add", "guest"})), AllOf(HasSubstr("1 tansy: "), HasSubstr("a key of this name already")));
  EXPECT_THAT(Failure(Key({"add", "a b"})), AllOf(HasSubstr("2 tansy: "), HasSubstr("letters, digits")));
  EXPECT_THAT(Failure(Key({"rm", "none"})), AllOf(HasSubstr("3 tansy: "), HasSubstr("key none: there is no key")));
  EXPECT_THAT(Failure(Key({"add", "x", "--expires", "soon"})), HasSubstr("2 tansy: "));
  EXPECT_THAT(Failure(Key({"add", "x", "--expires", "2020-01-01"})), HasSubstr("still to come"));
}

// Anything else would make a key that may do more than was meant.
TEST_F(KeysTest, ARequestThatIsNotUnderstoodMakesNoKey) {
  const std::uint16_t port = server_.GetAdminPort();
  for (const char* rights :
       {R"("buckets":"photos")", R"("read_only":1)", R"("expires":"2037-01-31")", R"("bucket":["photos"])"}) {
    const std::string body = std::string(R"({"name":"guest",)") + rights + "}";
    S3Claim claim;
    claim.payload = Sha256(body);
    claim.service = "tansy-admin";
    const Reply reply = Call(port, S3Signed({"POST", "/admin/keys", {}, body}, port, claim));
    EXPECT_EQ(reply.status, 400) << rights << ": " << reply.body;
    EXPECT_THAT(reply.body, HasSubstr(R"({"error":")")) << rights;
  }
  EXPECT_THAT(List(), Not(HasSubstr("guest")));
}

}  // namespace
}  // namespace system_tests
