// Signed links in a real browser. Where there is no browser, the test says that it was skipped.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/PictureSystemTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::Not;

// The first browser of this kind that can be found; "" when there is none.
std::string FindBrowser() {
  if (const char* named = std::getenv("TANSY_TEST_BROWSER")) {
    return named;
  }
  for (const std::string name : {"chromium", "chromium-browser", "google-chrome", "chrome"}) {
    if (std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0) {
      return name;
    }
  }
  return "";
}

class PictureBrowserTest : public PictureSystemTest {
 protected:
  void SetUp() override {
    browser_ = FindBrowser();
    if (browser_.empty()) {
      GTEST_SKIP() << "no Chromium is installed (Debian: apt-get install chromium): no link was shown in a browser";
    }
    Launch launch;
    launch.with_https = true;
    ASSERT_TRUE(server_.Start(launch));
  }

  // The document that the browser has made of an address when everything in it is loaded.
  std::string Open(const std::string& url) {
    // It speaks to this machine only, and leaves nothing outside the test's folder.
    const std::string command =
        "HOME='" + temp_.GetPath() + "' timeout -k 5 120 '" + browser_ + "' --headless " +
        (::geteuid() == 0 ? "--no-sandbox " : "") +
        "--disable-gpu --disable-dev-shm-usage --no-first-run --no-default-browser-check --disable-extensions "
        "--disable-background-networking --disable-component-update --disable-sync --ignore-certificate-errors "
        "--host-resolver-rules='MAP * ~NOTFOUND, EXCLUDE 127.0.0.1' --user-data-dir='" +
        temp_.Path("profile") + "' --dump-dom '" + url + "' 2>'" + temp_.Path("browser.err") + "'";
    std::string document;
    std::FILE* const pipe = ::popen(command.c_str(), "r");
    char buffer[4096];
    for (std::size_t size = 0; (size = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
      document.append(buffer, size);
    }
    const int status = ::pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << temp_.Read("browser.err");
    return document;
  }
  std::string Http(const std::string& target) {
    return "http://127.0.0.1:" + std::to_string(server_.GetPicturePort()) + target;
  }
  std::string Https(const std::string& target) {
    return "https://127.0.0.1:" + std::to_string(server_.GetPictureHttpsPort()) + target;
  }
  // Shows these addresses as pictures of one page; "24x16" for each that showed, "none" for each that did not.
  std::string Show(const std::vector<std::string>& urls) {
    std::string page = "<!doctype html><body>";
    for (std::string url : urls) {
      for (std::size_t at = url.find('&'); at != std::string::npos; at = url.find('&', at + 1)) {
        url.replace(at, 1, "&amp;");
      }
      page += "<img src=\"" + url + "\">";
    }
    temp_.Write("page.html", page +
                                 "<output></output><script>window.onload = () => {"
                                 "document.querySelector('output').textContent = Array.from(document.images, i => "
                                 "i.naturalWidth ? i.naturalWidth + 'x' + i.naturalHeight : 'none').join(' ');"
                                 "};</script>");
    const std::string document = Open("file://" + temp_.Path("page.html"));
    const std::size_t begin = document.find("<output>");
    const std::size_t end = document.find("</output>");
    return end == std::string::npos ? "no page: " + document : document.substr(begin + 8, end - begin - 8);
  }

  std::string browser_;
};

TEST_F(PictureBrowserTest, SignedLinksShowPicturesOfEveryKind) {
  const std::string jpeg = Store(SamplePicture("sample.jpg"));
  const std::string png = Store(SamplePicture("sample.png"));
  const std::string webp = Store(SamplePicture("sample.webp"));
  std::string changed = SignedLink(jpeg);
  changed.replace(changed.find("Expires=1"), 9, "Expires=2");
  EXPECT_EQ(Show({Http(SignedLink(jpeg)), Http(SignedLink(png)), Http(SignedLink(webp)), Https(SignedLink(jpeg)),
                  Http(jpeg), Http(changed)}),
            "24x16 20x30 40x10 24x16 none none");
}

TEST_F(PictureBrowserTest, ALinkOpensByItself) {
  const std::string address = Store(SamplePicture("sample.jpg"));
  const std::string shown = Open(Http(SignedLink(address)));
  EXPECT_THAT(shown, HasSubstr("<img "));
  EXPECT_THAT(shown, HasSubstr("24"));
  EXPECT_THAT(shown, HasSubstr("16"));
  const std::string refused = Open(Http(address));
  EXPECT_THAT(refused, Not(HasSubstr("<img ")));
  EXPECT_THAT(refused, HasSubstr("-58002"));
}

}  // namespace
}  // namespace system_tests
