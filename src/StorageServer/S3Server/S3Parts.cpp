#include "StorageServer/S3Server/S3Parts.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3Body.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage::S3 {

namespace {

using CloudStorage::details::Piece;

std::optional<std::string> FromHex(std::string_view text) {
  if (text.size() % 2 != 0 || !IsHex(text, text.size())) {
    return std::nullopt;
  }
  std::string encoded;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    encoded.append(1, '%').append(text.substr(i, 2));
  }
  return PercentDecode(encoded);
}

// Takes the checksums of the parts in the order of their numbers.
class CChecksumOfParts {
 public:
  void Add(const PartDigests& digests, std::uint32_t size) {
    std::string bytes;
    is_known_ = is_known_ && digests.checksum && (count_ == 0 || kind_ == digests.checksum->kind) &&
                TansyBase::Encrypt::Base64Decode(digests.checksum->value, bytes);
    kind_ = is_known_ ? digests.checksum->kind : kind_;
    of_bytes_ = count_ == 0 ? bytes : JoinChecksums(kind_, of_bytes_.value_or(std::string()), bytes, size);
    one_by_one_ += bytes;
    ++count_;
  }

  void Give(CompletedUpload& result) const {
    if (!is_known_ || count_ == 0) {
      return;
    }
    using TansyBase::Encrypt;
    result.of_parts =
        Checksum{kind_, Encrypt::Base64Encode(DigestOf(kind_, one_by_one_)) + "-" + std::to_string(count_)};
    // The one of a single part may be of a kind that cannot be joined.
    if (of_bytes_ && JoinChecksums(kind_, *of_bytes_, *of_bytes_, 0)) {
      result.of_bytes = Checksum{kind_, Encrypt::Base64Encode(*of_bytes_)};
    }
  }

 private:
  bool is_known_ = true;
  EDigest kind_ = EDigest::kCrc32;
  std::string one_by_one_;
  std::optional<std::string> of_bytes_;
  std::size_t count_ = 0;
};

Failure InvalidPart(const PartToComplete& asked) {
  Failure failure = EError::kInvalidPart;
  failure.details.emplace_back("PartNumber", std::to_string(asked.number));
  failure.details.emplace_back("ETag", asked.etag);
  return failure;
}

Failure TooSmall(const PartToComplete& asked, std::uint32_t size) {
  Failure failure = EError::kEntityTooSmall;
  failure.details.emplace_back("ProposedSize", std::to_string(size));
  failure.details.emplace_back("MinSizeAllowed", std::to_string(kLeastPartBytes));
  failure.details.emplace_back("PartNumber", std::to_string(asked.number));
  failure.details.emplace_back("ETag", asked.etag);
  return failure;
}

bool Fits(const PartToComplete& asked, const PartDigests& digests) {
  return ToLower(asked.etag) == digests.etag &&
         (!asked.checksum || (digests.checksum && *asked.checksum == *digests.checksum));
}

}  // namespace

Failure ReadPartNumber(std::uint32_t& number, const Query& query) {
  std::uint64_t value = 0;
  if (!ParseDecimal(ParameterOrEmpty(query, "partNumber"), value) || value < 1 || value > kMostParts) {
    return {EError::kInvalidArgument, "Part number must be an integer between 1 and 10000, inclusive."};
  }
  number = static_cast<std::uint32_t>(value);
  return {};
}

std::string ToText(const PartDigests& digests) {
  Attributes attributes;
  attributes.etag = digests.etag;
  if (digests.checksum) {
    attributes.headers[std::string(NamesOf(digests.checksum->kind).header)] = digests.checksum->value;
  }
  return ToText(attributes);
}

PartDigests PartDigestsOf(const UploadedPart& part) {
  Attributes attributes = FromText(part.attributes);
  PartDigests digests;
  digests.etag = std::move(attributes.etag);
  for (const auto& [name, value] : attributes.headers) {
    if (const std::optional<EDigest> kind = ChecksumKind(name)) {
      digests.checksum = Checksum{*kind, value};
    }
  }
  return digests;
}

std::optional<std::string> ETagOfParts(const std::vector<PartToComplete>& parts) {
  constexpr std::size_t kMd5Digits = 32;
  std::string joined;
  for (const PartToComplete& part : parts) {
    const std::optional<std::string> digest = FromHex(part.etag);
    if (!digest || part.etag.size() != kMd5Digits) {
      return std::nullopt;
    }
    joined += *digest;
  }
  return ToHex(DigestOf(EDigest::kMd5, joined)) + "-" + std::to_string(parts.size());
}

Failure MatchParts(CompletedUpload& result, const std::vector<PartToComplete>& list,
                   const std::vector<UploadedPart>& uploaded) {
  CChecksumOfParts checksum;
  std::optional<Failure> too_small;  // the other mistakes are named first
  for (const PartToComplete& asked : list) {
    const auto part =
        std::lower_bound(uploaded.begin(), uploaded.end(), asked.number,
                         [](const UploadedPart& candidate, std::uint32_t number) { return candidate.number < number; });
    const bool is_there = part != uploaded.end() && part->number == asked.number;
    const PartDigests digests = is_there ? PartDigestsOf(*part) : PartDigests();
    if (!is_there || !Fits(asked, digests)) {
      return InvalidPart(asked);
    }
    checksum.Add(digests, part->size);
    result.size += part->size;
    if (part->size < kLeastPartBytes && !too_small && &asked != &list.back()) {
      too_small = TooSmall(asked, part->size);
    }
    // Nobody reads an empty part, so the object does not depend on it. Its size could not tell that it was replaced.
    if (part->size > 0 || list.size() == 1) {
      result.pieces.push_back(Piece{part->size, part->url});
    }
  }
  if (too_small) {
    return *too_small;
  }
  if (result.size > kMaxObjectBytes) {
    return EError::kEntityTooLarge;
  }
  const std::optional<std::string> etag = ETagOfParts(list);
  if (!etag) {
    return EError::kInvalidPart;
  }
  result.etag = *etag;
  checksum.Give(result);
  return {};
}

}  // namespace Tansy::CloudStorage::S3
