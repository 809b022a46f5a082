// The bytes that the load programs send and expect: they differ from object to object, and anybody can make them again.
#ifndef TANSY_BENCH_CONTENT_H
#define TANSY_BENCH_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace TansyBench {

// The content of an object begins with its path, without the query. What follows is one block of 1 MiB of random bytes,
// repeated: the byte at offset N of the object is byte N % 1 MiB of the block.
//
// Threads: any, each an object of its own. Views are valid as long as the object.
class CContent {
 public:
  explicit CContent(std::string_view path);

  // Gives the bytes from `offset` on, at least one and at most `most`; a caller asks again for what is missing.
  std::string_view At(std::uint64_t offset, std::uint64_t most) const;

 private:
  const std::string path_;
};

}  // namespace TansyBench

#endif  // TANSY_BENCH_CONTENT_H
