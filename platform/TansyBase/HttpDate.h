#ifndef TANSY_BASE_HTTP_DATE_H
#define TANSY_BASE_HTTP_DATE_H

#include <ctime>
#include <string>
#include <string_view>

namespace TansyBase {

// Dates of HTTP, in GMT, with English names whatever the locale says. Threads: any.
class HttpDate {
 public:
  // Writes a date like "Tue,  3 Nov 2026 08:05:09 GMT". `padding`, a blank or '0', stands before a day of one digit
  // (HTTP itself has '0'). The text is empty for a time that no calendar holds.
  static std::string Format(std::time_t time, char padding);
  // Reads a date whose day has one or two places. Returns -1 when the text is anything else or lies before 1970.
  static std::time_t Parse(std::string_view text);
};

}  // namespace TansyBase

#endif  // TANSY_BASE_HTTP_DATE_H
