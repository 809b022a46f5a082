#include "Content.h"

#include <algorithm>
#include <random>

namespace TansyBench {
namespace {

constexpr std::size_t kBlock = std::size_t{1} << 20;

const std::string& Block() {
  static const std::string block = [] {
    std::mt19937_64 random(20261121);  // always the same bytes
    std::string bytes(kBlock, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 56); });
    return bytes;
  }();
  return block;
}

}  // namespace

CContent::CContent(std::string_view path) : path_(path.substr(0, path.find('?'))) {}

std::string_view CContent::At(std::uint64_t offset, std::uint64_t most) const {
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(most, kBlock));
  if (offset < path_.size()) {
    return std::string_view(path_).substr(static_cast<std::size_t>(offset), size);
  }
  return std::string_view(Block()).substr(static_cast<std::size_t>(offset % kBlock), size);
}

}  // namespace TansyBench
