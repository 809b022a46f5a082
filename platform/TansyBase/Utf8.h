// Reading UTF-8 character by character. Internal to the base library.
#ifndef TANSY_BASE_UTF8_H
#define TANSY_BASE_UTF8_H

#include <string>
#include <string_view>

namespace TansyBase {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;

// Removes the first character of `text`, which is not empty, and returns it. Malformed bytes (RFC 3629: overlong forms
// and surrogates too) are removed as far as they could have been the beginning of a character, at least one, and count
// as one U+FFFD.
char32_t TakeUtf8(std::string_view& text);

// Does what StringUtil::UTF8ToWide promises.
std::wstring Utf8ToWide(std::string_view utf8);

}  // namespace TansyBase

#endif  // TANSY_BASE_UTF8_H
