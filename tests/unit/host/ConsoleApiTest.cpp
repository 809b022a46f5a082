#include "ConsoleApi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "StartFailure.h"
#include "TansyNet/S3Signing.h"
#include "TansyProto/RapidJsonProto.h"
#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

using TansyNet::Headers;

class ConsoleApiTest : public testing::Test {
 protected:
  ConsoleSources Sources() {
    ConsoleSources sources;
    sources.s3_region = "us-east-1";
    sources.find_key = [this](const std::string& name) { return name == "admin" ? std::optional(key_) : std::nullopt; };
    sources.figures = [] {
      MetricsSource figures;
      figures.start_time = Tests::CManualClock::kDefaultTime - 100;
      figures.certificate_ends = 1'900'000'000;
      figures.free_bytes = 5'000'000'000;
      figures.disk_bytes = 9'000'000'000;
      figures.health.parts = {{"database", ""}, {"space", "nearly full"}};
      return figures;
    };
    sources.settings = [] {
      return std::vector<std::pair<std::string, std::string>>{{"s3-port", "9702"}, {"wan-ip", ""}};
    };
    sources.log_lines = [this](std::uint64_t& number) {
      const std::vector<std::string> lines(log_.begin() + static_cast<std::ptrdiff_t>(number), log_.end());
      number = log_.size();
      return lines;
    };
    sources.check = check_;
    return sources;
  }
  static TansyProto::CRapidJsonProto Read(const ConsoleAnswer& answer) {
    TansyProto::CRapidJsonProto json;
    EXPECT_TRUE(json.Parse(answer.body)) << answer.body;
    return json;
  }
  ConsoleAnswer Ask(const std::string& method, const std::string& target, const std::string& body = "",
                    Headers headers = {}, bool is_secure = false) {
    const std::size_t question = std::min(target.find('?'), target.size());
    const std::string path = target.substr(0, question);
    const std::string query = target.substr(std::min(question + 1, target.size()));
    headers.try_emplace("Host", "nas:9703");
    if (!body.empty()) {
      headers.try_emplace("Content-Type", "application/json");
    }
    const ConsolePlace place{"http://nas:9703", "nas:9702", s3_};
    return api_.Answer({method, path, query, "192.0.2.1", body, headers, is_secure}, path, place);
  }
  std::string SignInBody(const std::string& secret) {
    const std::string nonce = Read(Ask("GET", "challenge")).GetString("/nonce");
    const std::string proof = TansyNet::S3Signing::ToHex(TansyNet::S3Signing::HmacSha256(secret, nonce + "\nadmin"));
    return R"({"key":"admin","nonce":")" + nonce + R"(","proof":")" + proof + "\"}";
  }
  // The headers of somebody who has signed in.
  Headers SignedIn() {
    const ConsoleAnswer answer = Ask("POST", "session", SignInBody("secret"));
    EXPECT_EQ(answer.status, 200) << answer.body;
    const std::string cookie = answer.headers.at("Set-Cookie");
    return {{"Cookie", cookie.substr(0, cookie.find(';'))}, {"X-CSRF-Token", Read(answer).GetString("/csrf")}};
  }

  Tests::CManualClock clock_;
  ConsoleKey key_{"admin", "secret", true, {}, true};
  std::vector<std::string> log_;
  std::promise<void> go_on_;
  std::shared_ptr<COnlineCheck> check_ =
      std::make_shared<COnlineCheck>([this](const CheckOptions& /*options*/, std::ostream& out) {
        go_on_.get_future().wait();
        out << "orphan a 5\ncheck: 1 row\n";
        return kExitFindings;
      });
  std::string s3_ = "http://nas:9702";
  CConsoleApi api_{Sources()};
};

