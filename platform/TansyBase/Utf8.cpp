#include "TansyBase/Utf8.h"

#include <cstddef>

namespace TansyBase {
namespace {

// Says what may follow a lead byte: how many bytes, and the bounds of the first of them. The bounds exclude overlong
// forms, surrogates and values beyond U+10FFFF.
struct Tail {
  std::size_t length;
  unsigned char first_low;
  unsigned char first_high;
};

Tail TailOf(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) {
    return {1, 0x80, 0xBF};
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
    return {2, low, high};
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
    return {3, low, high};
  }
  return {0, 0, 0};
}

}  // namespace

char32_t TakeUtf8(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text.front());
  text.remove_prefix(1);
  if (lead < 0x80) {
    return lead;
  }
  const Tail tail = TailOf(lead);
  if (tail.length == 0) {
    return kReplacementCharacter;
  }
  char32_t point = lead & (0x3FU >> tail.length);
  for (std::size_t i = 0; i < tail.length; ++i) {
    const auto byte = text.empty() ? static_cast<unsigned char>(0) : static_cast<unsigned char>(text.front());
    const bool fits = i == 0 ? byte >= tail.first_low && byte <= tail.first_high : (byte & 0xC0) == 0x80;
    if (!fits) {
      return kReplacementCharacter;
    }
    point = (point << 6) | (byte & 0x3FU);
    text.remove_prefix(1);
  }
  return point;
}

std::wstring Utf8ToWide(std::string_view utf8) {
  std::wstring wide;
  wide.reserve(utf8.size());
  while (!utf8.empty()) {
    const char32_t point = TakeUtf8(utf8);
    if (sizeof(wchar_t) == 2 && point > 0xFFFF) {
      wide += static_cast<wchar_t>(0xD800 + ((point - 0x10000) >> 10));
      wide += static_cast<wchar_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
    } else {
      wide += static_cast<wchar_t>(point);
    }
  }
  return wide;
}

}  // namespace TansyBase
