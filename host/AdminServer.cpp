#include "AdminServer.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "Addresses.h"
#include "AdminSignature.h"
#include "Console.h"
#include "HostLog.h"
#include "IpAddress.h"
#include "RunningRequests.h"
#include "StartFailure.h"
#include "TansyBase/Encrypt.h"
#include "TansyBase/TimeUtil.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/Operation.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyNet::HttpResponse;
using TansyNet::HttpServerRecv;

constexpr std::string_view kSignedFolder = "/admin/";
constexpr const char* kJson = "application/json";
constexpr const char* kPlain = "text/plain; charset=utf-8";
constexpr const char* kPrometheus = "text/plain; version=0.0.4; charset=utf-8";

struct State {
  CAdminServer::Source source;
  std::string authorization;  // what a caller from elsewhere must send
  AdminOptions options;
  std::shared_ptr<CConsole> console;
};

// Requests may still be under way when the server has been stopped, so each holds what it needs.
class CPresentState {
 public:
  void Set(std::shared_ptr<const State> state) {
    const std::scoped_lock lock(mutex_);
    state_ = std::move(state);
  }
  std::shared_ptr<const State> Get() {
    const std::scoped_lock lock(mutex_);
    return state_;
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<const State> state_;
};

CPresentState present_state;

using Answer = ConsoleAnswer;

Answer Plainly(int status, const char* type, std::string body) {
  Answer answer;
  answer.status = status;
  answer.type = type;
  answer.body = std::move(body);
  return answer;
}

Answer ShowLive(const State& /*state*/) {
  return Plainly(200, kPlain, "live\n");
}

Answer ShowReady(const State& state) {
  const HealthReport health = state.source().health;
  TansyProto::CRapidJsonProto json;
  json.SetString("/status", health.IsWell() ? "ready" : "not ready");
  for (const HealthPart& part : health.parts) {
    json.SetString("/parts/" + part.name, part.trouble.empty() ? "well" : part.trouble);
  }
  constexpr int kUnavailable = 503;
  return Plainly(health.IsWell() ? 200 : kUnavailable, kJson, json.Serialize() + "\n");
}

Answer ShowMetrics(const State& state) {
  return Plainly(200, kPrometheus, MetricsText(state.source()));
}

Answer ShowRequests(const State& /*state*/) {
  return Plainly(200, kJson, RunningRequestsJson());
}

struct AdminOperations {
  using COperation = TansyNet::COperation;
  static constexpr const char* kService = "admin";

  static inline COperation other{kService, "Other"};
  static inline COperation live{kService, "Live"};
  static inline COperation ready{kService, "Ready"};
  static inline COperation metrics{kService, "Metrics"};
  static inline COperation requests{kService, "Requests"};
  static inline COperation console{kService, "Console"};
  static inline COperation console_api{kService, "ConsoleApi"};
};

struct Route {
  std::string_view path;
  Answer (*show)(const State& state);
  TansyNet::COperation& operation;
  bool is_open = false;  // for everybody: it tells nothing but that the server is there
};

constexpr std::array kRoutes = {
    Route{"/health/live", &ShowLive, AdminOperations::live, true},
    Route{"/health/ready", &ShowReady, AdminOperations::ready},
    Route{"/metrics", &ShowMetrics, AdminOperations::metrics},
    Route{"/debug/requests", &ShowRequests, AdminOperations::requests},
};

bool IsOfThisMachine(const std::string& ip) {
  const std::optional<IpAddress> address = ParseIpAddress(ip);
  return address.has_value() && address->is_loopback;
}

// The time that it takes does not tell how much of the text was right.
bool IsAllowed(const State& state, const HttpServerRecv& message) {
  if (IsOfThisMachine(message.ip)) {
    return true;
  }
  const auto sent = message.headers.find("Authorization");
  return sent != message.headers.end() && sent->second.size() == state.authorization.size() &&
         CRYPTO_memcmp(sent->second.data(), state.authorization.data(), state.authorization.size()) == 0;
}

void Send(std::int32_t handle, const HttpServerRecv& message, Answer& answer) {
  HttpResponse response;
  response.status = answer.status;
  response.content_type = std::move(answer.type);
  response.content_encoding = std::move(answer.encoding);
  response.cache_control = std::move(answer.cache);
  response.headers = std::move(answer.headers);
  response.headers["X-Content-Type-Options"] = "nosniff";
  if (message.method == "HEAD") {
    TansyNet::CHttpServer::HttpServerSendHead(handle, response, answer.body.size());
  } else {
    TansyNet::CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(answer.body.size()),
                                              answer.body.data());
  }
}

Answer AskForKeys() {
  Answer answer = Plainly(401, kPlain, "name the access key as user and the secret key as password\n");
  answer.headers["WWW-Authenticate"] = "Basic realm=\"tansyd\", charset=\"UTF-8\"";
  return answer;
}

Answer LeadToConsole() {
  Answer answer = Plainly(302, kPlain, "see /console/\n");
  answer.headers["Location"] = "/console/";
  return answer;
}