TEST_F(ConsoleApiTest, SignsInAndOut) {
  const ConsoleAnswer answer = Ask("POST", "session", SignInBody("secret"));
  ASSERT_EQ(answer.status, 200);
  EXPECT_EQ(answer.cache, "no-store");
  const auto json = Read(answer);
  EXPECT_EQ(json.GetString("/key"), "admin");
  EXPECT_EQ(json.GetInt("/expires"), clock_.Now() + 12 * 3600);
  EXPECT_EQ(json.GetString("/read_only"), "false");
  const std::string cookie = answer.headers.at("Set-Cookie");
  const std::string token = cookie.substr(0, cookie.find(';'));
  EXPECT_EQ(cookie, token + "; Path=/console/; HttpOnly; SameSite=Strict; Max-Age=43200");
  EXPECT_EQ(answer.body.find("secret"), std::string::npos);

  const ConsoleAnswer again = Ask("GET", "session", "", {{"Cookie", "a=b; " + token + "; c=d"}});
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.body, answer.body);
  const ConsoleAnswer out = Ask("DELETE", "session", "", {{"Cookie", token}});
  EXPECT_EQ(out.status, 200);
  EXPECT_EQ(out.headers.at("Set-Cookie"), "tansy_session=; Path=/console/; HttpOnly; SameSite=Strict; Max-Age=0");
  EXPECT_EQ(Ask("GET", "session", "", {{"Cookie", token}}).status, 401);
}

TEST_F(ConsoleApiTest, TheCookieOfAPageThatCameByHttpsGoesByHttpsOnly) {
  const ConsoleAnswer answer = Ask("POST", "session", SignInBody("secret"), {}, true);
  EXPECT_TRUE(answer.headers.at("Set-Cookie").ends_with("; Secure"));
}

TEST_F(ConsoleApiTest, AWrongKeyIsToldSoAndManyAreToldToWait) {
  for (int i = 0; i < 10; ++i) {
    const ConsoleAnswer answer = Ask("POST", "session", SignInBody("wrong"));
    EXPECT_EQ(answer.status, 401);
    EXPECT_EQ(answer.body, "{\"error\":\"access key or secret key is wrong\"}\n");
    EXPECT_FALSE(answer.headers.contains("Set-Cookie"));
  }
  const ConsoleAnswer answer = Ask("POST", "session", SignInBody("secret"));
  EXPECT_EQ(answer.status, 429);
  EXPECT_EQ(answer.headers.at("Retry-After"), "6");
}

