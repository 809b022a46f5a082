#ifndef TANSY_BASE_STRING_UTIL_H
#define TANSY_BASE_STRING_UTIL_H

#include <string>
#include <string_view>

namespace TansyBase {

// Text helpers without state; all may be called from any thread.
class StringUtil {
 public:
  // printf into a string of whatever length it takes.
  static std::string str_fmt(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 1, 2)))
#endif
      ;

  // `text` with every occurrence of `from` replaced by `to`, left to right, replacements not searched again. An empty
  // `from` changes nothing.
  static std::string StringReplace(std::string_view text, std::string_view from, std::string_view to);

  // `text` made safe between single quotes of an SQL statement: quotes are doubled, NUL bytes dropped. What the
  // database stores is the text itself.
  static std::string StringPreventSQLInjection(std::string_view text);

  // UTF-8 to the local code page (for log lines): the text itself where the local code page is UTF-8.
  static std::string UTF8ToLocal(std::string_view utf8);
  // UTF-8 to UTF-16 or UTF-32, as wide as wchar_t; malformed sequences become U+FFFD.
  static std::wstring UTF8ToWide(std::string_view utf8);
  // UTF-8 to GBK bytes (code page 936); characters that GBK lacks become "?".
  static std::string UTF8ToGBK(std::string_view utf8);
};

}  // namespace TansyBase

#endif  // TANSY_BASE_STRING_UTIL_H
