#ifndef TANSY_SRC_STORAGE_SERVER_SIGNATURE_DATE_H
#define TANSY_SRC_STORAGE_SERVER_SIGNATURE_DATE_H

#include <cstdint>
#include <string_view>

namespace Tansy::CloudStorage {

// Sets how far the Date of a signed header may be from the clock, in minutes and for both servers; 0 compares nothing.
// Threads: any.
void SetDateWindow(std::uint32_t minutes);
std::uint32_t DateWindow();

// Returns true when `date`, the value of a Date header, lies inside the window, and always when there is no window.
bool IsDateInWindow(std::string_view date);

// Returns true when `expires`, a number of seconds since 1970 in decimal digits, names a moment that is not past.
bool IsNotExpired(std::string_view expires);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_SIGNATURE_DATE_H
