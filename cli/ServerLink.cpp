#include "ServerLink.h"

#include <utility>
#include <vector>

#include "BucketList.h"
#include "Output.h"
#include "Signer.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::uint64_t kMaxAnswerBytes = std::uint64_t{64} << 20;
// Smaller numbers of a failed TLS handshake say what is wrong with the certificate.
constexpr int kFirstTlsReason = 100;

struct ErrorRow {
  const char* code;
  EExitCode exit_code;
  const char* what;
  const char* advice;
};

// Errors that a person can do something about, by the code in the answer's body.
constexpr ErrorRow kErrors[] = {
    {"AccessDenied", kExitDenied, "the server denies access", "check the keys with 'tansy doctor'"},
    {"AccessIDProblem", kExitDenied, "the server does not know the access key", "check the keys with 'tansy doctor'"},
    {"BucketAccessDenied", kExitDenied, "the server denies access to the bucket", "check the keys with 'tansy doctor'"},
    {"NoSuchBucket", kExitNotFound, "there is no such bucket",
     "'tansy buckets' lists those there are, 'tansy mb BUCKET' makes one"},
    {"NoSuchKey", kExitNotFound, "there is no such object", "check the URL; 'tansy put' printed it"},
    {"NotEnoughSpace", kExitNoSpace, "the server has no space left", "remove objects with 'tansy rm --bytes'"},
    {"BucketAlreadyExists", kExitFailed, "the bucket exists already", ""},
    {"KeyTooLong", kExitUsage, "the name is longer than 128 bytes", "choose a shorter one with --name"},
    {"InvalidBucketName", kExitUsage, "this cannot be the name of a bucket", ""},
    {"URLNotSupport", kExitFailed, "the server does not know this request", "check the URL"},
};

}  // namespace
}  // namespace details

CServerLink::CServerLink(const Settings& settings, const ServerAddress& address)
    : address_(address), access_key_(settings.access_key), secret_key_(settings.secret_key) {}

TansyNet::CHttpClientResponse CServerLink::Exchange(const std::string& method, const std::string& resource,
                                                    const std::string& body, const std::string& content_type) const {
  TansyNet::CHttpClientRequest request;
  request.method = method;
  request.url = address_.Url() + resource;
  request.content_type = content_type;
  request.body = body.empty() ? nullptr : body.data();
  request.body_size = body.size();
  request.max_body_bytes = details::kMaxAnswerBytes;
  const std::string date = HttpDate();
  request.headers["Host"] = address_.HostAndPort();
  request.headers["Date"] = date;
  request.headers["Authorization"] = AuthorizationValue(method, content_type, date, resource, access_key_, secret_key_);

  TansyNet::CHttpClientResponse response;
  TansyNet::HttpClient::Error error;
  if (!TansyNet::HttpClient().Send(request, &response, &error)) {
    throw FailureOfExchange(error, address_.Url());
  }
  return response;
}

TansyNet::CHttpClientResponse CServerLink::Request(const std::string& method, const std::string& resource,
                                                   const std::string& subject, const std::string& body,
                                                   const std::string& content_type) const {
  try {
    TansyNet::CHttpClientResponse response = Exchange(method, resource, body, content_type);
    if (response.status != 200) {
      throw FailureOfAnswer(response.status, response.body, address_.Url());
    }
    return response;
  } catch (const CFailure& failure) {
    throw failure.About(subject);
  }
}

CFailure FailureOfAnswer(int status, const std::string& body, const std::string& server) {
  TansyProto::CXmlProto xml;
  const std::string code = xml.Parse(body) ? xml.GetString("/Error/Code") : "";
  for (const details::ErrorRow& row : details::kErrors) {
    if (code == row.code) {
      return {row.exit_code, std::string(row.what) + " (" + server + ")", row.advice};
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

std::string ChooseBucket(const Settings& settings) {
  if (!settings.pool.empty()) {
    return settings.pool;
  }
  const std::vector<BucketRow> buckets = ListBuckets(CServerLink(settings));
  if (buckets.empty()) {
    throw CFailure(kExitUsage, "there is no bucket yet", "make one: tansy mb BUCKET");
  }
  if (buckets.size() > 1) {
    std::string names;
    for (std::size_t i = 0; i < buckets.size() && i < 5; ++i) {
      names += (names.empty() ? "" : ", ") + Printable(buckets[i].name);
    }
    throw CFailure(kExitUsage, "which bucket? There are " + std::to_string(buckets.size()),
                   "name one with --pool or TANSY_POOL: " + names + (buckets.size() > 5 ? ", ..." : ""));
  }
  return buckets.front().name;
}

}  // namespace Tansy::Cli