TEST_F(ConsoleApiTest, NothingIsForWhoeverHasNotSignedIn) {
  const std::string forged = "tansy_session=" + std::string(64, 'a');
  for (const Headers& headers :
       {Headers{}, Headers{{"Cookie", forged}}, Headers{{"Cookie", "tansy_session"}},
        Headers{{"Cookie", ";;=;tansy_session=;"}}, Headers{{"Cookie", "xtansy_session=" + std::string(64, 'a')}},
        Headers{{"Cookie", std::string(60'000, ';')}}}) {
    EXPECT_EQ(Ask("GET", "session", "", headers).status, 401);
    EXPECT_EQ(Ask("DELETE", "session", "", headers).status, 401);
    for (const char* path : {"requests", "overview", "buckets", "settings", "log"}) {
      EXPECT_EQ(Ask("GET", path, "", headers).status, 401) << path;
    }
    EXPECT_EQ(Ask("POST", "sign", "{}", headers).status, 401);
  }
}

TEST_F(ConsoleApiTest, WhatChangesSomethingNeedsTheSessionsToken) {
  Headers headers = SignedIn();
  const std::string body = R"({"method":"GET","bucket":"b","key":"k","expires":60})";
  EXPECT_EQ(Ask("POST", "sign", body, headers).status, 200);
  Headers without = headers;
  without.erase("X-CSRF-Token");
  EXPECT_EQ(Ask("POST", "sign", body, without).status, 403);
  Headers of_another = SignedIn();
  of_another["Cookie"] = headers["Cookie"];
  EXPECT_EQ(Ask("POST", "sign", body, of_another).status, 403);
  Headers empty = headers;
  empty["X-CSRF-Token"] = "";
  EXPECT_EQ(Ask("POST", "sign", body, empty).status, 403);
  Headers lower = without;
  lower["x-csrf-token"] = headers["X-CSRF-Token"];
  EXPECT_EQ(Ask("POST", "sign", body, lower).status, 200) << "names of headers may be written in any case";
}

TEST_F(ConsoleApiTest, OtherPagesAreRefusedWhateverTheyHave) {
  Headers headers = SignedIn();
  const auto with = [&](const std::string& name, const std::string& value) {
    Headers changed = headers;
    changed[name] = value;
    return Ask("GET", "session", "", changed).status;
  };
  EXPECT_EQ(with("Origin", "http://nas:9703"), 200);
  EXPECT_EQ(with("Origin", "https://nas:9703"), 200) << "a proxy may speak HTTPS";
  EXPECT_EQ(with("Origin", "http://nas:9702"), 403) << "a page that is stored as an object";
  EXPECT_EQ(with("Origin", "http://evil.example.org"), 403);
  EXPECT_EQ(with("Origin", "null"), 403);
  EXPECT_EQ(with("Sec-Fetch-Site", "same-origin"), 200);
  EXPECT_EQ(with("Sec-Fetch-Site", "none"), 200);
  EXPECT_EQ(with("Sec-Fetch-Site", "same-site"), 403);
  EXPECT_EQ(with("Sec-Fetch-Site", "cross-site"), 403);
}

TEST_F(ConsoleApiTest, ReadsJsonOfModestSizeOnly) {
  const std::string fits = "\"" + std::string(CConsoleApi::kLongestBody - 2, 'x') + "\"";
  EXPECT_EQ(Ask("POST", "session", fits).status, 401);
  EXPECT_EQ(Ask("POST", "session", fits + " ").status, 413);
  EXPECT_EQ(Ask("POST", "sign", fits + " ").status, 413) << "before anything else";
  EXPECT_EQ(Ask("POST", "session", "{").status, 400);
  EXPECT_EQ(Ask("POST", "session", "").status, 400);
  EXPECT_EQ(Ask("POST", "session", "{}", {{"Content-Type", "text/plain"}}).status, 415)
      << "what a form of another page can send";
  EXPECT_EQ(Ask("POST", "session", "[]").status, 401);
  EXPECT_EQ(Ask("POST", "session", R"({"key":{},"nonce":[],"proof":null})").status, 401);
}

TEST_F(ConsoleApiTest, HasNothingElse) {
  EXPECT_EQ(Ask("GET", "").status, 404);
  EXPECT_EQ(Ask("GET", "sessions").status, 404);
  EXPECT_EQ(Ask("GET", "session/").status, 404);
  EXPECT_EQ(Ask("PUT", "session").status, 405);
  EXPECT_EQ(Ask("POST", "challenge").status, 405);
  EXPECT_EQ(Ask("GET", "sign").status, 405);
}

TEST_F(ConsoleApiTest, SignsOneLinkOrMany) {
  const Headers headers = SignedIn();
  const auto one = Read(Ask("POST", "sign",
                            R"({"method":"PUT","bucket":"b","key":"a b","query":{"partNumber":2,"uploadId":"u"},)"
                            R"("headers":{"x-amz-copy-source":"/b/c"},"expires":60})",
                            headers));
  const std::string link = one.GetString("/url");
  EXPECT_TRUE(link.starts_with("http://nas:9702/b/a%20b?")) << link;
  EXPECT_NE(link.find("partNumber=2&uploadId=u"), std::string::npos) << link;
  EXPECT_NE(link.find("SignedHeaders=host%3Bx-amz-copy-source"), std::string::npos) << link;
  EXPECT_EQ(link.find("secret"), std::string::npos);
  const auto many = Read(Ask("POST", "sign",
                             R"( [{"method":"GET","bucket":"b","key":"1","expires":60},)"
                             R"({"method":"DELETE","bucket":"b","key":"2","expires":60}])",
                             headers));
  EXPECT_EQ(many.GetCount("/urls"), 2U);
  EXPECT_TRUE(many.GetString("/urls[2]").starts_with("http://nas:9702/b/2?"));
  EXPECT_EQ(Ask("POST", "sign", "[]", headers).body, "{\"urls\":[]}\n");
}

TEST_F(ConsoleApiTest, SaysWhyItDoesNotSign) {
  const Headers headers = SignedIn();
  for (const char* body : {"{}", "[1]", "1", "[{\"method\":\"GET\"}]", R"({"method":"GET","bucket":"b","key":"k"})",
                           R"({"method":"GET","bucket":"b","key":"k","expires":604801})"}) {
    const ConsoleAnswer answer = Ask("POST", "sign", body, headers);
    EXPECT_EQ(answer.status, 400) << body;
    EXPECT_NE(Read(answer).GetString("/error"), "") << body;
  }
  EXPECT_EQ(Ask("POST", "sign", "{", headers).status, 400);
  std::string many = "[0";
  for (int i = 0; i < 1000; ++i) {
    many += ",0";
  }
  EXPECT_EQ(Read(Ask("POST", "sign", many + "]", headers)).GetString("/error"), "ask for at most 1000 links at once");
  s3_ = "";
  EXPECT_EQ(Ask("POST", "sign", R"({"method":"GET","bucket":"","key":"","expires":60})", headers).status, 409);
}

TEST_F(ConsoleApiTest, ShowsHowTheServerIs) {
  const auto json = Read(Ask("GET", "overview", "", SignedIn()));
  EXPECT_EQ(json.GetInt("/time"), clock_.Now());
  EXPECT_EQ(json.GetInt("/uptime"), 100);
  EXPECT_NE(json.GetString("/version"), "");
  EXPECT_EQ(json.GetString("/ready"), "false");
  EXPECT_EQ(json.GetString("/parts/database"), "well");
  EXPECT_EQ(json.GetString("/parts/space"), "nearly full");
  EXPECT_EQ(json.GetInt("/space/free"), 5'000'000'000);
  EXPECT_EQ(json.GetInt("/space/total"), 9'000'000'000);
  EXPECT_EQ(json.GetInt("/certificate_end"), 1'900'000'000);
  EXPECT_EQ(json.GetString("/latency/bounds[1]"), "0.0005");
  EXPECT_EQ(json.GetCount("/latency/counts"), json.GetCount("/latency/bounds") + 1);
  for (const char* number :
       {"/requests/total", "/requests/errors", "/bytes/in", "/bytes/out", "/connections/open", "/connections/busy",
        "/connections/limit", "/tasks/running", "/tasks/limit", "/memory/used", "/memory/limit", "/catalogue/buckets",
        "/catalogue/objects", "/catalogue/uploads", "/catalogue/bytes"}) {
    EXPECT_GE(json.GetInt(number), 0) << number;
  }
}

TEST_F(ConsoleApiTest, ShowsTheSettings) {
  EXPECT_EQ(Ask("GET", "settings", "", SignedIn()).body, "{\"settings\":{\"s3-port\":\"9702\",\"wan-ip\":\"\"}}\n");
}

TEST_F(ConsoleApiTest, ShowsTheLogFromWhereThePageIs) {
  const Headers headers = SignedIn();
  EXPECT_EQ(Ask("GET", "log", "", headers).body, "{\"next\":0,\"lines\":[]}\n");
  log_ = {"one", "two \xFF", "three"};
  EXPECT_EQ(Ask("GET", "log?after=0", "", headers).body,
            "{\"next\":3,\"lines\":[\"one\",\"two \xEF\xBF\xBD\",\"three\"]}\n");
  EXPECT_EQ(Ask("GET", "log?after=2", "", headers).body, "{\"next\":3,\"lines\":[\"three\"]}\n");
  EXPECT_EQ(Ask("GET", "log?after=x", "", headers).status, 200);
}

TEST_F(ConsoleApiTest, ChecksCatalogueAndStore) {
  const Headers headers = SignedIn();
  Headers without_token = headers;
  without_token.erase("X-CSRF-Token");
  EXPECT_EQ(Ask("POST", "check", "", without_token).status, 403);
  EXPECT_EQ(Ask("GET", "check", "", headers).body,
            R"({"running":false,"started":0,"ended":0,"looked_at":0,"result":"","findings":0,"lines":[],"summary":""})"
            "\n");
  EXPECT_EQ(Read(Ask("POST", "check", "", headers)).GetString("/running"), "true");
  EXPECT_EQ(Ask("POST", "check", "", headers).status, 409);
  go_on_.set_value();
  while (check_->Get().is_running) {
    std::this_thread::yield();
  }
  const auto json = Read(Ask("GET", "check", "", headers));
  EXPECT_EQ(json.GetString("/running"), "false");
  EXPECT_EQ(json.GetInt("/ended"), clock_.Now());
  EXPECT_EQ(json.GetString("/result"), "findings");
  EXPECT_EQ(json.GetInt("/findings"), 1);
  EXPECT_EQ(json.GetString("/lines[1]"), "orphan a 5");
  EXPECT_EQ(json.GetString("/summary"), "check: 1 row");
}

TEST_F(ConsoleApiTest, OtherKeysDoNotSeeHowTheServerIsRun) {
  key_.is_operator = false;
  key_.may_write = false;
  key_.buckets = {"mine"};
  const Headers headers = SignedIn();
  const auto json = Read(Ask("GET", "session", "", headers));
  EXPECT_EQ(json.GetString("/operator"), "false");
  EXPECT_EQ(json.GetString("/read_only"), "true");
  EXPECT_EQ(json.GetString("/buckets[1]"), "mine");
  for (const char* path : {"requests", "settings", "log", "check"}) {
    EXPECT_EQ(Ask("GET", path, "", headers).status, 403) << path;
  }
  EXPECT_EQ(Ask("POST", "sign", R"({"method":"PUT","bucket":"mine","key":"k","expires":60})", headers).status, 400);
}

// What all buckets hold, what others use the server for and how it is equipped is the operator's business; words of
// troubles name folders and nodes.
TEST_F(ConsoleApiTest, OtherKeysSeeOnlyWhetherTheServerIsWell) {
  const auto operators = Read(Ask("GET", "overview", "", SignedIn()));
  EXPECT_TRUE(operators.Has("/memory"));
  EXPECT_TRUE(operators.Has("/space"));
  key_.is_operator = false;
  key_.buckets = {"mine"};
  const ConsoleAnswer answer = Ask("GET", "overview", "", SignedIn());
  EXPECT_EQ(answer.status, 200);
  const auto json = Read(answer);
  EXPECT_EQ(json.GetString("/ready"), "false");
  EXPECT_EQ(json.GetString("/parts/database"), "well");
  EXPECT_EQ(json.GetString("/parts/space"), "trouble");
  EXPECT_EQ(json.GetInt("/uptime"), 100);
  for (const char* member : {"/time", "/version", "/requests", "/bytes", "/latency", "/connections"}) {
    EXPECT_TRUE(json.Has(member)) << member;
  }
  for (const char* member : {"/catalogue", "/by_service", "/memory", "/space", "/certificate_end"}) {
    EXPECT_FALSE(json.Has(member)) << member;
  }
  EXPECT_EQ(answer.body.find("nearly full"), std::string::npos) << answer.body;
}

TEST_F(ConsoleApiTest, APageThatLooksByItselfKeepsNoSessionAlive) {
  Headers headers = SignedIn();
  Headers polling = headers;
  polling["X-Tansy-Poll"] = "1";
  clock_.Advance(3599);
  EXPECT_EQ(Ask("GET", "requests", "", polling).status, 200);
  clock_.Advance(1);
  EXPECT_EQ(Ask("GET", "requests", "", polling).status, 401);
}

}  // namespace
}  // namespace Tansy::Host
