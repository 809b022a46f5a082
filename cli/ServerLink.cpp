#include "ServerLink.h"

#include <utility>

#include "Output.h"
#include "Signer.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Smaller numbers of a failed TLS handshake say what is wrong with the certificate.
constexpr int kFirstTlsReason = 100;

bool IsSuccess(int status) {
  return status == 200;
}

struct ErrorRow {
  const char* code;
  EExitCode exit_code;
  const char* what;
  const char* advice;
};

// Lists errors that a person can do something about, by the code in the answer's body.
constexpr ErrorRow kErrors[] = {
    {"AccessDenied", kExitDenied, "the server denies access", "check the keys with 'tansy doctor'"},
    {"AccessIDProblem", kExitDenied, "the server does not know the access key", "check the keys with 'tansy doctor'"},
    {"BucketAccessDenied", kExitDenied, "the server denies access to the bucket", "check the keys with 'tansy doctor'"},
    {"NoSuchBucket", kExitNotFound, "there is no such bucket",
     "'tansy buckets' lists those there are, 'tansy mb BUCKET' makes one"},
    {"NoSuchKey", kExitNotFound, "there is no such object", "check the URL; 'tansy put' printed it"},
    {"BucketAlreadyExists", kExitFailed, "the bucket exists already", ""},
    {"KeyTooLong", kExitUsage, "the name is longer than 128 bytes", "choose a shorter one with --name"},
    {"InvalidBucketName", kExitUsage, "this cannot be the name of a bucket", ""},
    {"BucketNotEmpty", kExitFailed, "the bucket is not empty", "empty it first: 'tansy rm -r BUCKET'"},
    {"EntityTooLarge", kExitFailed, "an object of this size is too large", "objects are smaller than 4 GiB"},
    {"InvalidAccessKeyId", kExitDenied, "the server does not know the access key",
     "check the keys with 'tansy doctor'"},
    {"KeyTooLongError", kExitUsage, "the key is longer than 1024 bytes", "choose a shorter one"},
    {"NotImplemented", kExitFailed, "the server does not have this operation", "is it of this version?"},
    {"NoSuchUpload", kExitFailed, "the server has lost the upload", "put the file again"},
    {"RequestTimeTooSkewed", kExitDenied, "the clocks of this machine and of the server differ by too much",
     "'tansy doctor' says by how much"},
    {"SignatureDoesNotMatch", kExitDenied, "the server denies access: the secret key is another one",
     "check the keys with 'tansy doctor'"},
    {"SlowDown", kExitFailed, "the server has too much to do", "try again later"},
    {"URLNotSupport", kExitFailed, "the server does not know this request", "check the URL"},
};

}  // namespace
}  // namespace details

CServerLink::CServerLink(const Settings& settings, const ServerAddress& address)
    : address_(address), access_key_(settings.access_key), secret_key_(settings.secret_key) {}

TansyNet::CHttpClientRequest CServerLink::Signed(const LinkRequest& request) const {
  TansyNet::CHttpClientRequest outgoing;
  outgoing.method = request.method;
  outgoing.url = address_.Url() + request.resource;
  outgoing.content_type = request.content_type;
  outgoing.body = request.body.empty() ? nullptr : request.body.data();
  outgoing.body_size = request.body.size();
  outgoing.max_body_bytes = kMaxAnswerBytes;
  outgoing.send_timeout_ms = request.patience_ms;
  outgoing.receive_timeout_ms = request.patience_ms;
  const std::string date = HttpDate();
  outgoing.headers["Host"] = address_.HostAndPort();
  outgoing.headers["Date"] = date;
  outgoing.headers["Authorization"] =
      AuthorizationValue(request.method, request.content_type, date, request.resource, access_key_, secret_key_);
  if (!request.range.empty()) {
    outgoing.headers["Range"] = "bytes=" + request.range;
  }
  return outgoing;
}

LinkOutcome CServerLink::Try(const LinkRequest& request) const {
  LinkOutcome outcome;
  TansyNet::HttpClient().Send(Signed(request), &outcome.answer, &outcome.error);
  return outcome;
}

LinkOutcome CServerLink::Stream(const LinkRequest& request, const TakeHead& head, const TakeBytes& take) const {
  return StreamAnswer(Signed(request), details::IsSuccess, head, take);
}

CFailure CServerLink::FailureOf(const LinkOutcome& outcome) const {
  return outcome.IsAnswered() ? FailureOfAnswer(outcome.answer.status, outcome.ErrorCode(), address_.Url())
                              : FailureOfExchange(outcome.error, address_.Url());
}

TansyNet::CHttpClientResponse CServerLink::Exchange(const LinkRequest& request) const {
  LinkOutcome outcome = Try(request);
  if (!outcome.IsAnswered()) {
    throw FailureOf(outcome);
  }
  return std::move(outcome.answer);
}

TansyNet::CHttpClientResponse CServerLink::Request(const LinkRequest& request, const std::string& subject) const {
  LinkOutcome outcome = Try(request);
  if (!outcome.IsDone()) {
    throw FailureOf(outcome).About(subject);
  }
  return std::move(outcome.answer);
}

CFailure FailureOfAnswer(int status, const std::string& code, const std::string& server) {
  if (MeansFullServer(status, code)) {
    return {kExitNoSpace, "the server has no space left (" + server + ": NotEnoughSpace)",
            "remove objects with 'tansy rm --bytes'"};
  }
  for (const details::ErrorRow& row : details::kErrors) {
    if (code == row.code) {
      return {row.exit_code, std::string(row.what) + " (" + server + ": " + code + ")", row.advice};
    }
  }
  const EExitCode exit_code = status == 403 || status == 401 ? kExitDenied
                              : status == 404                ? kExitNotFound
                                                             : kExitFailed;
  return {exit_code,
          server + " answered " + std::to_string(status) + (code.empty() ? "" : " " + Printable(code.substr(0, 100))),
          status >= 500                   ? "look into the server's log"
          : code.empty() && status == 400 ? "is this an object server, and HTTP or HTTPS as it should be?"
                                          : ""};
}

CFailure FailureOfExchange(const TansyNet::HttpClient::Error& error, const std::string& server) {
  using TansyNet::HttpClient;
  const std::string what = server + ": " + HttpClient::ErrorText(error);
  switch (error.kind) {
    case HttpClient::kBadUrl:
      return {kExitUsage, what, "names hold no blanks and no control characters"};
    case HttpClient::kResolve:
    case HttpClient::kConnect:
      return {kExitUnreachable, what, kAdviceUnreachable};
    case HttpClient::kTls:
      if (error.detail >= details::kFirstTlsReason) {
        return {kExitUnreachable, what, "does the server speak HTTPS, and can the file of --ca be read?"};
      }
      return {kExitUnreachable, what, "trust its certificate with --ca FILE, or any with --insecure"};
    case HttpClient::kBadAnswer:
      return {kExitUnreachable, what, "is this an object server, and HTTP or HTTPS as it should be?"};
    case HttpClient::kTooLarge:
      return {kExitFailed, what, ""};
    default:
      return {kExitUnreachable, what, "try again; 'tansy doctor' looks closer"};
  }
}

}  // namespace Tansy::Cli
