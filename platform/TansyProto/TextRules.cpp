#include "TansyProto/TextRules.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace TansyProto {

namespace details {
namespace {

// Says how the first byte identifies a sequence, and gives the smallest character that may be written with that length.
struct Utf8Form {
  unsigned char mask;
  unsigned char lead;
  std::size_t length;
  char32_t least;
};
constexpr std::array<Utf8Form, 4> kForms{{
    {0x80, 0x00, 1, 0x0},
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
}};

bool IsCharacter(char32_t value) {
  return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

bool Decode(std::string_view text, const Utf8Form& form, char32_t& character) {
  if (text.size() < form.length) {
    return false;
  }
  char32_t value = static_cast<unsigned char>(text.front()) & static_cast<unsigned char>(~form.mask);
  for (std::size_t i = 1; i < form.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) {
      return false;
    }
    value = (value << 6) | (byte & 0x3F);
  }
  character = value;
  return value >= form.least && IsCharacter(value);
}

// Most text consists of plain characters only, and then needs one comparison per byte.
std::size_t CountPlain(std::string_view text) {
  const auto is_plain = [](char c) {
    return static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x80;
  };
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_plain) - text.begin());
}

}  // namespace
}  // namespace details

bool TakeUtf8(std::string_view& text, char32_t& character) {
  const auto first = static_cast<unsigned char>(text.front());
  for (const auto& form : details::kForms) {
    if ((first & form.mask) == form.lead && details::Decode(text, form, character)) {
      text.remove_prefix(form.length);
      return true;
    }
  }
  text.remove_prefix(1);
  return false;
}

bool IsXmlCharacter(char32_t character) {
  if (character < 0x20) {
    return character == '\t' || character == '\n' || character == '\r';
  }
  return character != 0xFFFE && character != 0xFFFF && details::IsCharacter(character);
}

bool IsXmlText(std::string_view text) {
  char32_t character = 0;
  for (text.remove_prefix(details::CountPlain(text)); !text.empty(); text.remove_prefix(details::CountPlain(text))) {
    if (!TakeUtf8(text, character) || !IsXmlCharacter(character)) {
      return false;
    }
  }
  return true;
}

std::string MakeCarriable(std::string_view text, bool for_xml) {
  std::string carriable;
  carriable.reserve(text.size());
  char32_t character = 0;
  for (;;) {
    const std::size_t plain = details::CountPlain(text);
    carriable.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) {
      return carriable;
    }
    const char* start = text.data();
    if (TakeUtf8(text, character) && (!for_xml || IsXmlCharacter(character))) {
      carriable.append(start, text.data());
    } else {
      carriable.append("\xEF\xBF\xBD");
    }
  }
}

bool ParseInteger(std::string_view text, std::int64_t& value) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const auto start = text.find_first_not_of(kBlanks);
  if (start == std::string_view::npos) {
    return false;
  }
  text = text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
  if (text.front() == '+' && text.size() > 1 && text[1] != '-') {
    text.remove_prefix(1);
  }
  std::int64_t parsed = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
    return false;
  }
  value = parsed;
  return true;
}

}  // namespace TansyProto
