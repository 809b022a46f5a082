#include "S3Signer.h"

#include <algorithm>

#include "TansyBase/TimeUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

namespace S3Signing = TansyNet::S3Signing;

// Gives the current time as "20130524T000000Z".
std::string Timestamp() {
  std::string text = TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
  std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
  std::replace(text.begin(), text.end(), ' ', 'T');
  return text + "Z";
}

std::string PathOf(const S3Path& path) {
  const std::string bucket = "/" + path.bucket;
  return path.key.empty() ? bucket : bucket + "/" + path.key;
}

std::string NamesOf(const std::map<std::string, std::string>& headers) {
  std::string names;
  for (const auto& [name, value] : headers) {
    names += (names.empty() ? "" : ";") + name;
  }
  return names;
}

}  // namespace
}  // namespace details

std::map<std::string, std::string> SignedS3Headers(const S3Request& request, const std::string& host,
                                                   const S3Keys& keys) {
  const std::string timestamp = details::Timestamp();
  const std::string date = timestamp.substr(0, 8);
  const std::string digest = details::S3Signing::ToHex(details::S3Signing::Sha256(request.body));
  std::map<std::string, std::string> headers = request.headers;
  headers["host"] = host;
  headers["x-amz-content-sha256"] = digest;
  headers["x-amz-date"] = timestamp;
  const std::string path = details::PathOf(request.path);
  const std::string canonical = details::S3Signing::CanonicalRequest(
      {request.method, path, request.query, {headers.begin(), headers.end()}, digest});
  const std::string scope = details::S3Signing::Scope(date, keys.region, keys.service);
  const std::string signature =
      details::S3Signing::Sign(details::S3Signing::SigningKey(keys.secret_key, date, keys.region, keys.service),
                               details::S3Signing::StringToSign(timestamp, scope, canonical));
  headers["Authorization"] = std::string(details::S3Signing::kAlgorithm) + " Credential=" + keys.access_key + "/" +
                             scope + ", SignedHeaders=" + details::NamesOf(headers) + ", Signature=" + signature;
  // The library and the trace know this header by its usual spelling.
  headers.erase("host");
  headers["Host"] = host;
  return headers;
}

}  // namespace Tansy::Cli
