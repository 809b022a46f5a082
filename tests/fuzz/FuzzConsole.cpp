// links: TansyHost TansyNet TansyProto
// What strangers and browsers send to the console: the headers Host, Cookie and Accept-Encoding in the first three
// lines of the input, behind them a request for links.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ConsoleApi.h"
#include "ConsolePage.h"
#include "ConsolePlace.h"
#include "Require.h"
#include "TansyNet/S3Signing.h"
#include "TansyProto/RapidJsonProto.h"

namespace {

using namespace Tansy::Host;
using TansyNet::Headers;
using TansyProto::CRapidJsonProto;

constexpr const char* kHost = "nas:9703";
const ConsolePlace kPlace{"http://nas:9703", "nas:9702", "http://nas:9702"};

std::string TakeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  std::string line(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

bool IsUrlText(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~:/?=&%[]").find(c) != std::string_view::npos;
  });
}

// Nothing but a host gets into the rules of the page.
void CheckPlace(const std::string& host) {
  for (const bool is_secure : {false, true}) {
    const auto place = FindConsolePlace(host, is_secure, 9702, 9745);
    if (place.has_value()) {
      const std::string policy = ConsolePolicy(*place);
      constexpr int kRules = 10;
      Require(std::count(policy.begin(), policy.end(), ';') == kRules);
      Require(IsUrlText(place->s3) && place->s3.starts_with(is_secure ? "https://" : "http://"));
    }
  }
}

ConsoleSources Sources() {
  ConsoleSources sources;
  sources.s3_region = "us-east-1";
  sources.find_key = [](const std::string& name) {
    return name == "admin" ? std::optional(ConsoleKey{"admin", "secret", true, {}, true}) : std::nullopt;
  };
  return sources;
}

ConsoleAnswer Ask(CConsoleApi& api, const char* method, const char* path, const std::string& body,
                  const Headers& headers) {
  const ConsoleAnswer answer = api.Answer({method, path, "", "192.0.2.1", body, headers, false}, path, kPlace);
  CRapidJsonProto json;
  Require(json.Parse(answer.body));
  Require((answer.status == 200) != json.Has("/error"));
  return answer;
}

std::string Text(const ConsoleAnswer& answer, const char* path) {
  CRapidJsonProto json;
  json.Parse(answer.body);
  return json.GetString(path);
}

// One server for all inputs, at which somebody has signed in.
struct Console {
  CConsoleApi api{Sources()};
  Headers headers = {{"Host", kHost}, {"Content-Type", "application/json"}};

  Console() {
    const std::string nonce = Text(Ask(api, "GET", "challenge", "", headers), "/nonce");
    const std::string proof = TansyNet::S3Signing::ToHex(TansyNet::S3Signing::HmacSha256("secret", nonce + "\nadmin"));
    const ConsoleAnswer answer =
        Ask(api, "POST", "session", R"({"key":"admin","nonce":")" + nonce + R"(","proof":")" + proof + "\"}", headers);
    Require(answer.status == 200);
    const std::string cookie = answer.headers.at("Set-Cookie");
    headers["Cookie"] = cookie.substr(0, cookie.find(';'));
    headers["X-CSRF-Token"] = Text(answer, "/csrf");
  }
};

void CheckLinks(Console& console, const std::string& request) {
  const ConsoleAnswer answer = Ask(console.api, "POST", "sign", request, console.headers);
  if (answer.status != 200) {
    return;
  }
  CRapidJsonProto json;
  json.Parse(answer.body);
  const auto check = [](const std::string& link) { Require(link.starts_with(kPlace.s3 + "/") && IsUrlText(link)); };
  if (json.Has("/url")) {
    check(json.GetString("/url"));
  }
  for (std::size_t i = 1; i <= json.GetCount("/urls"); ++i) {
    check(json.GetString("/urls[" + std::to_string(i) + "]"));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Console console;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckPlace(TakeLine(input));
  const Headers stranger = {{"Host", kHost}, {"Content-Type", "application/json"}, {"Cookie", TakeLine(input)}};
  TakesGzip(TakeLine(input));
  const std::string body(input);
  Require(Ask(console.api, "GET", "session", "", stranger).status == 401);
  Require(Ask(console.api, "POST", "sign", body, stranger).status != 200);
  CheckLinks(console, body);
  return 0;
}
