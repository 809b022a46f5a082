#include "AdminWork.h"

#include <exception>
#include <sstream>
#include <utility>

#include "CheckRequest.h"
#include "HostLog.h"
#include "RunningRequests.h"
#include "ServerFigures.h"
#include "StartFailure.h"
#include "TansyBase/GuidUtil.h"
#include "TansyNet/Operation.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;

constexpr const char* kInfo = "/admin/info";
constexpr const char* kRequests = "/admin/requests";
constexpr const char* kCheck = "/admin/check";

TansyNet::COperation work_operation{"admin", "Work"};

constexpr std::size_t kMostOutput = std::size_t{1} << 20;

// Leaves lines out before the last one, which sums up, when the text is very long: a check of a spoilt store may write
// millions of them.
std::string Shortened(const std::string& text) {
  if (text.size() <= kMostOutput) {
    return text;
  }
  const std::size_t end = text.rfind('\n', kMostOutput) + 1;
  const std::size_t last = text.rfind('\n', text.size() - 2) + 1;
  return text.substr(0, end) + "... more of them, which tansyd --check shows ...\n" + text.substr(last);
}

std::string Problem(const std::string& words) {
  CRapidJsonProto json;
  json.SetString("/error", words);
  return json.Serialize();
}

}  // namespace
}  // namespace details

bool CAdminWork::Take(std::int32_t handle, const TansyNet::HttpServerRecv& message) {
  if (message.url != details::kInfo && message.url != details::kRequests && message.url != details::kCheck) {
    return false;
  }
  TansyNet::BeginOperation(message.note, details::work_operation);
  Answer answer;
  try {
    answer = AnswerTo(message.method, message.url, message.body == nullptr ? std::string() : *message.body);
  } catch (const std::exception& error) {
    HOST_LOG(logging::kError, "[%s]request failed: %s.[%s(%d)]", error.what());
    answer = {500, details::Problem("failed, see the log")};
  }
  TansyNet::HttpResponse response;
  response.status = answer.status;
  response.content_type = "application/json";
  response.cache_control = "no-store";
  response.headers["X-Content-Type-Options"] = "nosniff";
  const std::string body = answer.json + "\n";
  TansyNet::CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(body.size()), body.data());
  return true;
}

CAdminWork::Answer CAdminWork::AnswerTo(const std::string& method, const std::string& path, const std::string& body) {
  if (path == details::kCheck && method == "POST") {
    return BeginCheck(body);
  }
  if (method != "GET") {
    return {405,
            details::Problem("there are GET of /admin/info, /admin/requests and /admin/check, and POST of the last")};
  }
  if (path == details::kInfo) {
    return {200, ServerFiguresJson(source_())};
  }
  return path == details::kRequests ? Answer{200, RunningRequestsJson()} : ShowCheck();
}

CAdminWork::Answer CAdminWork::BeginCheck(const std::string& body) {
  details::CRapidJsonProto asked;
  if (!asked.Parse(body)) {
    return {400, details::Problem("send JSON")};
  }
  if (is_node_) {
    return {409, details::Problem("only the other nodes know what they are writing: stop all nodes, then run tansyd "
                                  "--check")};
  }
  CheckOptions options;
  options.repair = asked.GetString("/repair") == "true";
  options.force = asked.GetString("/force") == "true";
  {
    const std::lock_guard lock(mutex_);
    if (is_running_ || is_stopping_) {
      return {409, details::Problem("another check is under way: wait for its end")};
    }
    if (checker_.joinable()) {
      checker_.join();  // it has ended
    }
    checker_ = std::thread([this, options] { RunCheck(options); });
    is_running_ = true;
    id_ = TansyBase::GuidUtil::CreateGuid();
  }
  return ShowCheck();
}

CAdminWork::Answer CAdminWork::ShowCheck() {
  const std::lock_guard lock(mutex_);
  details::CRapidJsonProto json;
  json.SetBool("/running", is_running_);
  const bool has_ended = !is_running_ && !id_.empty();
  json.SetString("/id", id_);
  json.SetBool("/done", has_ended);
  if (has_ended) {
    json.SetInt("/exit", exit_code_);
    json.SetString("/output", output_);
  }
  return {200, json.Serialize()};
}

void CAdminWork::RunCheck(const CheckOptions& options) {
  int exit_code = kExitFailed;
  std::string output;
  try {
    std::ostringstream out;
    exit_code = AskForCheck(
        options, [this] { return !is_stopping_; }, out);
    output = details::Shortened(std::move(out).str());
  } catch (const std::exception& error) {
    exit_code = kExitFailed;
    output = std::string("check: ") + error.what() + '\n';
  }
  const std::lock_guard lock(mutex_);
  exit_code_ = exit_code;
  output_ = std::move(output);
  is_running_ = false;
}

void CAdminWork::Stop() {
  is_stopping_ = true;
  std::thread checker;
  {
    const std::lock_guard lock(mutex_);
    checker.swap(checker_);
  }
  if (checker.joinable()) {
    checker.join();
  }
}

}  // namespace Tansy::Host
