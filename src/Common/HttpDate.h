// The dates of requests and answers. Threads: any.
#ifndef TANSY_SRC_COMMON_HTTP_DATE_H
#define TANSY_SRC_COMMON_HTTP_DATE_H

#include <ctime>
#include <string>
#include <string_view>

namespace Tansy::CloudStorage {

// Gives the current time as an HTTP date whose day is padded with a blank: "Tue,  3 Nov 2026 08:05:09 GMT". The text is
// empty when the clock cannot be converted.
// Fixed: docs/compatibility.md, "Dates with a blank".
std::string FormatHttpDate();
// Reads an HTTP date whose day is padded with a blank, with a zero or not at all. Returns -1 for any other text and for
// days before 1970.
std::time_t ParseHttpDate(std::string_view text);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_COMMON_HTTP_DATE_H
