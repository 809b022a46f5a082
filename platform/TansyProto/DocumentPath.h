// The paths by which both kinds of document are read and written: "/Root/Child/Part[3]/Size".
#ifndef TANSY_PROTO_DOCUMENT_PATH_H
#define TANSY_PROTO_DOCUMENT_PATH_H

#include <array>
#include <cstddef>
#include <string_view>

namespace TansyProto {

// The number of levels that a document may have, parsed or written. Recursive code then stays far from the end of the
// smallest thread's stack.
inline constexpr std::size_t kMaxDepth = 64;
// The bytes and values that a parsed document may have. A value costs up to 128 bytes in memory and as few as two in
// the text, so the text's size alone limits nothing.
inline constexpr std::size_t kMaxDocumentBytes = std::size_t{64} << 20;
inline constexpr std::size_t kMaxDocumentValues = 1'000'000;

struct PathStep {
  std::string_view name;
  std::size_t index = 0;  // 0 when the path has none
};

// The steps of a path; they point into its text.
class CDocumentPath {
 public:
  // The path is not valid when it has no leading slash, an empty name, anything in brackets but a decimal number from
  // 1, or more than kMaxDepth steps.
  explicit CDocumentPath(std::string_view path);

  bool IsValid() const { return count_ > 0; }
  const PathStep* begin() const { return steps_.data(); }
  const PathStep* end() const { return steps_.data() + count_; }

 private:
  std::array<PathStep, kMaxDepth> steps_;
  std::size_t count_ = 0;
};

}  // namespace TansyProto

#endif  // TANSY_PROTO_DOCUMENT_PATH_H
