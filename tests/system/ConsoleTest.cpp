// The web console as a browser meets it: its page, signing in, and what a page may ask for.
#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/CommandLineFixture.h"
#include "support/ConsoleUser.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class ConsoleTest : public TansydTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_admin = true;
    launch.with_s3 = true;
    ASSERT_TRUE(server_.Start(launch));
  }
  Reply Ask(const std::string& target, const HeaderList& headers = {}, const std::string& method = "GET",
            const std::string& body = "") const {
    return Call(server_.GetAdminPort(), {method, target, headers, body});
  }
  Reply Post(const std::string& target, const std::string& body, const HeaderList& headers = {}) const {
    return PostJson(server_.GetAdminPort(), target, body, headers);
  }
  Reply SignIn(const std::string& secret = Keys().secret_key) const {
    return SignInAtConsole(server_.GetAdminPort(), {Keys().access_key, secret});
  }
  HeaderList SignedIn() const { return SignedInAtConsole(server_.GetAdminPort()); }
  // The path and query of a link that the console signs.
  std::string Target(const std::string& what, const HeaderList& headers) const {
    const Reply reply = Post("/console/api/sign", what, headers);
    EXPECT_EQ(reply.status, 200) << reply.body;
    const std::string url = JsonMember(reply.body, "url");
    const std::string server = "http://127.0.0.1:" + std::to_string(server_.GetS3Port());
    EXPECT_EQ(url.substr(0, server.size() + 1), server + "/");
    return url.substr(std::min(server.size(), url.size()));
  }
  Reply AtS3(const std::string& method, const std::string& target, const std::string& body = "",
             const HeaderList& headers = {}) const {
    return Call(server_.GetS3Port(), {method, target, headers, body});
  }
  std::string Origin() const { return "http://127.0.0.1:" + std::to_string(server_.GetAdminPort()); }
};

