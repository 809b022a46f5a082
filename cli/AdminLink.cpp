#include "AdminLink.h"

#include "Output.h"
#include "ServerLink.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Requests to the admin port are signed as those of the S3 protocol are, for a service of its own and with any region.
Settings SettingsOfAdmin(const Settings& settings) {
  Settings admin = settings;
  admin.s3_server = AdminServer(settings);
  return admin;
}

EExitCode ExitCodeOf(int status) {
  switch (status) {
    case 400:
      return kExitUsage;
    case 401:
    case 403:
      return kExitDenied;
    case 404:
      return kExitNotFound;
    default:
      return kExitFailed;
  }
}

}  // namespace
}  // namespace details

CAdminLink::CAdminLink(const Settings& settings)
    : link_(details::SettingsOfAdmin(settings), TansyNet::S3Signing::kAdminService) {}

std::string CAdminLink::Request(const std::string& method, const std::string& path, const std::string& body) const {
  const LinkOutcome outcome = link_.Try({.method = method, .path = {"admin", path}, .body = body});
  if (!IsDone(outcome)) {
    throw FailureOf(outcome);
  }
  return outcome.answer.body;
}

CFailure CAdminLink::FailureOf(const LinkOutcome& outcome) const {
  if (!outcome.IsAnswered()) {
    const CFailure failure = FailureOfExchange(outcome.error, link_.Address().Url());
    return {failure.GetExitCode(), failure.what(),
            "is the server running, and is this its admin port? TANSY_ADMIN_URL names another one"};
  }
  TansyProto::CRapidJsonProto json;
  const std::string words = json.Parse(outcome.answer.body) ? json.GetString("/error") : "";
  const int status = outcome.answer.status;
  if (!words.empty()) {
    return {details::ExitCodeOf(status), Printable(words), ""};
  }
  return {details::ExitCodeOf(status), link_.Address().Url() + " answered " + std::to_string(status),
          status == 403 ? "only the server's own keys may do this; are they right, and is the clock?"
                        : "is this the admin port of a tansyd that knows the request?"};
}

}  // namespace Tansy::Cli
