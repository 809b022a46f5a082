#include "TagCheck.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <limits>

#include "Digest.h"
#include "LocalFile.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kWhole = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t kReadBytes = std::size_t{256} << 10;

// Gives N of a tag "DIGEST-N"; 0 when the tag is no such one.
std::uint64_t PartsOf(const std::string& tag) {
  const std::size_t dash = tag.find('-');
  std::uint64_t parts = 0;
  if (dash != std::string::npos) {
    std::from_chars(tag.data() + dash + 1, tag.data() + tag.size(), parts);
  }
  return parts;
}

}  // namespace
}  // namespace details

// Computes the tag of bytes that were sent in parts of one size, or whole.
class CTagCheck::CCandidate {
 public:
  explicit CCandidate(std::uint64_t part_size) : part_size_(part_size) {}

  void Add(const char* data, std::size_t size) {
    while (size > 0) {
      const auto bytes = static_cast<std::size_t>(std::min<std::uint64_t>(size, part_size_ - in_part_));
      part_.Add(data, bytes);
      data += bytes;
      size -= bytes;
      in_part_ += bytes;
      if (in_part_ == part_size_) {
        EndPart();
      }
    }
  }

  std::string Tag() {
    if (part_size_ == details::kWhole) {
      return TansyNet::S3Signing::ToHex(part_.Finish());
    }
    if (in_part_ > 0 || parts_ == 0) {
      EndPart();
    }
    return TansyNet::S3Signing::ToHex(all_.Finish()) + "-" + std::to_string(parts_);
  }

 private:
  void EndPart() {
    const std::string digest = part_.Finish();
    all_.Add(digest.data(), digest.size());
    part_ = CDigest(CDigest::EKind::kMd5);
    in_part_ = 0;
    ++parts_;
  }

  std::uint64_t part_size_;
  std::uint64_t in_part_ = 0;
  std::uint64_t parts_ = 0;
  CDigest part_{CDigest::EKind::kMd5};
  CDigest all_{CDigest::EKind::kMd5};
};

CTagCheck::CTagCheck(const std::string& tag, std::uint64_t size) : tag_(tag) {
  const std::uint64_t parts = details::PartsOf(tag);
  if (parts == 0) {
    candidates_.emplace_back(details::kWhole);
  }
  for (const std::uint64_t part_size : LikelyPartSizes(size, parts)) {
    candidates_.emplace_back(part_size);
  }
}

CTagCheck::~CTagCheck() = default;

void CTagCheck::Add(const char* data, std::size_t size) {
  for (CCandidate& candidate : candidates_) {
    candidate.Add(data, size);
  }
}

bool CTagCheck::Fits() {
  return std::any_of(candidates_.begin(), candidates_.end(),
                     [this](CCandidate& candidate) { return candidate.Tag() == tag_; });
}

std::vector<std::uint64_t> LikelyPartSizes(std::uint64_t size, std::uint64_t parts) {
  // This program and others take 8 MiB; then come those of other clients, in the order in which they are met.
  static constexpr std::uint64_t kMebibytes[] = {8, 16, 15, 5, 10, 32, 64, 100, 128, 256, 512, 1024};
  std::vector<std::uint64_t> sizes;
  for (const std::uint64_t mebibytes : kMebibytes) {
    const std::uint64_t part_size = mebibytes * details::kMiB;
    if (parts > 0 && std::max<std::uint64_t>((size + part_size - 1) / part_size, 1) == parts) {
      sizes.push_back(part_size);
    }
  }
  // All sizes that hold the object in one part give the same tag.
  if (parts == 1 && sizes.size() > 1) {
    sizes.resize(1);
  }
  return sizes;
}

bool IsFileOfTag(const std::string& path, std::uint64_t size, const std::string& tag) {
  const StdioFile file = OpenForReading(path);
  CTagCheck check(tag, size);
  std::vector<char> buffer(details::kReadBytes);
  std::uint64_t total = 0;
  for (;;) {
    const std::size_t bytes = std::fread(buffer.data(), 1, buffer.size(), file.get());
    if (bytes == 0) {
      break;
    }
    check.Add(buffer.data(), bytes);
    total += bytes;
  }
  if (std::ferror(file.get()) != 0) {
    throw FailureOfFile(path, errno);
  }
  return total == size && check.Fits();
}

}  // namespace Tansy::Cli