Answer AskConsole(const State& state, const HttpServerRecv& message, bool is_secure) {
  const bool is_api = message.url.starts_with(CConsole::kApiFolder);
  TansyNet::BeginOperation(message.note, is_api ? AdminOperations::console_api : AdminOperations::console);
  return state.console->Answer(
      {message.method, std::string_view(message.url).substr(CConsole::kFolder.size()), message.query, message.ip,
       message.body == nullptr ? std::string_view() : std::string_view(*message.body), message.headers, is_secure});
}

Answer AnswerTo(const HttpServerRecv& message, bool is_secure) {
  const std::shared_ptr<const State> state = present_state.Get();
  if (state == nullptr) {
    return Plainly(503, kPlain, "the server stops\n");
  }
  if (message.url.starts_with(CConsole::kFolder)) {
    return AskConsole(*state, message, is_secure);
  }
  const auto* const route =
      std::find_if(kRoutes.begin(), kRoutes.end(), [&](const Route& row) { return row.path == message.url; });
  TansyNet::BeginOperation(message.note, route == kRoutes.end() ? AdminOperations::other : route->operation);
  const bool is_read = message.method == "GET" || message.method == "HEAD";
  if (is_read && (message.url == "/" || message.url == "/console")) {
    return LeadToConsole();
  }
  if (route == kRoutes.end()) {
    return Plainly(404, kPlain, "there are /console/, /health/live, /health/ready, /metrics and /debug/requests\n");
  }
  if (!is_read) {
    return Plainly(405, kPlain, "only GET and HEAD\n");
  }
  if (!route->is_open && !IsAllowed(*state, message)) {
    return AskForKeys();
  }
  return route->show(*state);
}

void SendPlainly(std::int32_t handle, const HttpServerRecv& message, int status, const char* words) {
  Answer answer = Plainly(status, kPlain, words);
  Send(handle, message, answer);
}

// Nobody is let in without a signature here, not even from this machine: other users may be on it.
void TakeSigned(std::int32_t handle, HttpServerRecv& message) {
  const std::shared_ptr<const State> state = present_state.Get();
  TansyNet::BeginOperation(message.note, AdminOperations::other);
  if (state == nullptr || !state->options.signed_requests) {
    SendPlainly(handle, message, 503, "the server stops\n");
  } else if (!IsSigned(message, state->options.keys, TansyBase::TimeUtil::Now())) {
    SendPlainly(handle, message, 403, "sign the request with the server's keys, and look whether the clock is right\n");
  } else {
    state->options.signed_requests(handle, message);
  }
}

void Take(std::int32_t handle, HttpServerRecv& message, bool is_secure) {
  // A body in pieces is for no route; the last piece is answered, the others are thrown away.
  if (message.error_code == TansyNet::kBodyPiece) {
    return;
  }
  Answer answer;
  try {
    if (message.url.starts_with(kSignedFolder)) {
      TakeSigned(handle, message);
      return;
    }
    answer = AnswerTo(message, is_secure);
  } catch (const std::exception& error) {
    HOST_LOG(logging::kError, "[%s]request failed: %s.[%s(%d)]", error.what());
    answer = Plainly(500, kPlain, "failed, see the log\n");
  }
  Send(handle, message, answer);
}

void TakePlainRequest(std::int32_t handle, HttpServerRecv& message) {
  Take(handle, message, false);
}

void TakeSecureRequest(std::int32_t handle, HttpServerRecv& message) {
  Take(handle, message, true);
}

bool IsLoopback(const std::string& address) {
  const std::optional<IpAddress> parsed = ParseIpAddress(address);
  return parsed.has_value() && parsed->is_loopback;
}

int Listen(std::int32_t& handle, const AdminOptions& options, const std::string& address) {
  if (IsLoopback(address)) {
    return TansyNet::CHttpServer::StartHttpServer(handle, address, options.port, &TakePlainRequest, true);
  }
  TansyNet::HttpsServer tls;
  tls.certificate_path = tls.private_key_path = options.certificate;
  return TansyNet::CHttpServer::StartHttpsServer(handle, address, options.port, tls, &TakeSecureRequest);
}

}  // namespace
}  // namespace details

CAdminServer::CAdminServer(const AdminOptions& options, Source source, std::shared_ptr<CConsole> console) {
  auto state = std::make_shared<details::State>();
  state->source = std::move(source);
  state->console = std::move(console);
  state->authorization =
      "Basic " + TansyBase::Encrypt::Base64Encode(options.keys.access_key + ":" + options.keys.secret_key);
  state->options = options;
  details::present_state.Set(std::move(state));
  for (const std::string& address : options.addresses) {
    std::int32_t handle = 0;
    if (details::Listen(handle, options, address) != 0) {
      const std::string reason = TansyNet::CHttpServer::LastError();
      details::present_state.Set(nullptr);
      for (const std::int32_t each : listeners_) {
        TansyNet::CHttpServer::StopServer(each);
      }
      throw CStartFailure(kExitFailed, "admin listener cannot be opened: " + reason);
    }
    listeners_.push_back(handle);
  }
}

CAdminServer::~CAdminServer() {
  for (const std::int32_t each : listeners_) {
    TansyNet::CHttpServer::StopServer(each);
  }
  details::present_state.Set(nullptr);
}

}  // namespace Tansy::Host
