#include "StorageServer/S3Server/S3CopySource.h"

#include <algorithm>
#include <cstddef>

namespace Tansy::CloudStorage::S3 {

namespace {

Failure InvalidRange() {
  return {EError::kInvalidArgument,
          "x-amz-copy-source-range must be bytes=first-last, with both numbers inside the source."};
}

}  // namespace

Failure ReadCopySource(CopySource& source, std::string_view header) {
  std::string_view path = header.substr(0, header.find('?'));
  const std::string_view query = header.substr(std::min(path.size() + 1, header.size()));
  path.remove_prefix(path.starts_with('/') ? 1 : 0);
  // Some clients encode the slash behind the bucket's name too.
  const std::string decoded = PercentDecode(path);
  const std::size_t slash = decoded.find('/');
  if (slash == 0 || slash == std::string::npos || slash + 1 == decoded.size()) {
    return {EError::kInvalidArgument, "x-amz-copy-source must name a bucket and a key."};
  }
  if (!query.empty() && query != "versionId=null") {
    return {EError::kNotImplemented, "This server has no versions of objects."};
  }
  source.bucket = decoded.substr(0, slash);
  source.key = decoded.substr(slash + 1);
  return {};
}

LowerHeaders SourceConditions(const LowerHeaders& headers) {
  LowerHeaders conditions;
  for (const char* const name : {"if-match", "if-none-match", "if-modified-since", "if-unmodified-since"}) {
    if (const std::string& value = ValueOf(headers, std::string(kCopySourceHeader) + "-" + name); !value.empty()) {
      conditions[name] = value;
    }
  }
  return conditions;
}

Failure ReadCopyRange(std::uint64_t& begin, std::uint64_t& length, std::string_view header, std::uint64_t size) {
  constexpr std::string_view kUnit = "bytes=";
  if (header.empty()) {
    return {};
  }
  const std::size_t dash = header.find('-');
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  const bool is_read = header.starts_with(kUnit) && dash != std::string_view::npos &&
                       ParseDecimal(header.substr(kUnit.size(), dash - kUnit.size()), first) &&
                       ParseDecimal(header.substr(dash + 1), last);
  if (!is_read || last < first || last >= size) {
    return InvalidRange();
  }
  begin = first;
  length = last - first + 1;
  return {};
}

Failure ReadMetadataDirective(EMetadata& metadata, const LowerHeaders& headers) {
  const std::string& directive = ValueOf(headers, "x-amz-metadata-directive");
  if (!directive.empty() && directive != "COPY" && directive != "REPLACE") {
    return {EError::kInvalidArgument, "Unknown metadata directive."};
  }
  metadata = directive == "REPLACE" ? EMetadata::kReplace : EMetadata::kCopy;
  return {};
}

}  // namespace Tansy::CloudStorage::S3
