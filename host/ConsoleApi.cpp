#include "ConsoleApi.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

#include "ConsoleFigures.h"
#include "ConsoleLink.h"
#include "RunningRequests.h"
#include "StartFailure.h"
#include "TansyBase/TimeUtil.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;

constexpr const char* kJson = "application/json";
constexpr std::string_view kCookie = "tansy_session";

ConsoleAnswer JsonAnswer(std::string body) {
  ConsoleAnswer answer;
  answer.type = kJson;
  answer.body = std::move(body);
  return answer;
}

ConsoleAnswer JsonAnswer(const CRapidJsonProto& json) {
  return JsonAnswer(json.Serialize() + "\n");
}

// Gives the number that a query begins with under this name; 0 when there is none.
std::uint64_t NumberOf(std::string_view query, std::string_view name) {
  std::uint64_t number = 0;
  const std::string begin = std::string(name) + "=";
  if (query.starts_with(begin)) {
    query.remove_prefix(begin.size());
    std::from_chars(query.data(), query.data() + query.size(), number);
  }
  return number;
}

// Gives the value of a cookie, the first of that name; "" when there is none.
std::string_view CookieOf(std::string_view cookies, std::string_view name) {
  while (!cookies.empty()) {
    const std::size_t end = std::min(cookies.find(';'), cookies.size());
    std::string_view pair = cookies.substr(0, end);
    cookies.remove_prefix(std::min(end + 1, cookies.size()));
    pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
    if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=') {
      return pair.substr(name.size() + 1);
    }
  }
  return {};
}

std::string SessionCookie(const std::string& token, std::int64_t seconds, bool is_secure) {
  return std::string(kCookie) + "=" + token +
         "; Path=/console/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(seconds) +
         (is_secure ? "; Secure" : "");
}

// The time that it takes does not tell how much of the text was right.
bool IsEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// Browsers say for which page they ask. Other programs say nothing, and have no cookie that they do not own.
bool IsOfAnotherPage(const ConsoleRequest& request) {
  const std::string_view origin = request.Header("Origin");
  const std::string_view host = request.Header("Host");
  if (!origin.empty() && origin != "http://" + std::string(host) && origin != "https://" + std::string(host)) {
    return true;
  }
  const std::string_view site = request.Header("Sec-Fetch-Site");
  return !site.empty() && site != "same-origin" && site != "none";
}

void SetTexts(CRapidJsonProto& json, const std::string& path, const std::vector<std::string>& texts) {
  json.SetList(path);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    json.SetString(path + "[" + std::to_string(i + 1) + "]", texts[i]);
  }
}

ConsoleAnswer AnswerSession(const ConsoleSession& session) {
  CRapidJsonProto json;
  json.SetString("/csrf", session.csrf);
  json.SetString("/key", session.key.name);
  json.SetInt("/expires", session.expires);
  json.SetBool("/read_only", !session.key.may_write);
  json.SetBool("/operator", session.key.is_operator);
  SetTexts(json, "/buckets", session.key.buckets);
  return JsonAnswer(json);
}

const char* ResultName(int exit_code) {
  switch (exit_code) {
    case kExitDone:
      return "well";
    case kExitFindings:
      return "findings";
    default:
      return "failed";
  }
}

ConsoleAnswer AnswerCheck(const COnlineCheck::State& check) {
  CRapidJsonProto json;
  json.SetBool("/running", check.is_running);
  json.SetInt("/started", check.started);
  json.SetInt("/ended", check.ended);
  json.SetInt("/looked_at", static_cast<std::int64_t>(check.looked_at));
  json.SetString("/result", check.ended == 0 ? "" : ResultName(check.exit_code));
  json.SetInt("/findings", static_cast<std::int64_t>(check.findings));
  SetTexts(json, "/lines", check.first_findings);
  json.SetString("/summary", check.summary);
  return JsonAnswer(json);
}

ConsoleAnswer HasNoCheck() {
  return ConsoleFailure(409, "several nodes share this storage: run tansyd --check on one of them");
}

LinkToSign ReadLink(const CRapidJsonProto& json, const std::string& at) {
  LinkToSign link;
  link.method = json.GetString(at + "/method");
  link.bucket = json.GetString(at + "/bucket");
  link.key = json.GetString(at + "/key");
  link.query = json.GetMembers(at + "/query");
  link.headers = json.GetMembers(at + "/headers");
  link.seconds = json.GetInt(at + "/expires");
  return link;
}

}  // namespace
}  // namespace details

