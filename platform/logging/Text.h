// Makes a line safe to write: without control characters, secrets, and broken characters at a cut.
#ifndef TANSY_LOGGING_TEXT_H
#define TANSY_LOGGING_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace logging::details {

// Gives the first `limit` bytes of `text`, or a few less so that no UTF-8 character is cut in two.
std::string_view CutAtCharacter(std::string_view text, std::size_t limit);

// Appends `text` with everything escaped that could make one line look like two or upset a terminal: control
// characters (also those of Unicode's second block and its line separators) as "\n", "\r", "\t" or "\x1b", bytes that
// are no UTF-8 as "\xff". The result is valid UTF-8 whatever came in.
void AppendEscaped(std::string& out, std::string_view text);

// Gives `text` with every occurrence of every secret replaced by "***"; overlapping ones together become one. With
// `cut`, a beginning of a secret at the end of the text counts as an occurrence too.
std::string Masked(std::string_view text, const std::vector<std::string>& secrets, bool cut);

}  // namespace logging::details

#endif  // TANSY_LOGGING_TEXT_H
