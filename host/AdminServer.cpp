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
#include "HostLog.h"
#include "IpAddress.h"
#include "StartFailure.h"
#include "TansyBase/Encrypt.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/Operation.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyNet::HttpResponse;
using TansyNet::HttpServerRecv;

constexpr const char* kJson = "application/json";
constexpr const char* kPlain = "text/plain; charset=utf-8";
constexpr const char* kPrometheus = "text/plain; version=0.0.4; charset=utf-8";

struct State {
  CAdminServer::Source source;
  std::string authorization;  // what a caller from elsewhere must send
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

struct Answer {
  int status = 200;
  const char* type = kPlain;
  std::string body;
};

Answer ShowLive(const State& /*state*/) {
  return {200, kPlain, "live\n"};
}

Answer ShowReady(const State& state) {
  const HealthReport health = state.source().health;
  TansyProto::CRapidJsonProto json;
  json.SetString("/status", health.IsWell() ? "ready" : "not ready");
  for (const HealthPart& part : health.parts) {
    json.SetString("/parts/" + part.name, part.trouble.empty() ? "well" : part.trouble);
  }
  constexpr int kUnavailable = 503;
  return {health.IsWell() ? 200 : kUnavailable, kJson, json.Serialize() + "\n"};
}

Answer ShowMetrics(const State& state) {
  return {200, kPrometheus, MetricsText(state.source())};
}

// Links carry what signs them in their query, which is never shown.
Answer ShowRequests(const State& /*state*/) {
  constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
  TansyProto::CRapidJsonProto json;
  const auto running = TansyNet::CHttpServer::RunningRequests();
  json.SetInt("/count", static_cast<std::int64_t>(running.size()));
  constexpr std::size_t kMost = 1000;
  for (std::size_t i = 0; i < std::min(running.size(), kMost); ++i) {
    const TansyNet::RunningRequest& request = running[i];
    const std::string at = "/requests[" + std::to_string(i + 1) + "]/";
    json.SetString(at + "request", request.line);
    json.SetString(at + "service", request.operation == nullptr ? "" : request.operation->Service());
    json.SetString(at + "operation", request.operation == nullptr ? "" : request.operation->Name());
    json.SetString(at + "phase", request.phase);
    json.SetString(at + "peer", request.ip);
    json.SetInt(at + "age_ms", request.nanoseconds / kNanosecondsPerMillisecond);
    json.SetInt(at + "bytes_in", static_cast<std::int64_t>(request.bytes_in));
  }
  return {200, kJson, json.Serialize() + "\n"};
}

struct AdminOperations {
  using COperation = TansyNet::COperation;
  static constexpr const char* kService = "admin";

  static inline COperation other{kService, "Other"};
  static inline COperation live{kService, "Live"};
  static inline COperation ready{kService, "Ready"};
  static inline COperation metrics{kService, "Metrics"};
  static inline COperation requests{kService, "Requests"};
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

void Send(std::int32_t handle, const HttpServerRecv& message, const Answer& answer) {
  HttpResponse response;
  response.status = answer.status;
  response.content_type = answer.type;
  response.cache_control = "no-store";
  response.headers["X-Content-Type-Options"] = "nosniff";
  constexpr int kUnauthorized = 401;
  if (answer.status == kUnauthorized) {
    response.headers["WWW-Authenticate"] = "Basic realm=\"tansyd\", charset=\"UTF-8\"";
  }
  if (message.method == "HEAD") {
    TansyNet::CHttpServer::HttpServerSendHead(handle, response, answer.body.size());
  } else {
    TansyNet::CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(answer.body.size()),
                                              answer.body.data());
  }
}

Answer AnswerTo(const HttpServerRecv& message) {
  const std::shared_ptr<const State> state = present_state.Get();
  if (state == nullptr) {
    return {503, kPlain, "the server stops\n"};
  }
  const auto* const route =
      std::find_if(kRoutes.begin(), kRoutes.end(), [&](const Route& row) { return row.path == message.url; });
  TansyNet::BeginOperation(message.note, route == kRoutes.end() ? AdminOperations::other : route->operation);
  if (route == kRoutes.end()) {
    return {404, kPlain, "there are /health/live, /health/ready, /metrics and /debug/requests\n"};
  }
  if (message.method != "GET" && message.method != "HEAD") {
    return {405, kPlain, "only GET and HEAD\n"};
  }
  if (!route->is_open && !IsAllowed(*state, message)) {
    return {401, kPlain, "name the access key as user and the secret key as password\n"};
  }
  return route->show(*state);
}

void TakeRequest(std::int32_t handle, HttpServerRecv& message) {
  // A body in pieces is for no route; the last piece is answered, the others are thrown away.
  if (message.error_code == TansyNet::kBodyPiece) {
    return;
  }
  Answer answer;
  try {
    answer = AnswerTo(message);
  } catch (const std::exception& error) {
    HOST_LOG(logging::kError, "[%s]request failed: %s.[%s(%d)]", error.what());
    answer = {500, kPlain, "failed, see the log\n"};
  }
  Send(handle, message, answer);
}

bool IsLoopback(const std::string& address) {
  const std::optional<IpAddress> parsed = ParseIpAddress(address);
  return parsed.has_value() && parsed->is_loopback;
}

int Listen(std::int32_t& handle, const AdminOptions& options, const std::string& address) {
  if (IsLoopback(address)) {
    return TansyNet::CHttpServer::StartHttpServer(handle, address, options.port, &TakeRequest, true);
  }
  TansyNet::HttpsServer tls;
  tls.certificate_path = tls.private_key_path = options.certificate;
  return TansyNet::CHttpServer::StartHttpsServer(handle, address, options.port, tls, &TakeRequest);
}

}  // namespace
}  // namespace details

CAdminServer::CAdminServer(AdminOptions options, Source source) {
  auto state = std::make_shared<details::State>();
  state->source = std::move(source);
  state->authorization =
      "Basic " + TansyBase::Encrypt::Base64Encode(options.keys.access_key + ":" + options.keys.secret_key);
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
