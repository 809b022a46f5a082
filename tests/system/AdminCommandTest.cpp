// `tansy admin`: operators look at a running server and have it compare and mend, with the server's own keys.
#include <filesystem>
#include <fstream>
#include <string>

#include "support/CommandLineFixture.h"
#include "support/S3Sign.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class AdminCommandTest : public CommandLineFixture {
 protected:
  AdminCommandTest() { launch_.with_admin = true; }

  Ended Admin(const std::vector<std::string>& words) const {
    std::vector<std::string> arguments = {"--data", server_.Data(), "admin"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    return Run(arguments);
  }
  Request Signed(const Request& request) const {
    S3Claim claim;
    claim.payload = Sha256(request.body);
    claim.service = "tansy-admin";
    return S3Signed(request, server_.GetAdminPort(), claim);
  }
  int StatusOf(const Request& request) const { return Call(server_.GetAdminPort(), Signed(request)).status; }
  // Bytes that no row names.
  std::string AddOrphan() const {
    const std::string file = server_.Data("objects/fs01/ab/cd/0123456789abcdef0123456789abcdef.d");
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file) << "x";
    return file;
  }
};

TEST_F(AdminCommandTest, InfoSaysWhatTheServerHolds) {
  Put("/photos/cat", "meow");
  Put("/photos/dog", std::string(2000, 'w'));
  const Ended ended = Admin({"info"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, AllOf(HasSubstr("well"), HasSubstr("2, 2.0 KiB"), HasSubstr("buckets"), HasSubstr("0.1.0")));
  const Ended json = Run({"--json", "--data", server_.Data(), "admin", "info"});
  EXPECT_THAT(json.out, AllOf(HasSubstr("\"objects\":2"), HasSubstr("\"ready\":true")));
}

TEST_F(AdminCommandTest, TopShowsWhatIsDoneInBetween) {
  CProgram top(Tansy({"--data", server_.Data(), "admin", "top", "--interval", "1s", "--count", "3"}));
  while (top.IsRunning()) {
    Put("/photos/cat", "meow");
  }
  const Ended ended = top.WaitForEnd();
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, AllOf(HasSubstr("operation"), HasSubstr("PutObject"), Not(HasSubstr("\x1b"))));
  EXPECT_EQ(Admin({"top", "--count", "0"}).code, 2);
}

TEST_F(AdminCommandTest, CheckFindsAndRepairFrees) {
  for (int i = 0; i < 20; ++i) {
    Put("/photos/" + std::to_string(i), "some bytes");
  }
  const Ended well = Admin({"check"});
  EXPECT_EQ(well.code, 0) << well.err;
  EXPECT_THAT(well.out, HasSubstr("20 rows"));
  const std::string orphan = AddOrphan();
  const Ended found = Admin({"check"});
  EXPECT_EQ(found.code, 1);
  EXPECT_THAT(found.out, AllOf(HasSubstr("orphan "), HasSubstr(" 0 freed")));
  EXPECT_TRUE(std::filesystem::exists(orphan));
  EXPECT_EQ(Admin({"repair"}).code, 0);
  EXPECT_FALSE(std::filesystem::exists(orphan));
  EXPECT_EQ(Admin({"check"}).code, 0);
}

TEST_F(AdminCommandTest, ACheckThatTheServerForgotHasFailed) {
  EXPECT_THAT(Call(server_.GetAdminPort(), Signed({"GET", "/admin/check", {}, ""})).body,
              AllOf(HasSubstr("\"done\":false"), Not(HasSubstr("exit"))));
  CProgram check(Tansy({"--data", server_.Data(), "admin", "check"}));
  ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(server_.Data("check.request")) || !check.IsRunning(); }));
  server_.Kill();
  ASSERT_TRUE(server_.Start(launch_));
  EXPECT_NE(check.WaitForEnd().code, 0);
}

// On loopback the figures are open to every user of the machine; what changes something is not.
TEST_F(AdminCommandTest, NothingIsDoneWithoutTheKeys) {
  const std::string orphan = AddOrphan();
  for (const char* path : {"/admin/info", "/admin/requests", "/admin/check"}) {
    EXPECT_EQ(Call(server_.GetAdminPort(), {"GET", path, {}, ""}).status, 403) << path;
    EXPECT_EQ(StatusOf({"GET", path, {}, ""}), 200) << path;
    EXPECT_EQ(StatusOf({"DELETE", path, {}, ""}), 405) << path;
  }
  const Request repair{"POST", "/admin/check", {}, "{\"repair\":true,\"force\":true}"};
  EXPECT_EQ(Call(server_.GetAdminPort(), repair).status, 403);
  EXPECT_EQ(StatusOf({"POST", "/admin/check", {}, "no JSON"}), 400);
  EXPECT_TRUE(std::filesystem::exists(orphan));
  launch_.with_admin = false;
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(launch_));
  EXPECT_NE(Admin({"info"}).code, 0);
}

// The server does not wait for a check at its end.
TEST_F(AdminCommandTest, AStopEndsACheck) {
  EXPECT_EQ(StatusOf({"POST", "/admin/check", {}, "{}"}), 200);
  EXPECT_TRUE(server_.Stop());
}

}  // namespace
}  // namespace system_tests
