#ifndef TANSY_BASE_STRING_UTIL_H
#define TANSY_BASE_STRING_UTIL_H

#include <string>
#include <string_view>

namespace TansyBase {

// Text helpers without state; all may be called from any thread.
class StringUtil {
 public:
  // Formats like printf into a string of whatever length is needed.
  static std::string str_fmt(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 1, 2)))
#endif
      ;

  // Gives `text` with every occurrence of `from` replaced by `to`, from left to right; replacements are not searched
  // again. An empty `from` changes nothing.
  static std::string StringReplace(std::string_view text, std::string_view from, std::string_view to);

  // Makes `text` safe between single quotes of an SQL statement: quotes are doubled and NUL bytes are dropped. The
  // database then stores the text itself.
  static std::string StringPreventSQLInjection(std::string_view text);

  // Turns each %41 of an address into its byte. Returns false for what is no such code; `decoded` is then not whole.
  static bool PercentDecode(std::string_view text, std::string& decoded);

  // Converts UTF-8 to the local code page (for log lines); where that is UTF-8, the text stays as it is.
  static std::string UTF8ToLocal(std::string_view utf8);
  // Converts UTF-8 to UTF-16 or UTF-32, as wide as wchar_t is; malformed sequences become U+FFFD.
  static std::wstring UTF8ToWide(std::string_view utf8);
  // Converts UTF-8 to GBK bytes (code page 936); characters that GBK lacks become "?".
  static std::string UTF8ToGBK(std::string_view utf8);
};

}  // namespace TansyBase

#endif  // TANSY_BASE_STRING_UTIL_H