// A request on its way.
struct CConsoleApi::Call {
  const ConsoleRequest& request;
  const ConsolePlace& place;
  std::string_view token;                 // as its cookie names the session
  std::optional<ConsoleSession> session;  // empty when nobody has signed in
};

struct CConsoleApi::Route {
  std::string_view method;
  std::string_view path;
  ConsoleAnswer (CConsoleApi::*answer)(const Call& call);
  bool is_open = false;  // also for who has not signed in
  bool needs_csrf = false;
  bool needs_operator = false;
};

struct CConsoleApi::Routes {
  static constexpr std::array kTable = {
      Route{"GET", "challenge", &CConsoleApi::Challenge, true},
      Route{"POST", "session", &CConsoleApi::SignIn, true},
      Route{"GET", "session", &CConsoleApi::ShowSession},
      Route{"DELETE", "session", &CConsoleApi::SignOut},
      Route{"POST", "sign", &CConsoleApi::Sign, false, true},
      Route{"GET", "overview", &CConsoleApi::ShowFigures},
      Route{"GET", "buckets", &CConsoleApi::ShowBuckets},
      Route{"GET", "requests", &CConsoleApi::ShowRequests, false, false, true},
      Route{"GET", "settings", &CConsoleApi::ShowSettings, false, false, true},
      Route{"GET", "log", &CConsoleApi::ShowLog, false, false, true},
      Route{"POST", "check", &CConsoleApi::StartCheck, false, true, true},
      Route{"GET", "check", &CConsoleApi::ShowCheck, false, false, true},
  };
};

CConsoleApi::CConsoleApi(ConsoleSources sources) : sources_(std::move(sources)), sessions_(sources_.find_key) {}

ConsoleAnswer CConsoleApi::Answer(const ConsoleRequest& request, std::string_view path, const ConsolePlace& place) {
  if (details::IsOfAnotherPage(request)) {
    return ConsoleFailure(403, "only the console's own page may ask");
  }
  if (request.body.size() > kLongestBody) {
    return ConsoleFailure(413, "send at most 64 KiB at once");
  }
  const auto named = [path](const Route& row) { return row.path == path; };
  if (std::none_of(Routes::kTable.begin(), Routes::kTable.end(), named)) {
    return ConsoleFailure(404, "there is nothing of this name: open the console again");
  }
  const auto* const route = std::find_if(Routes::kTable.begin(), Routes::kTable.end(),
                                         [&](const Route& row) { return named(row) && row.method == request.method; });
  if (route == Routes::kTable.end()) {
    return ConsoleFailure(405, "this cannot be done with that method");
  }
  if (!request.body.empty() && !request.Header("Content-Type").starts_with(details::kJson)) {
    return ConsoleFailure(415, "send JSON, with its content type");
  }
  Call call{request, place, details::CookieOf(request.Header("Cookie"), details::kCookie), std::nullopt};
  // A page that looks by itself says so, because the session of somebody who has left ends by itself.
  call.session = sessions_.Find(call.token, request.Header("X-Tansy-Poll").empty());
  if (!route->is_open && !call.session.has_value()) {
    return ConsoleFailure(401, "sign in");
  }
  if (route->needs_csrf && !details::IsEqual(request.Header("X-CSRF-Token"), call.session->csrf)) {
    return ConsoleFailure(403, "the request lacks the session's token: load the page again");
  }
  if (route->needs_operator && !call.session->key.is_operator) {
    return ConsoleFailure(403, "this key may not see how the server is run: sign in with the server's own key");
  }
  return (this->*route->answer)(call);
}

ConsoleAnswer CConsoleApi::Challenge(const Call& /*call*/) {
  details::CRapidJsonProto json;
  json.SetString("/nonce", sessions_.MakeNonce());
  return details::JsonAnswer(json);
}

