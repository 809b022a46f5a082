// The text and numbers that a document may carry.
#ifndef TANSY_PROTO_TEXT_RULES_H
#define TANSY_PROTO_TEXT_RULES_H

#include <cstdint>
#include <string>
#include <string_view>

namespace TansyProto {

// Takes the first character off a text. Returns false, with `text` one byte shorter, when it does not start with a
// well-formed UTF-8 sequence (no overlong forms, no surrogates, nothing above U+10FFFF).
bool TakeUtf8(std::string_view& text, char32_t& character);

// Returns true for the characters that XML 1.0 allows: tab, line feed, carriage return and everything from the blank
// on, but not U+FFFE and U+FFFF.
bool IsXmlCharacter(char32_t character);
// Returns true when all of the text is UTF-8 and made of such characters.
bool IsXmlText(std::string_view text);

// Replaces every byte that is not UTF-8, and with `for_xml` every character that XML does not allow, by U+FFFD.
std::string MakeCarriable(std::string_view text, bool for_xml);

// Reads a decimal integer of 64 bits, with a sign or without, with or without blanks around it.
bool ParseInteger(std::string_view text, std::int64_t& value);

}  // namespace TansyProto

#endif  // TANSY_PROTO_TEXT_RULES_H
