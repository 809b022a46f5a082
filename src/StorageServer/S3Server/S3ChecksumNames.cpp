#include "StorageServer/S3Server/S3ChecksumNames.h"

#include <algorithm>

namespace Tansy::CloudStorage::S3 {

const ChecksumNames& NamesOf(EDigest kind) {
  const auto* const found = std::find_if(kChecksumNames.begin(), kChecksumNames.end(),
                                         [kind](const ChecksumNames& names) { return names.kind == kind; });
  return found != kChecksumNames.end() ? *found : kChecksumNames.front();
}

std::optional<EDigest> ChecksumOfAlgorithm(std::string_view algorithm) {
  const auto* const found = std::find_if(kChecksumNames.begin(), kChecksumNames.end(),
                                         [&](const ChecksumNames& names) { return names.algorithm == algorithm; });
  return found != kChecksumNames.end() ? std::optional<EDigest>(found->kind) : std::nullopt;
}

}  // namespace Tansy::CloudStorage::S3
