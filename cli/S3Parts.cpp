#include "S3Parts.h"

#include <functional>

#include "S3Text.h"
#include "TansyNet/S3Signing.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::uint32_t kCompletionPatienceMs = 120000;  // the server joins the parts before it answers

CFailure NoAnswer(const CS3Link& link, const char* what) {
  return {kExitFailed, link.Address().Url() + " answered without " + what, "is this the S3 door of an object server?"};
}

TansyProto::CXmlProto XmlOf(const CS3Link& link, const std::string& body, const char* root) {
  TansyProto::CXmlProto xml;
  if (!xml.Parse(body) || !xml.Has(std::string("/") + root)) {
    throw NoAnswer(link, root);
  }
  return xml;
}

}  // namespace
}  // namespace details

// An upload that was begun and never used holds no bytes, and the server sweeps it away, so beginning is repeated.
void CS3Parts::Begin() {
  const LinkOutcome outcome = link_.TryPatiently({.method = "POST", .path = path_, .query = {{"uploads", ""}}});
  if (!IsDone(outcome)) {
    throw link_.FailureOf(outcome);
  }
  id_ = details::XmlOf(link_, outcome.answer.body, "InitiateMultipartUploadResult")
            .GetString("/InitiateMultipartUploadResult/UploadId");
  if (id_.empty()) {
    throw details::NoAnswer(link_, "an upload id");
  }
}

bool CS3Parts::Find(const std::function<bool(const std::map<std::size_t, S3Part>& parts)>& fit) {
  id_.clear();
  for (const std::string& id : UnfinishedUploads()) {
    const std::map<std::size_t, S3Part> parts = ListParts(id);
    if (!parts.empty() && fit(parts)) {
      id_ = id;
      return true;
    }
  }
  return false;
}

// Gives their ids, the newest first.
std::vector<std::string> CS3Parts::UnfinishedUploads() const {
  const LinkOutcome outcome = link_.TryPatiently(
      {.path = {path_.bucket, ""}, .query = {{"uploads", ""}, {"prefix", path_.key}, {"encoding-type", "url"}}});
  if (!IsDone(outcome)) {
    throw link_.FailureOf(outcome);
  }
  const TansyProto::CXmlProto xml = details::XmlOf(link_, outcome.answer.body, "ListMultipartUploadsResult");
  std::multimap<std::string, std::string, std::greater<>> by_time;
  for (std::size_t i = 1;; ++i) {
    const std::string upload = "/ListMultipartUploadsResult/Upload[" + std::to_string(i) + "]";
    if (!xml.Has(upload)) {
      break;
    }
    if (TansyNet::S3Signing::PercentDecode(xml.GetString(upload + "/Key")) == path_.key) {
      by_time.emplace(xml.GetString(upload + "/Initiated"), xml.GetString(upload + "/UploadId"));
    }
  }
  std::vector<std::string> ids;
  for (const auto& [time, id] : by_time) {
    ids.push_back(id);
  }
  return ids;
}

// An upload that has ended meanwhile has no parts.
std::map<std::size_t, S3Part> CS3Parts::ListParts(const std::string& id) const {
  std::map<std::size_t, S3Part> parts;
  std::size_t last = 0;
  for (bool more = true; more;) {
    S3Request request{.path = path_, .query = {{"uploadId", id}}};
    if (last > 0) {
      request.query.emplace_back("part-number-marker", std::to_string(last));
    }
    const LinkOutcome outcome = link_.TryPatiently(request);
    if (outcome.IsAnswered() && outcome.answer.status == 404) {
      return {};
    }
    if (!IsDone(outcome)) {
      throw link_.FailureOf(outcome);
    }
    const TansyProto::CXmlProto xml = details::XmlOf(link_, outcome.answer.body, "ListPartsResult");
    const std::size_t before = last;
    for (std::size_t i = 1;; ++i) {
      const std::string part = "/ListPartsResult/Part[" + std::to_string(i) + "]";
      if (!xml.Has(part)) {
        break;
      }
      last = static_cast<std::size_t>(xml.GetInt(part + "/PartNumber", 0));
      parts[last] = {static_cast<std::uint64_t>(xml.GetInt(part + "/Size", 0)),
                     WithoutQuotes(xml.GetString(part + "/ETag"))};
    }
    more = xml.GetString("/ListPartsResult/IsTruncated") == "true" && last > before;
  }
  return parts;
}

// Some servers announce success before they know it, and tell of a failure in the answer's body.
void CS3Parts::Check(const LinkOutcome& outcome) const {
  if (IsDone(outcome) && outcome.ErrorCode().empty()) {
    return;
  }
  const int status = outcome.answer.status;
  if (outcome.IsAnswered() && (status == 400 || status == 404 || status == 412)) {
    throw CRefusedUpload(link_.FailureOf(outcome));
  }
  throw link_.FailureOf(outcome);
}

std::string CS3Parts::Send(std::size_t number, const std::string& bytes, const std::atomic<bool>& stop) const {
  const LinkOutcome outcome = link_.TryPatiently({.method = "PUT",
                                                  .path = path_,
                                                  .query = {{"partNumber", std::to_string(number)}, {"uploadId", id_}},
                                                  .body = bytes},
                                                 &stop);
  Check(outcome);
  return WithoutQuotes(outcome.answer.GetHeader("ETag"));
}

void CS3Parts::Complete(const std::vector<std::string>& tags) const {
  std::string body = "<CompleteMultipartUpload>";
  for (std::size_t i = 0; i < tags.size(); ++i) {
    body += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>\"" + tags[i] + "\"</ETag></Part>";
  }
  body += "</CompleteMultipartUpload>";
  const LinkOutcome outcome = link_.TryPatiently({.method = "POST",
                                                  .path = path_,
                                                  .query = {{"uploadId", id_}},
                                                  .body = body,
                                                  .patience_ms = details::kCompletionPatienceMs});
  Check(outcome);
  details::XmlOf(link_, outcome.answer.body, "CompleteMultipartUploadResult");
}

void CS3Parts::Abort() const {
  link_.Try({.method = "DELETE", .path = path_, .query = {{"uploadId", id_}}});
}

}  // namespace Tansy::Cli
