#include "StorageServer/S3Server/S3Attributes.h"

#include <algorithm>
#include <array>

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::string_view kUserPrefix = "x-amz-meta-";
constexpr std::size_t kLongestUserMetadata = 2048;
constexpr std::size_t kLongestStandardHeaders = 4096;
constexpr std::array<std::string_view, 6> kStandardHeaders = {
    "cache-control", "content-disposition", "content-encoding", "content-language", "content-type", "expires"};

// By their beginnings.
constexpr std::array<std::string_view, 6> kUnsupportedHeaders = {
    "x-amz-bucket-object-lock-enabled", "x-amz-grant-",  "x-amz-object-lock-",
    "x-amz-server-side-encryption",     "x-amz-tagging", "x-amz-website-redirect-location"};

bool IsStandard(std::string_view name) {
  return std::find(kStandardHeaders.begin(), kStandardHeaders.end(), name) != kStandardHeaders.end();
}

// "aws-chunked" says how the body was sent, not what it is.
std::string WithoutTransferCoding(std::string_view encodings) {
  std::string kept;
  while (!encodings.empty()) {
    const std::string_view piece = encodings.substr(0, encodings.find(','));
    encodings.remove_prefix(std::min(piece.size() + 1, encodings.size()));
    const std::string_view name = Trim(piece);
    if (!name.empty() && ToLower(name) != "aws-chunked") {
      kept.append(kept.empty() ? "" : ",").append(name);
    }
  }
  return kept;
}

void AppendEscaped(std::string& text, std::string_view value) {
  for (const char c : value) {
    const bool is_plain = c >= 0x20 && c < 0x7f && c != '%';
    text += is_plain ? std::string(1, c) : PercentEncode(std::string_view(&c, 1));
  }
}

}  // namespace

Failure TakeHeaders(Attributes& attributes, const LowerHeaders& request) {
  std::size_t user_bytes = 0;
  std::size_t standard_bytes = 0;
  for (const auto& [name, value] : request) {
    if (name.starts_with(kUserPrefix)) {
      user_bytes += name.size() - kUserPrefix.size() + value.size();
      attributes.headers[name] = value;
    } else if (IsStandard(name)) {
      const std::string kept = name == "content-encoding" ? WithoutTransferCoding(value) : value;
      standard_bytes += kept.size();
      if (!kept.empty()) {
        attributes.headers[name] = kept;
      }
    }
  }
  if (user_bytes > kLongestUserMetadata || standard_bytes > kLongestStandardHeaders) {
    return EError::kMetadataTooLarge;
  }
  return {};
}

bool IsPrivateAcl(std::string_view acl) {
  return acl.empty() || acl == "private" || acl == "bucket-owner-full-control";
}

Failure CheckUnsupportedHeaders(const LowerHeaders& request) {
  for (const auto& [name, value] : request) {
    const bool is_unsupported =
        std::any_of(kUnsupportedHeaders.begin(), kUnsupportedHeaders.end(),
                    [&header = name](std::string_view prefix) { return header.starts_with(prefix); });
    if (is_unsupported && name != "x-amz-tagging-directive" && value != "false") {
      return {EError::kNotImplemented, "This server does not have what the header " + name + " asks for."};
    }
  }
  if (!IsPrivateAcl(ValueOf(request, "x-amz-acl"))) {
    return {EError::kNotImplemented, "Everything is private; this server has no other x-amz-acl."};
  }
  return {};
}

std::string ToText(const Attributes& attributes) {
  std::string text = attributes.etag;
  for (const auto& [name, value] : attributes.headers) {
    text.append("\n").append(name).append(":");
    AppendEscaped(text, value);
  }
  return text;
}

Attributes FromText(std::string_view text) {
  Attributes attributes;
  attributes.etag = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(attributes.etag.size() + 1, text.size()));
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      attributes.headers[std::string(line.substr(0, colon))] = PercentDecode(line.substr(colon + 1));
    }
  }
  return attributes;
}

}  // namespace Tansy::CloudStorage::S3
