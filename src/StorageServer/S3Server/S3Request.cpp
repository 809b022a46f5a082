#include "StorageServer/S3Server/S3Request.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <random>

#include "StorageServer/S3Server/S3Cors.h"
#include "StorageServer/S3Server/S3LinkV2.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

// Gives "photos" for "photos.s3.example.org:9702" when "s3.example.org" is the domain whose names stand for buckets.
std::string BucketOfHost(std::string_view host, const std::string& domain) {
  std::string name = ToLower(host.substr(0, host.find(':')));
  const std::string ending = "." + domain;
  if (domain.empty() || name.size() <= ending.size() || !name.ends_with(ending)) {
    return {};
  }
  name.resize(name.size() - ending.size());
  return name;
}

// A link of version 4 is signed with its whole query. That of version 2 is not: whoever has it could add to it.
bool IsLinkV4(const Query& query) {
  return FindParameter(query, "X-Amz-Signature") != nullptr && !IsLinkV2(query);
}

// Libraries that make links move headers of this protocol, such as x-amz-meta-title, into the query.
LowerHeaders HeadersOf(const TansyNet::HttpServerRecv& message, const Query& query) {
  constexpr std::array<std::string_view, 8> kOfSignature = {
      "x-amz-algorithm",     "x-amz-credential", "x-amz-date",           "x-amz-expires",
      "x-amz-signedheaders", "x-amz-signature",  "x-amz-security-token", "x-amz-content-sha256"};
  LowerHeaders headers = LowerNames(message.headers);
  if (!IsLinkV4(query)) {
    return headers;
  }
  for (const QueryParameter& parameter : query) {
    const std::string name = ToLower(parameter.name);
    const bool is_header =
        name.starts_with("x-amz-") && std::find(kOfSignature.begin(), kOfSignature.end(), name) == kOfSignature.end();
    if (is_header) {
      headers.try_emplace(name, parameter.value);
    }
  }
  return headers;
}

}  // namespace

std::string MakeRequestId() {
  static const std::uint64_t first = (std::uint64_t{std::random_device{}()} << 32) | std::random_device{}();
  static std::atomic<std::uint64_t> count{0};
  // Multiplying by an odd number maps different counts to different ids that do not look alike.
  const std::uint64_t number = first + count.fetch_add(1) * 0x9E3779B97F4A7C15ULL;
  std::string id;
  for (int shift = 60; shift >= 0; shift -= 4) {
    id += "0123456789ABCDEF"[(number >> shift) & 15];
  }
  return id;
}

Request::Request(std::int32_t session, TansyNet::HttpServerRecv& message, const S3ServerConfig& conf)
    : Recipient{session, MakeRequestId(), message.method, message.url, {}},
      msg(message),
      config(conf),
      query(ParseQuery(message.query)),
      headers(HeadersOf(message, query)),
      host_bucket(BucketOfHost(ValueOf(headers, "host"), conf.domain)) {
  readers = AllowedOrigin(conf, headers);
  std::string_view path = std::string_view(url).substr(url.starts_with('/') ? 1 : 0);
  if (host_bucket.empty()) {
    const std::string_view name = path.substr(0, path.find('/'));
    bucket = PercentDecode(name);
    path.remove_prefix(std::min(name.size() + 1, path.size()));
  } else {
    bucket = host_bucket;
  }
  key = PercentDecode(path);
}

Failure Request::Check() {
  if (!url.starts_with('/') || (bucket.empty() && !key.empty())) {
    return EError::kInvalidUri;
  }
  const bool is_link = IsLinkV4(query);
  const bool is_v2 = IsLinkV2(query);
  const LowerHeaders sent = is_link ? LowerNames(msg.headers) : LowerHeaders();
  const RequestToSign signed_part{method, url, query, is_link ? sent : headers};
  const std::time_t now = TansyBase::TimeUtil::Now();
  Identity identity;
  const std::string access_key = is_v2 ? AccessKeyOfLinkV2(query) : ClaimedAccessKey(signed_part);
  if (Failure failure = FindIdentity(identity, signer, config, access_key, now)) {
    return failure;
  }
  if (!is_v2) {
    return CheckSignature(signature, signed_part, identity, now);
  }
  if (!config.v2_links) {
    return {EError::kInvalidRequest, "This server takes no links of signature version 2."};
  }
  return CheckLinkV2(signed_part, host_bucket, identity, now);
}

}  // namespace Tansy::CloudStorage::S3
