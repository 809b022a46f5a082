#ifndef TANSY_TESTS_FAKES_RANDOM_BYTES_H
#define TANSY_TESTS_FAKES_RANDOM_BYTES_H

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

namespace Tansy::Tests {

// Bytes that are the same for the same seed, differ with the seed, and do not repeat within any length that matters: a
// piece that ends up in the wrong place is noticed.
inline std::string RandomBytes(std::size_t size, std::uint64_t seed = 1) {
  std::mt19937_64 generator(seed);
  std::string bytes(size + sizeof(std::uint64_t), '\0');
  for (std::size_t i = 0; i < size; i += sizeof(std::uint64_t)) {
    const std::uint64_t number = generator();
    std::memcpy(bytes.data() + i, &number, sizeof number);
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_RANDOM_BYTES_H
