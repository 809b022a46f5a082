#include "StorageServer/S3Server/S3Request.h"

#include <atomic>
#include <random>

#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

// Gives 16 capital digits that no other request of this process has, nor, most likely, one of another process.
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

}  // namespace

Request::Request(std::int32_t session, const TansyNet::HttpServerRecv& message, const S3ServerConfig& conf)
    : Recipient{session, MakeRequestId(), message.method, message.url},
      msg(message),
      config(conf),
      query(ParseQuery(message.query)),
      headers(LowerNames(message.headers)) {
  const std::string_view path = std::string_view(msg.url).substr(msg.url.starts_with('/') ? 1 : 0);
  const std::size_t slash = path.find('/');
  bucket = PercentDecode(path.substr(0, slash));
  if (slash != std::string_view::npos) {
    key = PercentDecode(path.substr(slash + 1));
  }
}

Failure Request::Check() {
  if (!msg.url.starts_with('/') || (bucket.empty() && !key.empty())) {
    return EError::kInvalidUri;
  }
  const Identity identity{config.ak, config.sk, config.region};
  const RequestToSign signed_part{msg.method, msg.url, query, headers};
  return CheckSignature(signature, signed_part, identity, TansyBase::TimeUtil::Now());
}

}  // namespace Tansy::CloudStorage::S3
