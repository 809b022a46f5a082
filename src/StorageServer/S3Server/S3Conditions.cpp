#include "StorageServer/S3Server/S3Conditions.h"

#include <algorithm>

#include "TansyBase/HttpDate.h"

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::string_view kUnit = "bytes=";

enum class EWeakTags { kMatch, kNever };

// Says whether a list of entity tags, such as "abc", W/"def" or *, names this version.
bool NamesTag(std::string_view list, const VersionTags& tags, EWeakTags weak_tags) {
  while (!list.empty()) {
    const std::string_view piece = list.substr(0, list.find(','));
    list.remove_prefix(std::min(piece.size() + 1, list.size()));
    std::string_view tag = Trim(piece);
    if (tag.starts_with("W/")) {
      if (weak_tags == EWeakTags::kNever) {
        continue;
      }
      tag.remove_prefix(2);
    }
    if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"') {
      tag = tag.substr(1, tag.size() - 2);
    }
    if (tag == "*" || tags.Has(tag)) {
      return true;
    }
  }
  return false;
}

AskedRange Part(std::uint64_t begin, std::uint64_t length) {
  return {ERange::kPart, begin, length};
}

AskedRange LastBytes(std::uint64_t count, std::uint64_t size) {
  if (count == 0 || size == 0) {
    return {ERange::kUnsatisfied};
  }
  const std::uint64_t length = std::min(count, size);
  return Part(size - length, length);
}

}  // namespace

AskedRange ReadRange(std::string_view header, std::uint64_t size) {
  const std::size_t dash = header.find('-');
  if (!ToLower(header.substr(0, kUnit.size())).starts_with(kUnit) || dash == std::string_view::npos) {
    return {};
  }
  const std::string_view first = Trim(header.substr(kUnit.size(), dash - kUnit.size()));
  const std::string_view last = Trim(header.substr(dash + 1));
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  const bool has_end = ParseDecimal(last, end);
  if (first.empty()) {
    return has_end ? LastBytes(end, size) : AskedRange{};
  }
  if (!ParseDecimal(first, begin) || (!has_end && !last.empty()) || (has_end && end < begin)) {
    return {};
  }
  if (begin >= size) {
    return {ERange::kUnsatisfied};
  }
  return Part(begin, (has_end ? std::min(end, size - 1) : size - 1) - begin + 1);
}

bool HasConditions(const LowerHeaders& headers) {
  constexpr std::string_view kBeginning = "if-";
  const auto first = headers.lower_bound(kBeginning);
  return first != headers.end() && first->first.starts_with(kBeginning);
}

ECondition CheckConditions(const LowerHeaders& headers, const VersionTags& tags, std::time_t modified) {
  const std::string& match = ValueOf(headers, "if-match");
  const std::string& none_match = ValueOf(headers, "if-none-match");
  const std::time_t unmodified_since = TansyBase::HttpDate::Parse(ValueOf(headers, "if-unmodified-since"));
  const std::time_t modified_since = TansyBase::HttpDate::Parse(ValueOf(headers, "if-modified-since"));
  if (!match.empty()) {
    if (!NamesTag(match, tags, EWeakTags::kNever)) {
      return ECondition::kFailed;
    }
  } else if (unmodified_since >= 0 && modified > unmodified_since) {
    return ECondition::kFailed;
  }
  if (!none_match.empty()) {
    return NamesTag(none_match, tags, EWeakTags::kMatch) ? ECondition::kNotModified : ECondition::kMet;
  }
  return modified_since >= 0 && modified <= modified_since ? ECondition::kNotModified : ECondition::kMet;
}

bool MayWrite(const LowerHeaders& headers, const VersionTags* tags) {
  const std::string& match = ValueOf(headers, "if-match");
  const std::string& none_match = ValueOf(headers, "if-none-match");
  const bool is_named = match.empty() || (tags != nullptr && NamesTag(match, *tags, EWeakTags::kNever));
  return is_named && (none_match.empty() || tags == nullptr || !NamesTag(none_match, *tags, EWeakTags::kMatch));
}

}  // namespace Tansy::CloudStorage::S3
