// The dates of requests and answers. Any thread.
#ifndef TANSY_SRC_COMMON_HTTP_DATE_H
#define TANSY_SRC_COMMON_HTTP_DATE_H

#include <ctime>
#include <string>
#include <string_view>

namespace Tansy::CloudStorage {

// The current time as an HTTP date whose day is padded with a blank: "Tue,  3 Nov 2026 08:05:09 GMT". Empty when the
// clock cannot be converted.
// Fixed: docs/compatibility.md, "Dates with a blank".
std::string FormatHttpDate();
// Reads an HTTP date, its day padded with a blank, with a zero or not at all. -1 for any other text and for days before
// 1970.
std::time_t ParseHttpDate(std::string_view text);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_COMMON_HTTP_DATE_H
