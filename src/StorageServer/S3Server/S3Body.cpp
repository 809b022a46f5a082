#include "StorageServer/S3Server/S3Body.h"

#include <algorithm>
#include <utility>

#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::size_t kMd5Bytes = 16;

// Calls `take(name)` for each name of a list such as "x-amz-checksum-crc32, x-amz-checksum-sha1".
template <class Take>
void ForEachName(std::string_view list, const Take& take) {
  while (!list.empty()) {
    const std::string_view name = list.substr(0, list.find(','));
    list.remove_prefix(std::min(name.size() + 1, list.size()));
    take(ToLower(Trim(name)));
  }
}

Failure InvalidChecksum(const std::string& header) {
  return {EError::kInvalidRequest, "Value for " + header + " header is invalid."};
}

}  // namespace

Failure CBody::Begin(const Signed& request, const LowerHeaders& headers) {
  if (request.body_form == EBodyForm::kPlainWithDigest) {
    sha256_.emplace(EDigest::kSha256);
    expected_sha256_ = request.digest;
  } else if (request.body_form != EBodyForm::kPlain) {
    if (Failure failure = BeginChunks(request, headers)) {
      return failure;
    }
  }
  if (const std::string& length = ValueOf(headers, "content-length"); !decoder_ && !length.empty()) {
    std::uint64_t bytes = 0;
    if (!ParseDecimal(length, bytes)) {
      return {EError::kInvalidArgument, "Content-Length must be a number of bytes."};
    }
    length_ = bytes;
  }
  if (length_.value_or(0) > kMaxObjectBytes) {
    return EError::kEntityTooLarge;
  }
  return BeginChecks(headers);
}

Failure CBody::BeginChunks(const Signed& request, const LowerHeaders& headers) {
  std::uint64_t length = 0;
  if (!ParseDecimal(ValueOf(headers, "x-amz-decoded-content-length"), length)) {
    return {EError::kMissingContentLength, "A body in aws-chunked needs the header x-amz-decoded-content-length."};
  }
  length_ = length;
  decoder_.emplace(request, length);
  return {};
}

Failure CBody::BeginChecks(const LowerHeaders& headers) {
  if (const std::string& md5 = ValueOf(headers, "content-md5"); !md5.empty()) {
    if (!TansyBase::Encrypt::Base64Decode(md5, expected_md5_) || expected_md5_.size() != kMd5Bytes) {
      return {EError::kInvalidDigest, "Content-MD5 must be 16 bytes in Base64."};
    }
  }
  Failure failure;
  for (const auto& [name, value] : headers) {
    if (const auto kind = ChecksumKind(name); kind && !failure) {
      // Without a value it would be taken for one that the trailer brings.
      failure = value.empty() ? InvalidChecksum(name) : AddCheck(*kind, name, value);
    }
  }
  ForEachName(ValueOf(headers, "x-amz-trailer"), [&](const std::string& name) {
    if (const auto kind = ChecksumKind(name); kind && !failure) {
      failure = AddCheck(*kind, name, {});
    }
  });
  if (!failure && !decoder_ && !ValueOf(headers, "x-amz-trailer").empty()) {
    failure = {EError::kInvalidRequest, "Only a body in aws-chunked has a trailer."};
  }
  return failure;
}

Failure CBody::AddCheck(EDigest kind, const std::string& header, const std::string& expected) {
  CDigest digest(kind);
  if (!expected.empty()) {
    std::string bytes;
    if (!TansyBase::Encrypt::Base64Decode(expected, bytes) || bytes.size() != CDigest(kind).Finish().size()) {
      return InvalidChecksum(header);
    }
  }
  if (!checks_.empty()) {
    return {EError::kInvalidRequest,
            "Expecting a single x-amz-checksum- header. Multiple checksum types are not allowed."};
  }
  checks_.push_back({std::move(digest), header, expected});
  return {};
}

void CBody::Take(std::string_view bytes) {
  size_ += bytes.size();
  md5_.Add(bytes);
  if (sha256_) {
    sha256_->Add(bytes);
  }
  for (Check& check : checks_) {
    check.digest.Add(bytes);
  }
}

Failure CBody::Add(std::string_view bytes, const ByteSink& sink) {
  if (decoder_) {
    return decoder_->Add(bytes, [&](std::string_view decoded) {
      Take(decoded);
      sink(decoded);
    });
  }
  if (size_ + bytes.size() > kMaxObjectBytes) {
    return EError::kEntityTooLarge;
  }
  Take(bytes);
  sink(bytes);
  return {};
}

Failure CBody::End() {
  const bool is_whole = (!decoder_ || decoder_->IsComplete()) && (!length_ || *length_ == size_);
  if (!is_whole) {
    return EError::kIncompleteBody;
  }
  if (sha256_ && ToHex(sha256_->Finish()) != expected_sha256_) {
    return EError::kContentSha256Mismatch;
  }
  const std::string md5 = md5_.Finish();
  if (!expected_md5_.empty() && md5 != expected_md5_) {
    return EError::kBadDigest;
  }
  md5_text_ = ToHex(md5);
  return EndChecks();
}

std::optional<Checksum> CBody::NamedChecksum() const {
  if (checks_.empty()) {
    return std::nullopt;
  }
  return Checksum{checks_.front().digest.Kind(), checks_.front().expected};
}

// A checksum that nobody announced cannot be compared: its digest was not made while the bytes came.
Failure CBody::CheckTrailerNames() const {
  if (!decoder_) {
    return {};
  }
  for (const auto& [name, value] : decoder_->Trailer()) {
    const bool is_awaited = std::any_of(checks_.begin(), checks_.end(), [&header = name](const Check& check) {
      return check.header == header && check.expected.empty();
    });
    if (ChecksumKind(name) && !is_awaited) {
      return {EError::kInvalidRequest, "The trailer brings " + name + ", which x-amz-trailer does not announce."};
    }
  }
  return {};
}

Failure CBody::EndChecks() {
  if (Failure failure = CheckTrailerNames()) {
    return failure;
  }
  for (Check& check : checks_) {
    if (check.expected.empty()) {
      check.expected = ValueOf(decoder_->Trailer(), check.header);
      if (check.expected.empty()) {
        return {EError::kIncompleteBody, "The trailer does not bring the " + check.header + " that was announced."};
      }
    }
    if (TansyBase::Encrypt::Base64Encode(check.digest.Finish()) != check.expected) {
      return {EError::kBadDigest, "The body does not have the checksum in " + check.header + "."};
    }
  }
  return {};
}

}  // namespace Tansy::CloudStorage::S3
