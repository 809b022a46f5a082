#include "S3Link.h"

#include <utility>

#include "Output.h"
#include "Persistence.h"
#include "S3Signer.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr char kAdviceNoDoor[] = "start tansyd with --s3-port, or name the address with s3_url in the configuration";

std::string TargetOf(const S3Request& request) {
  std::string target = "/";
  if (!request.path.bucket.empty()) {
    target += TansyNet::S3Signing::PercentEncode(request.path.bucket);
    if (!request.path.key.empty()) {
      target += "/" + TansyNet::S3Signing::PercentEncodePath(request.path.key);
    }
  }
  const std::string query = TansyNet::S3Signing::QueryText(request.query);
  return query.empty() ? target : target + "?" + query;
}

bool IsSuccess(int status) {
  return status >= 200 && status < 300;
}

}  // namespace
}  // namespace details

bool IsDone(const LinkOutcome& outcome) {
  return outcome.IsAnswered() && details::IsSuccess(outcome.answer.status);
}

CS3Link::CS3Link(const Settings& settings, std::string_view service)
    : address_(S3Server(settings)),
      access_key_(settings.access_key),
      secret_key_(settings.secret_key),
      service_(service),
      region_(settings.s3_region) {}

TansyNet::CHttpClientRequest CS3Link::Signed(const S3Request& request, const std::string& region) const {
  TansyNet::CHttpClientRequest outgoing;
  outgoing.method = request.method;
  outgoing.url = address_.Url() + details::TargetOf(request);
  outgoing.body = request.body.empty() ? nullptr : request.body.data();
  outgoing.body_size = request.body.size();
  outgoing.max_body_bytes = kMaxAnswerBytes;
  outgoing.send_timeout_ms = request.patience_ms;
  outgoing.receive_timeout_ms = request.patience_ms;
  const S3Keys keys{access_key_, secret_key_, region, service_};
  for (const auto& [name, value] : SignedS3Headers(request, address_.HostAndPort(), keys)) {
    outgoing.headers.emplace(name, value);
  }
  return outgoing;
}

std::string CS3Link::Region() const {
  const std::lock_guard lock(mutex_);
  return region_;
}

bool CS3Link::LearnRegion(const LinkOutcome& outcome, const std::string& signed_for) const {
  if (outcome.answer.status != 400) {
    return false;
  }
  std::string region;
  if (outcome.answer.body.empty()) {  // that of a HEAD
    region = outcome.answer.GetHeader("x-amz-bucket-region");
  } else if (outcome.ErrorCode() == "AuthorizationHeaderMalformed") {
    TansyProto::CXmlProto xml;
    region = xml.Parse(outcome.answer.body) ? xml.GetString("/Error/Region") : "";
  }
  if (region.empty()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  region_ = region;
  return region != signed_for;  // another thread may have learnt it meanwhile
}

LinkOutcome CS3Link::SendWithRegion(
    const S3Request& request,
    const std::function<LinkOutcome(const TansyNet::CHttpClientRequest& signed_one)>& send) const {
  const std::string region = Region();
  LinkOutcome outcome = send(Signed(request, region));
  if (LearnRegion(outcome, region)) {
    outcome = send(Signed(request, Region()));
  }
  if (outcome.IsAnswered()) {
    is_reached_ = true;
  }
  return outcome;
}

LinkOutcome CS3Link::Try(const S3Request& request) const {
  return SendWithRegion(request, [](const TansyNet::CHttpClientRequest& signed_one) {
    LinkOutcome outcome;
    TansyNet::HttpClient().Send(signed_one, &outcome.answer, &outcome.error);
    return outcome;
  });
}

LinkOutcome CS3Link::TryPatiently(const S3Request& request, const std::atomic<bool>* stop) const {
  return Persist([&] { return Try(request); },
                 [&](const LinkOutcome& outcome) { return !IsDone(outcome) && is_reached_; }, stop);
}

LinkOutcome CS3Link::Stream(const S3Request& request, const TakeHead& head, const TakeBytes& take) const {
  return SendWithRegion(request, [&](const TansyNet::CHttpClientRequest& signed_one) {
    return StreamAnswer(signed_one, details::IsSuccess, head, take);
  });
}

CFailure CS3Link::FailureOf(const LinkOutcome& outcome) const {
  if (outcome.IsAnswered()) {
    return FailureOfAnswer(outcome.answer.status, outcome.ErrorCode(), address_.Url());
  }
  const CFailure failure = FailureOfExchange(outcome.error, address_.Url());
  return is_reached_ || outcome.error.kind != TansyNet::HttpClient::kConnect
             ? failure
             : CFailure(failure.GetExitCode(), failure.what(),
                        std::string("is the server running, and has it an S3 door? ") + details::kAdviceNoDoor);
}

TansyNet::CHttpClientResponse CS3Link::Request(const S3Request& request, const std::string& subject) const {
  LinkOutcome outcome = TryPatiently(request);
  if (!IsDone(outcome)) {
    throw FailureOf(outcome).About(subject);
  }
  return std::move(outcome.answer);
}

}  // namespace Tansy::Cli
