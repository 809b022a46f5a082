#include "StorageServer/S3Server/S3Digest.h"

#include <openssl/evp.h>

#include <new>
#include <utility>
#include <variant>

#include "StorageServer/S3Server/S3Checksum.h"

namespace Tansy::CloudStorage::S3 {

namespace {

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

void Expect(bool done) {
  if (!done) {
    throw std::bad_alloc();
  }
}

// Algorithms are looked up by name once; doing so for each digest costs as much as the digest of a short text. They are
// never freed, because requests may still be under way at the end of the process.
const EVP_MD* Md5() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
  return algorithm;
}

const EVP_MD* Sha256() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
  return algorithm;
}

// A cryptographic digest.
class CHash {
 public:
  explicit CHash(const EVP_MD* algorithm) : algorithm_(algorithm), context_(EVP_MD_CTX_new()) {
    Expect(algorithm_ != nullptr && context_ != nullptr && EVP_DigestInit_ex(context_.get(), algorithm_, nullptr) == 1);
  }

  void Add(std::string_view bytes) { Expect(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1); }

  std::string Finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    Expect(EVP_DigestFinal_ex(context_.get(), digest, &length) == 1);
    Expect(EVP_DigestInit_ex(context_.get(), algorithm_, nullptr) == 1);
    return {reinterpret_cast<const char*>(digest), length};
  }

 private:
  const EVP_MD* algorithm_;
  std::unique_ptr<EVP_MD_CTX, FreeContext> context_;
};

template <typename Word>
std::string MostSignificantFirst(Word word) {
  std::string bytes;
  for (std::size_t i = sizeof(Word); i > 0; --i) {
    bytes += static_cast<char>(word >> (8 * (i - 1)));
  }
  return bytes;
}

template <typename Checksum>
class CCheck {
 public:
  void Add(std::string_view bytes) { checksum_.Add(bytes); }
  std::string Finish() { return MostSignificantFirst(std::exchange(checksum_, {}).Value()); }

 private:
  Checksum checksum_;
};

template <typename Word>
Word FromMostSignificant(std::string_view bytes) {
  Word word = 0;
  for (const char byte : bytes) {
    word = static_cast<Word>(word << 8) | static_cast<unsigned char>(byte);
  }
  return word;
}

template <typename Checksum>
std::optional<std::string> Join(std::string_view first, std::string_view second, std::uint64_t length) {
  using Word = decltype(Checksum().Value());
  if (first.size() != sizeof(Word) || second.size() != sizeof(Word)) {
    return std::nullopt;
  }
  return MostSignificantFirst(
      Checksum::Join(FromMostSignificant<Word>(first), FromMostSignificant<Word>(second), length));
}

using Calculation = std::variant<CHash, CCheck<CCrc32>, CCheck<CCrc32c>, CCheck<CCrc64Nvme>>;

Calculation MakeCalculation(EDigest kind) {
  switch (kind) {
    case EDigest::kMd5:
      return CHash(Md5());
    case EDigest::kSha1:
      return CHash(EVP_sha1());
    case EDigest::kSha256:
      return CHash(Sha256());
    case EDigest::kCrc32:
      return CCheck<CCrc32>();
    case EDigest::kCrc32c:
      return CCheck<CCrc32c>();
    case EDigest::kCrc64Nvme:
      break;
  }
  return CCheck<CCrc64Nvme>();
}

}  // namespace

struct CDigest::Impl {
  EDigest kind;
  Calculation calculation;
};

CDigest::CDigest(EDigest kind) : impl_(new Impl{kind, MakeCalculation(kind)}) {}
CDigest::~CDigest() = default;
CDigest::CDigest(CDigest&&) noexcept = default;
CDigest& CDigest::operator=(CDigest&&) noexcept = default;

EDigest CDigest::Kind() const {
  return impl_->kind;
}

void CDigest::Add(std::string_view bytes) {
  std::visit([bytes](auto& calculation) { calculation.Add(bytes); }, impl_->calculation);
}

std::string CDigest::Finish() {
  return std::visit([](auto& calculation) { return calculation.Finish(); }, impl_->calculation);
}

std::optional<std::string> JoinChecksums(EDigest kind, std::string_view first, std::string_view second,
                                         std::uint64_t length) {
  switch (kind) {
    case EDigest::kCrc32:
      return Join<CCrc32>(first, second, length);
    case EDigest::kCrc32c:
      return Join<CCrc32c>(first, second, length);
    case EDigest::kCrc64Nvme:
      return Join<CCrc64Nvme>(first, second, length);
    case EDigest::kMd5:
    case EDigest::kSha1:
    case EDigest::kSha256:
      break;
  }
  return std::nullopt;
}

std::string DigestOf(EDigest kind, std::string_view text) {
  // Each request has two or three of these, and to set one up costs as much as to use it.
  if (kind == EDigest::kSha256) {
    thread_local CHash hash(Sha256());
    hash.Add(text);
    return hash.Finish();
  }
  CDigest digest(kind);
  digest.Add(text);
  return digest.Finish();
}

std::optional<EDigest> ChecksumKind(std::string_view header) {
  constexpr std::pair<std::string_view, EDigest> kKinds[] = {
      {"x-amz-checksum-crc32", EDigest::kCrc32},         {"x-amz-checksum-crc32c", EDigest::kCrc32c},
      {"x-amz-checksum-crc64nvme", EDigest::kCrc64Nvme}, {"x-amz-checksum-sha1", EDigest::kSha1},
      {"x-amz-checksum-sha256", EDigest::kSha256},
  };
  for (const auto& [name, kind] : kKinds) {
    if (name == header) {
      return kind;
    }
  }
  return std::nullopt;
}

}  // namespace Tansy::CloudStorage::S3
