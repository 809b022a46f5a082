#include "logging/Text.h"

#include <algorithm>
#include <utility>

#include "logging/Record.h"

namespace logging::details {
namespace {

constexpr std::string_view kMask = "***";

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Gives the length of the UTF-8 character at the start of `text` (RFC 3629: no overlong forms, no surrogates); 0 when
// there is none.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                             : (lead & 0xF0) == 0xE0        ? 3
                             : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                            : 0;
  if (length == 0 || text.size() < length ||
      !std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length), IsContinuation)) {
    return 0;
  }
  const bool overlong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool foreign = (lead == 0xED && byte(1) > 0x9F) || (lead == 0xF4 && byte(1) > 0x8F);
  return overlong || foreign ? 0 : length;
}

// Recognises characters of more than one byte that still end a line or start a terminal command: U+0080 to U+009F, and
// the line and paragraph separators U+2028 and U+2029.
bool IsWideControl(std::string_view character) {
  return (character.size() == 2 && character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0) ||
         character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9";
}

void AppendHex(std::string& out, char c) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  out += "\\x";
  out += kDigits[byte >> 4];
  out += kDigits[byte & 15];
}

// Gives the length of the beginning of `text` that is written as it is: printable ASCII, which most texts are all of.
std::size_t PlainLength(std::string_view text) {
  const auto plain = [](char c) { return c >= 0x20 && c < 0x7F; };
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), plain) - text.begin());
}

void AppendControl(std::string& out, char c) {
  switch (c) {
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      AppendHex(out, c);
  }
}

using Range = std::pair<std::size_t, std::size_t>;  // first byte, and the byte after the last

// Finds every occurrence of `secret`, also overlapping ones.
void FindAll(std::string_view text, std::string_view secret, std::vector<Range>& found) {
  for (std::size_t at = text.find(secret); at != std::string_view::npos; at = text.find(secret, at + 1)) {
    found.emplace_back(at, at + secret.size());
  }
}

// Finds the longest beginning of `secret` with which the text ends.
void FindBeginningAtEnd(std::string_view text, std::string_view secret, std::vector<Range>& found) {
  for (std::size_t length = std::min(secret.size() - 1, text.size()); length > 0; --length) {
    if (text.ends_with(secret.substr(0, length))) {
      found.emplace_back(text.size() - length, text.size());
      return;
    }
  }
}

}  // namespace

std::string_view CutAtCharacter(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) {
    return text;
  }
  std::size_t end = limit;
  // A character has at most three continuation bytes. A text with more of them is no UTF-8 and is cut right there.
  while (end > 0 && limit - end < 3 && IsContinuation(text[end])) {
    --end;
  }
  return text.substr(0, IsContinuation(text[end]) ? limit : end);
}

void AppendEscaped(std::string& out, std::string_view text) {
  for (;;) {
    const std::size_t plain = PlainLength(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) {
      return;
    }
    const char c = text.front();
    const std::size_t length = CharacterLength(text);
    if (length == 0) {
      AppendHex(out, c);
    } else if (length == 1 && (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)) {
      AppendControl(out, c);
    } else if (const std::string_view character = text.substr(0, length); IsWideControl(character)) {
      for (const char byte : character) {
        AppendHex(out, byte);
      }
    } else {
      out += character;
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
}

std::string Masked(std::string_view text, const std::vector<std::string>& secrets, bool cut) {
  std::vector<Range> found;
  const std::string_view before_mark = cut ? text.substr(0, text.size() - kCutMark.size()) : text;
  for (const std::string& secret : secrets) {
    FindAll(text, secret, found);
    if (cut) {
      FindBeginningAtEnd(before_mark, secret, found);
    }
  }
  std::sort(found.begin(), found.end());
  std::string out;
  std::size_t copied = 0;  // everything before this position is in `out` or masked
  for (std::size_t i = 0; i < found.size();) {
    std::size_t end = found[i].second;
    const std::size_t begin = found[i].first;
    for (++i; i < found.size() && found[i].first < end; ++i) {
      end = std::max(end, found[i].second);
    }
    out.append(text, copied, begin - copied).append(kMask);
    copied = end;
  }
  return out.append(text, copied);
}

}  // namespace logging::details
