#include "StorageServer/S3Server/S3Attributes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string>

#include "TansyBase/Encrypt.h"

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

// Millions of these texts are in memory, so digests and the names of headers are written short: a digest as the 22
// letters of its Base64, "content-type" as "4", "x-amz-meta-a" as "-a". Whatever has no short form stays as it is.
constexpr std::size_t kDigestDigits = 32;
constexpr std::size_t kDigestLetters = 22;
constexpr std::string_view kPadding = "==";

std::string ShortTag(const std::string& etag) {
  if (!IsHex(etag, kDigestDigits) || ToLower(etag) != etag) {
    return etag;
  }
  std::string bytes;
  for (std::size_t at = 0; at < etag.size(); at += 2) {
    unsigned int byte = 0;
    std::from_chars(etag.data() + at, etag.data() + at + 2, byte, 16);
    bytes += static_cast<char>(byte);
  }
  return TansyBase::Encrypt::Base64Encode(bytes).substr(0, kDigestLetters);
}

std::string LongTag(std::string_view text) {
  std::string bytes;
  if (text.size() == kDigestLetters && TansyBase::Encrypt::Base64Decode(std::string(text).append(kPadding), bytes)) {
    return ToHex(bytes);
  }
  return std::string(text);
}

std::string ShortName(const std::string& name) {
  if (name.starts_with(kUserPrefix)) {
    return name.substr(kUserPrefix.size() - 1);
  }
  const auto found = std::find(kStandardHeaders.begin(), kStandardHeaders.end(), name);
  return found != kStandardHeaders.end() ? std::to_string(found - kStandardHeaders.begin()) : name;
}

std::string LongName(std::string_view text) {
  if (text.starts_with('-')) {
    return std::string(kUserPrefix).append(text.substr(1));
  }
  const bool is_number =
      text.size() == 1 && text.front() >= '0' && text.front() < '0' + static_cast<int>(kStandardHeaders.size());
  return std::string(is_number ? kStandardHeaders[static_cast<std::size_t>(text.front() - '0')] : text);
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
  std::string text = ShortTag(attributes.etag);
  for (const auto& [name, value] : attributes.headers) {
    text.append("\n").append(ShortName(name)).append(":");
    AppendEscaped(text, value);
  }
  return text;
}

std::string ETagOfText(std::string_view text) {
  return LongTag(text.substr(0, text.find('\n')));
}

Attributes FromText(std::string_view text) {
  Attributes attributes;
  attributes.etag = ETagOfText(text);
  text.remove_prefix(std::min(text.find('\n'), text.size()));
  while (!text.empty()) {
    text.remove_prefix(1);
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size());
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      attributes.headers[LongName(line.substr(0, colon))] = PercentDecode(line.substr(colon + 1));
    }
  }
  return attributes;
}

}  // namespace Tansy::CloudStorage::S3
