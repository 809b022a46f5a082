#include <openssl/evp.h>

#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <string>

#include "Commands.h"

namespace TansyBench {

void RunDigest(std::uint64_t size) {
  constexpr std::clock_t kTime = CLOCKS_PER_SEC / 4;
  const std::string bytes(size, 'x');
  unsigned char digest[EVP_MAX_MD_SIZE];
  std::uint64_t count = 0;
  std::clock_t used = 0;
  // Processor time, so that other programs beside this one do not count.
  for (const std::clock_t begin = std::clock(); used < kTime; used = std::clock() - begin) {
    if (EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_md5(), nullptr) != 1) {
      throw std::runtime_error("no MD5 digest");
    }
    ++count;
  }
  std::printf("%.2f\n", 1e6 * static_cast<double>(used) / CLOCKS_PER_SEC / static_cast<double>(count));
}

}  // namespace TansyBench
