#include "ConsolePage.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace Tansy::Host {
namespace {

const std::vector<EmbeddedFile> kFiles = {
    {"app-1A.js", "plain script", "packed script"},
    {"fonts/a.woff2", "font", ""},
    {"index.html", "<p>page</p>", ""},
    {"strange", "?", ""},
};

ConsoleAnswer Ask(const std::string& path, const TansyNet::Headers& headers = {}, const std::string& method = "GET") {
  return AnswerWithPage({method, path, "", "127.0.0.1", "", headers, false}, kFiles);
}

TEST(ConsolePageTest, ThePageIsAskedForEachTimeAndItsFilesOnce) {
  for (const char* path : {"", "index.html"}) {
    const ConsoleAnswer page = Ask(path);
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.body, "<p>page</p>");
    EXPECT_EQ(page.type, "text/html; charset=utf-8");
    EXPECT_EQ(page.cache, "no-cache");
  }
  const ConsoleAnswer script = Ask("app-1A.js");
  EXPECT_EQ(script.body, "plain script");
  EXPECT_EQ(script.type, "text/javascript; charset=utf-8");
  EXPECT_EQ(script.cache, "public, max-age=31536000, immutable");
  EXPECT_EQ(Ask("fonts/a.woff2").type, "font/woff2");
  EXPECT_EQ(Ask("strange").type, "application/octet-stream");
}

TEST(ConsolePageTest, SendsThePackedFormToWhoeverTakesIt) {
  const ConsoleAnswer packed = Ask("app-1A.js", {{"Accept-Encoding", "br, gzip;q=0.8"}});
  EXPECT_EQ(packed.body, "packed script");
  EXPECT_EQ(packed.encoding, "gzip");
  EXPECT_EQ(packed.headers.at("Vary"), "Accept-Encoding");
  const ConsoleAnswer plain = Ask("app-1A.js");
  EXPECT_EQ(plain.body, "plain script");
  EXPECT_EQ(plain.encoding, "");
  EXPECT_EQ(plain.headers.at("Vary"), "Accept-Encoding") << "a cache may keep this one too";
  EXPECT_EQ(Ask("fonts/a.woff2", {{"Accept-Encoding", "gzip"}}).encoding, "") << "it has no packed form";
}

TEST(ConsolePageTest, ReadsWhichFormsAreTaken) {
  for (const char* takes : {"gzip", "gzip, deflate, br", "br,gzip", " gzip ;q=1.0", "gzip;q=0.001", "gzip; q=0.5"}) {
    EXPECT_TRUE(TakesGzip(takes)) << takes;
  }
  for (const char* refuses : {"", "br", "gzip;q=0", "gzip; q=0.000", "identity, gzip;q=0.0", "gzipped", ",", ";"}) {
    EXPECT_FALSE(TakesGzip(refuses)) << refuses;
  }
}

TEST(ConsolePageTest, HasNothingElse) {
  for (const char* path : {"missing", "../index.html", "index.html/", "fonts", "fonts/", "INDEX.HTML", "/"}) {
    EXPECT_EQ(Ask(path).status, 404) << path;
  }
  EXPECT_EQ(Ask("", {}, "POST").status, 405);
  EXPECT_EQ(Ask("", {}, "HEAD").status, 200);
}

// What the build has put into this program.
TEST(ConsolePageTest, ThePageIsInTheProgram) {
  std::set<std::string_view> names;
  for (const EmbeddedFile& file : ConsoleFiles()) {
    EXPECT_TRUE(names.insert(file.name).second) << file.name;
    EXPECT_TRUE(file.gzip.empty() || file.gzip.starts_with("\x1f\x8b")) << file.name;
    EXPECT_TRUE(file.gzip.empty() || file.gzip.size() < file.plain.size()) << file.name;
  }
  const TansyNet::Headers none;
  const ConsoleAnswer page = AnswerWithPage({"GET", "", "", "127.0.0.1", "", none, false}, ConsoleFiles());
  EXPECT_EQ(page.status, 200);
  EXPECT_NE(page.body.find("<html"), std::string::npos);
}

}  // namespace
}  // namespace Tansy::Host