ConsoleAnswer CConsoleApi::SignIn(const Call& call) {
  details::CRapidJsonProto json;
  if (!json.Parse(call.request.body)) {
    return ConsoleFailure(400, "the request is no JSON");
  }
  const CConsoleSessions::Result result = sessions_.SignIn(
      {json.GetString("/key"), json.GetString("/nonce"), json.GetString("/proof"), std::string(call.request.ip)});
  if (result.status == 429) {
    ConsoleAnswer answer = ConsoleFailure(429, "too many tries: wait and try again");
    answer.headers["Retry-After"] = std::to_string(result.retry_after);
    return answer;
  }
  if (result.status != 200) {
    return ConsoleFailure(result.status, "access key or secret key is wrong");
  }
  sessions_.End(call.token);  // the one before it, if there was one
  ConsoleAnswer answer = details::AnswerSession(result.session);
  answer.headers["Set-Cookie"] =
      details::SessionCookie(result.token, CConsoleSessions::kLongestSession, call.request.is_secure);
  return answer;
}

ConsoleAnswer CConsoleApi::ShowSession(const Call& call) {
  return details::AnswerSession(*call.session);
}

ConsoleAnswer CConsoleApi::SignOut(const Call& call) {
  sessions_.End(call.token);
  details::CRapidJsonProto json;
  ConsoleAnswer answer = details::JsonAnswer(json);
  answer.headers["Set-Cookie"] = details::SessionCookie("", 0, call.request.is_secure);
  return answer;
}

ConsoleAnswer CConsoleApi::Sign(const Call& call) {
  if (call.place.s3.empty()) {
    return ConsoleFailure(409, call.request.is_secure ? "start tansyd with s3-https-port: this page came by HTTPS"
                                                      : "start tansyd with s3-port");
  }
  // One request or a list of them, which the document takes as a member only.
  details::CRapidJsonProto json;
  if (!json.Parse("{\"all\":" + std::string(call.request.body) + "}")) {
    return ConsoleFailure(400, "the request is no JSON");
  }
  const std::size_t count = json.GetCount("/all");
  if (count > kMostLinks) {
    return ConsoleFailure(400, "ask for at most 1000 links at once");
  }
  const std::size_t begin = call.request.body.find_first_not_of(" \t\r\n");
  const bool is_list = begin != std::string_view::npos && call.request.body[begin] == '[';
  const std::time_t now = TansyBase::TimeUtil::Now();
  details::CRapidJsonProto answer;
  if (is_list) {
    answer.SetList("/urls");
  }
  for (std::size_t i = 1; i <= (is_list ? count : 1); ++i) {
    const std::string index = is_list ? "[" + std::to_string(i) + "]" : "";
    const LinkToSign link = details::ReadLink(json, "/all" + index);
    const std::string trouble = CheckLink(link, call.session->key);
    if (!trouble.empty()) {
      return ConsoleFailure(400, trouble);
    }
    answer.SetString(is_list ? "/urls" + index : "/url",
                     SignLink(link, call.session->key, call.place, sources_.s3_region, now));
  }
  return details::JsonAnswer(answer);
}

ConsoleAnswer CConsoleApi::ShowRequests(const Call& /*call*/) {
  return details::JsonAnswer(RunningRequestsJson());
}

ConsoleAnswer CConsoleApi::ShowFigures(const Call& call) {
  return details::JsonAnswer(ConsoleFigures(sources_.figures(), call.session->key.is_operator));
}

ConsoleAnswer CConsoleApi::ShowBuckets(const Call& call) {
  return details::JsonAnswer(ConsoleBuckets(call.session->key.buckets));
}

ConsoleAnswer CConsoleApi::ShowSettings(const Call& /*call*/) {
  details::CRapidJsonProto json;
  for (const auto& [name, value] : sources_.settings()) {
    json.SetString("/settings/" + name, value);
  }
  return details::JsonAnswer(json);
}

ConsoleAnswer CConsoleApi::ShowLog(const Call& call) {
  std::uint64_t number = details::NumberOf(call.request.query, "after");
  const std::vector<std::string> lines = sources_.log_lines(number);
  details::CRapidJsonProto json;
  json.SetInt("/next", static_cast<std::int64_t>(number));
  details::SetTexts(json, "/lines", lines);
  return details::JsonAnswer(json);
}

ConsoleAnswer CConsoleApi::StartCheck(const Call& /*call*/) {
  if (sources_.check == nullptr) {
    return details::HasNoCheck();
  }
  if (!sources_.check->Start()) {
    return ConsoleFailure(409, "a check runs already: wait for its end");
  }
  return details::AnswerCheck(sources_.check->Get());
}

ConsoleAnswer CConsoleApi::ShowCheck(const Call& /*call*/) {
  return sources_.check == nullptr ? details::HasNoCheck() : details::AnswerCheck(sources_.check->Get());
}

}  // namespace Tansy::Host
