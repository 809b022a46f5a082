#include "GlobPattern.h"

#include <cstddef>

namespace Tansy::Cli {
namespace details {
namespace {

// One element of a pattern that stands for one byte.
struct Element {
  std::size_t length = 0;  // in the pattern
  bool fits = false;
};

// Reads a set, "[...]"; its length is 0 when it is not closed.
Element ReadSet(std::string_view pattern, unsigned char byte) {
  std::size_t at = 1;
  const bool is_negated = at < pattern.size() && pattern[at] == '!';
  at += is_negated ? 1 : 0;
  bool fits = false;
  for (const std::size_t first = at; at < pattern.size(); ++at) {
    if (pattern[at] == ']' && at > first) {
      return {at + 1, fits != is_negated};
    }
    const auto low = static_cast<unsigned char>(pattern[at]);
    auto high = low;
    if (at + 2 < pattern.size() && pattern[at + 1] == '-' && pattern[at + 2] != ']') {
      high = static_cast<unsigned char>(pattern[at + 2]);
      at += 2;
    }
    fits = fits || (low <= byte && byte <= high);
  }
  return {};
}

Element ReadElement(std::string_view pattern, char c) {
  if (pattern.front() == '?') {
    return {1, true};
  }
  if (pattern.front() == '[') {
    if (const Element set = ReadSet(pattern, static_cast<unsigned char>(c)); set.length > 0) {
      return set;
    }
  }
  if (pattern.front() == '\\' && pattern.size() > 1) {
    return {2, pattern[1] == c};
  }
  return {1, pattern.front() == c};
}

}  // namespace
}  // namespace details

// When what follows a star does not fit, the star takes one byte more; only the last star can need that.
bool FitsPattern(std::string_view name, std::string_view pattern) {
  constexpr std::size_t kNone = std::string_view::npos;
  std::size_t at = 0;
  std::size_t in_pattern = 0;
  std::size_t star = kNone;
  std::size_t star_end = 0;  // up to which byte of the name the last star reaches
  while (at < name.size()) {
    if (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
      star = in_pattern++;
      star_end = at;
      continue;
    }
    const details::Element element =
        in_pattern < pattern.size() ? details::ReadElement(pattern.substr(in_pattern), name[at]) : details::Element{};
    if (element.fits) {
      ++at;
      in_pattern += element.length;
    } else if (star != kNone) {
      at = ++star_end;
      in_pattern = star + 1;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', in_pattern) == kNone;
}

}  // namespace Tansy::Cli
