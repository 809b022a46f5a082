#include "TansyBase/StringUtil.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <system_error>

#include "TansyBase/CodePage.h"
#include "TansyBase/Utf8.h"

namespace TansyBase {

std::string StringUtil::str_fmt(const char* format, ...) {
  char buffer[512];
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  std::string text;
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof buffer) {
    text.assign(buffer, static_cast<std::size_t>(length));
  } else if (length >= 0) {
    text.resize(static_cast<std::size_t>(length));
    static_cast<void>(std::vsnprintf(text.data(), text.size() + 1, format, again));
  }
  va_end(again);
  return text;
}

std::string StringUtil::StringReplace(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  std::size_t copied = 0;
  if (!from.empty()) {
    for (std::size_t at = text.find(from); at != std::string_view::npos; at = text.find(from, copied)) {
      out.append(text, copied, at - copied).append(to);
      copied = at + from.size();
    }
  }
  return out.append(text, copied);
}

std::string StringUtil::StringPreventSQLInjection(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '\'') {
      out += "''";
    } else if (c != '\0') {
      out += c;
    }
  }
  return out;
}

bool StringUtil::PercentDecode(std::string_view text, std::string& decoded) {
  constexpr int kHexadecimal = 16;
  constexpr std::size_t kDigits = 2;
  decoded.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + 1, kDigits);
    unsigned char byte = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, kHexadecimal);
    if (error != std::errc{} || end != digits.data() + kDigits) {
      return false;
    }
    decoded += static_cast<char>(byte);
    i += kDigits;
  }
  return true;
}

std::string StringUtil::UTF8ToLocal(std::string_view utf8) {
  return CodePage::Utf8ToLocal(utf8);
}

std::string StringUtil::UTF8ToGBK(std::string_view utf8) {
  return CodePage::Utf8ToGbk(utf8);
}

std::wstring StringUtil::UTF8ToWide(std::string_view utf8) {
  return Utf8ToWide(utf8);
}

}  // namespace TansyBase