TEST_F(ConsoleTest, ShowsItsPageUnderStrictRules) {
  const Reply page = Ask("/console/", {{"Host", "nas.example.org:9703"}});
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.Header("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(page.Header("Cache-Control"), "no-cache");
  EXPECT_EQ(page.Header("X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(page.Header("Referrer-Policy"), "no-referrer");
  EXPECT_EQ(page.Header("Cross-Origin-Opener-Policy"), "same-origin");
  const std::string s3 = "http://nas.example.org:" + std::to_string(server_.GetS3Port());
  EXPECT_THAT(page.Header("Content-Security-Policy"),
              AllOf(HasSubstr("default-src 'none'; script-src 'self'; style-src 'self'; "),
                    HasSubstr("connect-src 'self' " + s3 + ";"), HasSubstr("frame-ancestors 'none'"),
                    Not(HasSubstr("unsafe"))));
  EXPECT_THAT(page.body, HasSubstr("<html"));
}

TEST_F(ConsoleTest, LeadsThereFromTheFrontDoor) {
  for (const char* target : {"/", "/console"}) {
    const Reply reply = Ask(target);
    EXPECT_EQ(reply.status, 302) << target;
    EXPECT_EQ(reply.Header("Location"), "/console/");
  }
  EXPECT_EQ(Ask("/console/missing.js").status, 404);
  EXPECT_EQ(Ask("/console/..%2fmetrics").status, 404);
  EXPECT_EQ(Ask("/console/", {}, "POST", "x").status, 405);
}

TEST_F(ConsoleTest, NamesNoHostThatIsNone) {
  EXPECT_EQ(Ask("/console/", {{"Host", "nas;script-src *"}}).status, 400);
  EXPECT_EQ(Ask("/console/api/challenge", {{"Host", "a\"b"}}).status, 400);
}

TEST_F(ConsoleTest, WhoeverHasTheKeySignsInAndOut) {
  const Reply reply = SignIn();
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(JsonMember(reply.body, "key"), Keys().access_key);
  EXPECT_THAT(reply.Header("Set-Cookie"), testing::MatchesRegex("tansy_session=[0-9a-f]{64}; Path=/console/; HttpOnly; "
                                                                "SameSite=Strict; Max-Age=43200"));
  EXPECT_EQ(reply.Header("Cache-Control"), "no-store");
  const HeaderList headers = SignedIn();
  EXPECT_EQ(Ask("/console/api/session", headers).status, 200);
  EXPECT_EQ(Ask("/console/api/session", headers, "DELETE").status, 200);
  EXPECT_EQ(Ask("/console/api/session", headers).status, 401);
  EXPECT_THAT(server_.GetLog(), Not(HasSubstr(Keys().secret_key)));
}

TEST_F(ConsoleTest, ForgedCookiesOpenNothing) {
  const HeaderList good = SignedIn();
  std::string cookie = good[0].second;
  cookie.back() = cookie.back() == '0' ? '1' : '0';
  for (const std::string& forged : {cookie, std::string("tansy_session=" + std::string(64, '0')),
                                    std::string("tansy_session=../../x"), std::string(60'000, 'a')}) {
    EXPECT_EQ(Ask("/console/api/session", {{"Cookie", forged}}).status, 401) << forged.substr(0, 80);
    EXPECT_EQ(Post("/console/api/sign", "{}", {{"Cookie", forged}, good[1]}).status, 401);
  }
  EXPECT_EQ(Ask("/console/api/session", {{"Cookie", std::string(70'000, 'a')}}).status, 431);
  EXPECT_EQ(Ask("/console/api/session", good).status, 200);
}

TEST_F(ConsoleTest, RequestsOfOtherPagesAndWithoutTheTokenChangeNothing) {
  const HeaderList good = SignedIn();
  const std::string body = R"({"method":"GET","bucket":"","key":"","expires":60})";
  EXPECT_EQ(Post("/console/api/sign", body, good).status, 200);
  EXPECT_EQ(Post("/console/api/sign", body, {good[0]}).status, 403);
  EXPECT_EQ(Post("/console/api/sign", body, {good[0], {"X-CSRF-Token", std::string(64, 'a')}}).status, 403);
  for (const char* origin : {"http://evil.example.org", "null", "http://127.0.0.1:1"}) {
    EXPECT_EQ(Post("/console/api/sign", body, {good[0], good[1], {"Origin", origin}}).status, 403) << origin;
    EXPECT_EQ(Ask("/console/api/session", {good[0], {"Origin", origin}}, "DELETE").status, 403) << origin;
  }
  EXPECT_EQ(Post("/console/api/sign", body, {good[0], good[1], {"Origin", Origin()}}).status, 200);
  EXPECT_EQ(Post("/console/api/sign", std::string(64 * 1024 + 1, ' '), good).status, 413);
}

TEST_F(ConsoleTest, SigningInIsNotGuessing) {
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(SignIn("guess").status, 401);
  }
  const Reply reply = SignIn();
  EXPECT_EQ(reply.status, 429);
  EXPECT_GE(std::stoi("0" + reply.Header("Retry-After")), 1);
}

// Whoever has a session goes on, other protocols do too, and memory stays where it was.
TEST_F(ConsoleTest, TenThousandTriesToSignInAreNoTroubleForOthers) {
  const HeaderList good = SignedIn();
  MakeBucket("b");
  const std::uint64_t before = server_.GetMemory();
  std::atomic<int> open{0};
  std::atomic<int> answered{0};
  const auto storm = [&] {
    const auto connection = CConnection::Open(server_.GetAdminPort());
    ASSERT_NE(connection, nullptr);
    const std::string body = R"({"key":"x","nonce":")" + std::string(500, 'n') + R"(","proof":"y"})";
    const std::string bytes = Serialize({"POST", "/console/api/session", {{"Content-Type", "application/json"}}, body},
                                        server_.GetAdminPort());
    for (int i = 0; i < 2500; ++i) {
      ASSERT_TRUE(connection->Send(bytes));
      const int status = connection->Receive().status;
      ASSERT_TRUE(status == 401 || status == 429) << status;
      open += status == 401 ? 1 : 0;
      ++answered;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back(storm);
  }
  for (int i = 0; i < 20; ++i) {
    Put("/b/k", "12345");
    EXPECT_EQ(Get("/b/k"), "12345");
    EXPECT_EQ(Ask("/console/api/session", good).status, 200);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(answered, 10'000);
  EXPECT_LT(open, 1000) << "ten at once, then one in six seconds";
  EXPECT_LT(server_.GetMemory(), before + MemoryFor(std::uint64_t{64} << 20));
}

// The whole way of a browser: from the page's origin, by links that the console signs, to the S3 server.
TEST_F(ConsoleTest, APageWorksOnObjectsByItsLinks) {
  const HeaderList good = SignedIn();
  const HeaderList page = {{"Origin", Origin()}};
  const auto sign = [&](const std::string& method, const std::string& rest) {
    return Target(R"({"method":")" + method + R"(","bucket":"photos","expires":60)" + rest + "}", good);
  };
  const Reply preflight = AtS3("OPTIONS", sign("PUT", R"(,"key":"a")"), "",
                               {{"Origin", Origin()},
                                {"Access-Control-Request-Method", "PUT"},
                                {"Access-Control-Request-Headers", "content-type,x-amz-copy-source"}});
  EXPECT_EQ(preflight.status, 200);
  EXPECT_EQ(preflight.Header("Access-Control-Allow-Origin"), Origin());
  EXPECT_THAT(preflight.Header("Access-Control-Allow-Headers"), HasSubstr("x-amz-copy-source"));
  EXPECT_EQ(AtS3("PUT", sign("PUT", ""), "", page).status, 200) << "the bucket";
  const std::string name = "caf\xC3\xA9 <b>&\xE2\x80\xAE.txt";
  const std::string key = R"(,"key":")" + name + "\"";
  const Reply stored = AtS3("PUT", sign("PUT", key), "hello", {{"Origin", Origin()}, {"Content-Type", "text/plain"}});
  EXPECT_EQ(stored.status, 200) << stored.body;
  EXPECT_EQ(stored.Header("Access-Control-Allow-Origin"), Origin());
  EXPECT_THAT(stored.Header("Access-Control-Expose-Headers"), HasSubstr("ETag"));
  EXPECT_EQ(AtS3("GET", sign("GET", key), "", page).body, "hello");
  const std::string copy =
      sign("PUT", R"(,"key":"copy","headers":{"x-amz-copy-source":"/photos/caf%C3%A9%20%3Cb%3E%26%E2%80%AE.txt"})");
  EXPECT_EQ(AtS3("PUT", copy, "", page).status, 403) << "the header was signed and must be sent";
  EXPECT_EQ(AtS3("PUT", copy, "",
                 {{"Origin", Origin()}, {"x-amz-copy-source", "/photos/caf%C3%A9%20%3Cb%3E%26%E2%80%AE.txt"}})
                .status,
            200);
  EXPECT_THAT(AtS3("GET", sign("GET", R"(,"query":{"list-type":"2","prefix":"co"})"), "", page).body,
              AllOf(HasSubstr("<Key>copy</Key>"), HasSubstr("<KeyCount>1</KeyCount>")));
  EXPECT_EQ(AtS3("DELETE", sign("DELETE", R"(,"key":"copy")"), "", page).status, 204);
  EXPECT_EQ(AtS3("GET", sign("GET", R"(,"key":"copy")"), "", page).status, 404);
  EXPECT_EQ(AtS3("DELETE", sign("GET", key), "", page).status, 403) << "a link is for one method";
}

TEST_F(ConsoleTest, ShowsFiguresBucketsSettingsAndTheLog) {
  const HeaderList good = SignedIn();
  MakeBucket("empty");
  MakeBucket("photos");
  Put("/photos/a", "12345");
  Put("/photos/b", "1234567");
  EXPECT_EQ(Ask("/console/api/buckets", good).body,
            R"({"buckets":[{"name":"empty","objects":0,"bytes":0},{"name":"photos","objects":2,"bytes":12}]})"
            "\n");
  EXPECT_TRUE(WaitUntil([&] {
    return Ask("/console/api/overview", good).body.find(R"("requests":{"total":4,"errors":0})") != std::string::npos;
  }));
  const std::string figures = Ask("/console/api/overview", good).body;
  EXPECT_THAT(figures, HasSubstr("\"object\":4"));
  EXPECT_THAT(figures, AllOf(HasSubstr(R"("ready":true)"), HasSubstr(R"("database":"well")"),
                             HasSubstr(R"("catalogue":{"buckets":2,"objects":2,"uploads":0,"bytes":12})"),
                             Not(HasSubstr(R"("space":{"free":0)"))));
  const std::string settings = Ask("/console/api/settings", good).body;
  EXPECT_THAT(settings, AllOf(HasSubstr("\"s3-port\":\"" + std::to_string(server_.GetS3Port()) + "\""),
                              HasSubstr("\"admin-port\":\"" + std::to_string(server_.GetAdminPort()) + "\""),
                              Not(HasSubstr(Keys().secret_key))));
  EXPECT_EQ(Send("GET", "/photos/missing").status, 404);
  EXPECT_TRUE(WaitUntil([&] {
    return Ask("/console/api/log?after=0", good).body.find("missing") != std::string::npos;
  })) << Ask("/console/api/log?after=0", good).body;
  EXPECT_THAT(Ask("/console/api/requests", good).body, HasSubstr("GET /console/api/requests"));
}

TEST_F(ConsoleTest, ChecksCatalogueAndStore) {
  const HeaderList good = SignedIn();
  MakeBucket("b");
  Put("/b/one", std::string(100'000, 'x'));
  Put("/b/two", std::string(100'000, 'x'));
  const auto check = [&] {
    EXPECT_EQ(Post("/console/api/check", "", {good[0]}).status, 403) << "without the token";
    EXPECT_EQ(Post("/console/api/check", "", good).status, 200);
    std::string state;
    EXPECT_TRUE(WaitUntil([&] {
      state = Ask("/console/api/check", good).body;
      return state.find("\"running\":false") != std::string::npos;
    }));
    return state;
  };
  EXPECT_THAT(check(), AllOf(HasSubstr(R"("result":"well","findings":0,"lines":[],"summary":"check: 2 rows, 2 )"),
                             Not(HasSubstr("\"looked_at\":0,"))));
  bool is_cut = false;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server_.Data("objects"))) {
    if (entry.is_regular_file() && entry.file_size() == 100'000 && !is_cut) {
      std::filesystem::resize_file(entry.path(), 10);
      is_cut = true;
    }
  }
  ASSERT_TRUE(is_cut);
  EXPECT_THAT(check(),
              AllOf(HasSubstr(R"("result":"findings","findings":1,"lines":["short /b/)"), HasSubstr("1 damaged")));
}

TEST_F(ConsoleTest, ShowsAndChecksThePlaceThatEverythingWasMovedTo) {
  const HeaderList good = SignedIn();
  MakeBucket("b");
  Put("/b/k", "12345");
  CTansyd command(temp_.GetPath(), "command");
  Launch move;
  move.with_data = move.with_ports = false;
  move.arguments = {"move", "--data", server_.Data(), "--to-storage", "file:bytes", "--to-database", "sqlite:rows.db"};
  ASSERT_EQ(command.RunToEnd(move).code, 0);
  EXPECT_THAT(Ask("/console/api/settings", good).body,
              AllOf(HasSubstr(R"("database":"sqlite:rows.db","storage":"file:bytes")"),
                    HasSubstr("\"s3-port\":\"" + std::to_string(server_.GetS3Port()) + "\"")));
  Put("/b/more", "1234567");
  EXPECT_EQ(Post("/console/api/check", "", good).status, 200);
  EXPECT_TRUE(WaitUntil([&] {
    return Ask("/console/api/check", good).body.find(R"("result":"well")") != std::string::npos;
  })) << Ask("/console/api/check", good).body;
  EXPECT_THAT(Ask("/console/api/check", good).body, HasSubstr("check: 2 rows, 2 stored files"));
}

TEST_F(ConsoleTest, PagesOfOtherOriginsStayOutOfTheS3Server) {
  const std::string link = Target(R"({"method":"GET","bucket":"","key":"","expires":60})", SignedIn());
  for (const std::string& origin : {std::string("http://evil.example.org"), std::string("null"),
                                    "http://evil.example.org:" + std::to_string(server_.GetAdminPort()),
                                    "http://127.0.0.1:" + std::to_string(server_.GetS3Port())}) {
    EXPECT_EQ(AtS3("GET", link, "", {{"Origin", origin}}).Header("Access-Control-Allow-Origin"), "") << origin;
    EXPECT_EQ(AtS3("OPTIONS", link, "", {{"Origin", origin}, {"Access-Control-Request-Method", "GET"}}).status, 403)
        << origin;
  }
}

class ConsoleKeysTest : public CommandLineFixture {
 protected:
  ConsoleKeysTest() { launch_.with_s3 = launch_.with_admin = true; }
};

TEST_F(ConsoleKeysTest, AKeyOfSomebodyElseShowsAndSignsWhatItMayDo) {
  Do({"mb", "other"});
  const Ended made = Run({"--data", server_.Data(), "key", "add", "guest", "--bucket", "photos", "--read-only"});
  ASSERT_EQ(made.code, 0) << made.err;
  const std::vector<std::string> lines = Lines(made.out);
  ASSERT_EQ(lines.size(), 2U);
  const auto last_word = [](const std::string& line) { return line.substr(line.rfind(' ') + 1); };
  const Keys guest{last_word(lines[0]), last_word(lines[1])};
  const std::uint16_t port = server_.GetAdminPort();
  EXPECT_THAT(SignInAtConsole(port, guest).body,
              AllOf(HasSubstr("\"read_only\":true,\"operator\":false,\"buckets\":[\"photos\"]")));
  const HeaderList session = SignedInAtConsole(port, guest);
  const auto ask = [&](const std::string& path) { return Call(port, {"GET", "/console/api/" + path, session, ""}); };
  const auto sign = [&](const std::string& request) { return PostJson(port, "/console/api/sign", request, session); };
  EXPECT_THAT(ask("buckets").body, AllOf(HasSubstr("photos"), Not(HasSubstr("other"))));
  EXPECT_EQ(ask("log").status, 403);
  EXPECT_THAT(ask("overview").body,
              AllOf(HasSubstr(R"("parts":{"database":"well")"), Not(HasSubstr("\"catalogue\"")),
                    Not(HasSubstr("by_service")), Not(HasSubstr("\"memory\"")), Not(HasSubstr("\"space\":{"))));
  EXPECT_EQ(sign(R"({"method":"PUT","bucket":"photos","key":"k","expires":60})").status, 400);
  EXPECT_EQ(sign(R"({"method":"GET","bucket":"other","key":"k","expires":60})").status, 400);
  const Reply signed_link = sign(R"({"method":"GET","bucket":"photos","query":{"list-type":"2"},"expires":60})");
  const std::string url = JsonMember(signed_link.body, "url");
  ASSERT_NE(url.find("/photos?"), std::string::npos) << signed_link.body;
  EXPECT_EQ(Call(server_.GetS3Port(), {"GET", url.substr(url.find("/photos?")), {}, ""}).status, 200);
  EXPECT_EQ(Run({"--data", server_.Data(), "key", "rm", "guest"}).code, 0);
  EXPECT_EQ(ask("session").status, 401) << "the session has ended with its key";
  EXPECT_EQ(SignInAtConsole(port, guest).status, 401);
}

}  // namespace
}  // namespace system_tests
