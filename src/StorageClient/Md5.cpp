#include "StorageClient/Md5.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::size_t kBlockBytes = 64;
constexpr std::size_t kLengthOffset = 56;  // place of the bit length in the last block

// The values are floor(2^32 * |sin(i + 1)|), as the RFC lists them.
constexpr std::array<std::uint32_t, 64> kSines{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

// The rotations of the four rounds; each repeats after four steps.
constexpr int kRotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

constexpr std::size_t WordOfStep(std::size_t step) {
  switch (step / 16) {
    case 0:
      return step;
    case 1:
      return (5 * step + 1) % 16;
    case 2:
      return (3 * step + 5) % 16;
    default:
      return (7 * step) % 16;
  }
}

std::uint32_t LoadLittleEndian(const std::uint8_t* bytes) {
  if constexpr (std::endian::native == std::endian::little) {
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
  } else {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
  }
}

void StoreLittleEndian(std::uint64_t value, std::uint8_t* bytes, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

// Does one of the 64 steps. Each step waits for the one before it, so the time depends on the way from the newest value
// `b` to the result. Round 2's two terms never have a bit in common, so they are added separately: the term without `b`
// can then be added before `b` is known.
template <std::size_t Step>
inline void DoStep(std::array<std::uint32_t, 4>& state, const std::uint8_t* block) {
  std::uint32_t& a = state[(64 - Step) % 4];
  const std::uint32_t b = state[(65 - Step) % 4];
  const std::uint32_t c = state[(66 - Step) % 4];
  const std::uint32_t d = state[(67 - Step) % 4];
  std::uint32_t sum = a + kSines[Step] + LoadLittleEndian(block + 4 * WordOfStep(Step));
  if constexpr (Step < 16) {
    sum += d ^ (b & (c ^ d));
  } else if constexpr (Step < 32) {
    sum += c & ~d;
    sum += b & d;
  } else if constexpr (Step < 48) {
    sum += b ^ (c ^ d);
  } else {
    sum += c ^ (b | ~d);
  }
  a = b + std::rotl(sum, kRotations[Step / 16][Step % 4]);
}

template <std::size_t... Steps>
inline void DoSteps(std::array<std::uint32_t, 4>& state, const std::uint8_t* block, std::index_sequence<Steps...>) {
  (DoStep<Steps>(state, block), ...);
}

void ProcessBlocks(std::array<std::uint32_t, 4>& chaining, const std::uint8_t* data, std::size_t blocks) {
  std::array<std::uint32_t, 4> sum = chaining;
  for (; blocks > 0; --blocks, data += kBlockBytes) {
    std::array<std::uint32_t, 4> state = sum;
    DoSteps(state, data, std::make_index_sequence<64>{});
    for (std::size_t i = 0; i < sum.size(); ++i) {
      sum[i] += state[i];
    }
  }
  chaining = sum;
}

}  // namespace
}  // namespace details

void CMd5::Update(const void* data, std::size_t size) {
  if (size == 0) {
    return;
  }
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  total_bytes_ += size;
  if (pending_bytes_ > 0) {
    const std::size_t taken = std::min(size, kBlockBytes - pending_bytes_);
    std::memcpy(pending_.data() + pending_bytes_, bytes, taken);
    pending_bytes_ += taken;
    bytes += taken;
    size -= taken;
    if (pending_bytes_ < kBlockBytes) {
      return;
    }
    details::ProcessBlocks(state_, pending_.data(), 1);
  }
  details::ProcessBlocks(state_, bytes, size / kBlockBytes);
  pending_bytes_ = size % kBlockBytes;
  std::memcpy(pending_.data(), bytes + (size - pending_bytes_), pending_bytes_);
}

CMd5::Digest CMd5::Final() {
  const std::uint64_t total_bits = total_bytes_ * 8;
  pending_[pending_bytes_++] = 0x80;
  if (pending_bytes_ > details::kLengthOffset) {
    std::memset(pending_.data() + pending_bytes_, 0, kBlockBytes - pending_bytes_);
    details::ProcessBlocks(state_, pending_.data(), 1);
    pending_bytes_ = 0;
  }
  std::memset(pending_.data() + pending_bytes_, 0, details::kLengthOffset - pending_bytes_);
  details::StoreLittleEndian(total_bits, pending_.data() + details::kLengthOffset, 8);
  details::ProcessBlocks(state_, pending_.data(), 1);

  Digest digest{};
  for (std::size_t i = 0; i < state_.size(); ++i) {
    details::StoreLittleEndian(state_[i], digest.data() + 4 * i, 4);
  }
  return digest;
}

CMd5::Digest CMd5::Compute(const void* data, std::size_t size) {
  CMd5 md5;
  md5.Update(data, size);
  return md5.Final();
}

}  // namespace Tansy::CloudStorage
