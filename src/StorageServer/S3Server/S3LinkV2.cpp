#include "StorageServer/S3Server/S3LinkV2.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "Common/Signature.h"

namespace Tansy::CloudStorage::S3 {

namespace {

// The parameters that are signed, in order.
constexpr std::array<std::string_view, 30> kSignedParameters = {"accelerate",
                                                                "acl",
                                                                "analytics",
                                                                "cors",
                                                                "delete",
                                                                "encryption",
                                                                "inventory",
                                                                "lifecycle",
                                                                "location",
                                                                "logging",
                                                                "notification",
                                                                "partNumber",
                                                                "policy",
                                                                "replication",
                                                                "requestPayment",
                                                                "response-cache-control",
                                                                "response-content-disposition",
                                                                "response-content-encoding",
                                                                "response-content-language",
                                                                "response-content-type",
                                                                "response-expires",
                                                                "restore",
                                                                "tagging",
                                                                "torrent",
                                                                "uploadId",
                                                                "uploads",
                                                                "versionId",
                                                                "versioning",
                                                                "versions",
                                                                "website"};

std::string Resource(const RequestToSign& request, std::string_view host_bucket) {
  std::string text;
  if (!host_bucket.empty()) {
    text.append("/").append(host_bucket);
  }
  text.append(request.path);
  char separator = '?';
  for (const std::string_view name : kSignedParameters) {
    if (const std::string* const value = FindParameter(request.query, name)) {
      text.append(1, std::exchange(separator, '&')).append(name);
      if (!value->empty()) {
        text.append("=").append(*value);
      }
    }
  }
  return text;
}

}  // namespace

bool IsLinkV2(const Query& query) {
  return FindParameter(query, "AWSAccessKeyId") != nullptr && FindParameter(query, "Signature") != nullptr;
}

std::string LinkTextV2(const RequestToSign& request, std::string_view host_bucket) {
  std::string text(request.method);
  for (const std::string_view header : {"content-md5", "content-type"}) {
    text.append("\n").append(ValueOf(request.headers, header));
  }
  text.append("\n").append(ParameterOrEmpty(request.query, "Expires")).append("\n");
  for (const auto& [name, value] : request.headers) {
    if (name.starts_with("x-amz-")) {
      text.append(name).append(":").append(Trim(value)).append("\n");
    }
  }
  return text + Resource(request, host_bucket);
}

std::string AccessKeyOfLinkV2(const Query& query) {
  return ParameterOrEmpty(query, "AWSAccessKeyId");
}

Failure CheckLinkV2(const RequestToSign& request, std::string_view host_bucket, const Identity& identity,
                    std::time_t now) {
  const std::string access_key = AccessKeyOfLinkV2(request.query);
  if (identity.access_key.empty() || identity.secret_key.empty() || access_key != identity.access_key) {
    return EError::kInvalidAccessKeyId;
  }
  std::uint64_t expires = 0;
  if (!ParseDecimal(ParameterOrEmpty(request.query, "Expires"), expires)) {
    return {EError::kAccessDenied, "Expires must be a time in seconds since 1970."};
  }
  // The plus signs of Base64 are blanks in a query whose client did not encode them.
  std::string signature = ParameterOrEmpty(request.query, "Signature");
  std::replace(signature.begin(), signature.end(), ' ', '+');
  const std::string text = LinkTextV2(request, host_bucket);
  if (!EqualInConstantTime(SignHmacSha1(text, identity.secret_key), signature)) {
    Failure failure = EError::kSignatureDoesNotMatch;
    failure.details.emplace_back("AWSAccessKeyId", access_key);
    failure.details.emplace_back("StringToSign", text);
    failure.details.emplace_back("SignatureProvided", signature);
    return failure;
  }
  if (now > 0 && static_cast<std::uint64_t>(now) > expires) {
    return {EError::kAccessDenied, "Request has expired"};
  }
  return {};
}

}  // namespace Tansy::CloudStorage::S3
