#include "TansyProto/DocumentPath.h"

#include <charconv>
#include <system_error>

namespace TansyProto {

namespace details {
namespace {

bool ParseIndex(std::string_view text, std::size_t& index) {
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), index);
  return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() && index > 0;
}

bool ParseStep(std::string_view text, PathStep& step) {
  const auto bracket = text.find('[');
  step = {text.substr(0, bracket), 0};
  if (step.name.empty() || step.name.find(']') != std::string_view::npos) {
    return false;
  }
  if (bracket == std::string_view::npos) {
    return true;
  }
  return text.back() == ']' && ParseIndex(text.substr(bracket + 1, text.size() - bracket - 2), step.index);
}

}  // namespace
}  // namespace details

CDocumentPath::CDocumentPath(std::string_view path) {
  std::size_t count = 0;
  while (!path.empty()) {
    if (path.front() != '/' || count == steps_.size()) {
      return;
    }
    path.remove_prefix(1);
    const std::string_view text = path.substr(0, path.find('/'));
    if (!details::ParseStep(text, steps_[count++])) {
      return;
    }
    path.remove_prefix(text.size());
  }
  count_ = count;
}

}  // namespace TansyProto
