#include "ObjectVersion.h"

#include <charconv>

#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"

namespace Tansy::Cli {
namespace details {
namespace {

ObjectVersion VersionOf(const TansyNet::CHttpClientResponse& answer, const std::string& subject) {
  const std::string text = answer.GetHeader("Object-Size");
  ObjectVersion version;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, version.size);
  if (error != std::errc{} || position != end) {
    throw CFailure(kExitFailed, subject + ": the server does not tell its size", "is this an object server?");
  }
  version.tag = answer.GetHeader("ETag");
  return version;
}

LinkOutcome Ask(const CServerLink& link, const ObjectUrl& url, EPatience patience) {
  return TryPatiently(link, {.resource = url.Path() + "?metadata"}, patience);
}

}  // namespace
}  // namespace details

ObjectVersion AskVersion(const Settings& settings, const ObjectUrl& url, EPatience patience) {
  const CServerLink link(settings);
  const LinkOutcome outcome = details::Ask(link, url, patience);
  if (!outcome.IsDone()) {
    throw link.FailureOf(outcome).About(Printable(url.Path()));
  }
  return details::VersionOf(outcome.answer, Printable(url.Path()));
}

std::optional<ObjectVersion> FindVersion(const Settings& settings, const ObjectUrl& url, EPatience patience) {
  const CServerLink link(settings);
  const LinkOutcome outcome = details::Ask(link, url, patience);
  if (outcome.IsAnswered() && outcome.answer.status == 404 && outcome.ErrorCode() == "NoSuchKey") {
    return std::nullopt;
  }
  if (!outcome.IsDone()) {
    throw link.FailureOf(outcome);
  }
  return details::VersionOf(outcome.answer, Printable(url.Path()));
}

}  // namespace Tansy::Cli
