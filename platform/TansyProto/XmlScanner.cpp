#include "TansyProto/XmlScanner.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <system_error>

#include "TansyProto/DocumentPath.h"
#include "TansyProto/TextRules.h"

namespace TansyProto {

namespace details {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

bool IsBlank(char c) {
  return kBlanks.find(c) != std::string_view::npos;
}

bool IsNameStart(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool IsNamePart(char c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

bool IsReservedTarget(std::string_view name) {
  return name.size() == 3 && (name[0] | 0x20) == 'x' && (name[1] | 0x20) == 'm' && (name[2] | 0x20) == 'l';
}

// Recognises "#65" or "#x41", without the ampersand and the semicolon.
bool IsCharacterReference(std::string_view text) {
  const bool is_hexadecimal = text.starts_with("#x");
  text.remove_prefix(is_hexadecimal ? 2 : 1);
  std::uint32_t character = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), character, is_hexadecimal ? 16 : 10);
  return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() && IsXmlCharacter(character);
}

}  // namespace
}  // namespace details

bool IsXmlName(std::string_view name) {
  return !name.empty() && details::IsNameStart(name.front()) &&
         std::all_of(name.begin(), name.end(), details::IsNamePart) && IsXmlText(name);
}

CXmlScanner::CXmlScanner(std::string_view text) : rest_(text) {}

bool CXmlScanner::Accepts() {
  if (rest_.size() > kMaxDocumentBytes || !IsXmlText(rest_)) {
    return false;
  }
  Take("\xEF\xBB\xBF");
  if (rest_.starts_with("<?xml") && rest_.size() > 5 && details::IsBlank(rest_[5]) && !ScanDeclaration()) {
    return false;
  }
  while (!rest_.empty()) {
    const bool scanned = rest_.front() == '<' ? ScanMarkup() : ScanCharacters();
    if (!scanned || values_ > kMaxDocumentValues) {
      return false;
    }
  }
  return has_root_ && open_.empty();
}

bool CXmlScanner::ScanMarkup() {
  ++values_;
  if (Take("</")) {
    return ScanEndTag();
  }
  if (Take("<!--")) {
    // Two hyphens end a comment, so only the closing bracket may follow them.
    return ScanUntil("--") && Take(">");
  }
  if (Take("<![CDATA[")) {
    return !open_.empty() && ScanUntil("]]>");
  }
  if (Take("<?")) {
    return ScanInstruction();
  }
  // A document type declaration ("<!DOCTYPE") is refused here too, because it does not begin with a name.
  return Take("<") && ScanStartTag();
}

// Reads "<?xml version='1.0' encoding='UTF-8' standalone='yes'?>". The text is UTF-8 whatever encoding it claims.
bool CXmlScanner::ScanDeclaration() {
  Take("<?xml");
  if (!ScanAttributes() || !Take("?>") || attributes_.empty() || attributes_.front() != "version") {
    return false;
  }
  static constexpr std::array<std::string_view, 3> kOrder = {"version", "encoding", "standalone"};
  auto expected = kOrder.begin();
  return std::all_of(attributes_.begin(), attributes_.end(), [&expected](std::string_view name) {
    expected = std::find(expected, kOrder.end(), name);
    return expected != kOrder.end() && *expected++ == name;
  });
}

bool CXmlScanner::ScanInstruction() {
  const std::string_view target = TakeName();
  if (target.empty() || details::IsReservedTarget(target)) {
    return false;
  }
  return Take("?>") || (TakeBlanks() && ScanUntil("?>"));
}

bool CXmlScanner::ScanStartTag() {
  const std::string_view name = TakeName();
  if (name.empty() || (open_.empty() && has_root_) || open_.size() == kMaxDepth || !ScanAttributes()) {
    return false;
  }
  has_root_ = true;
  if (Take("/>")) {
    return true;
  }
  open_.push_back(name);
  return Take(">");
}

bool CXmlScanner::ScanEndTag() {
  const std::string_view name = TakeName();
  TakeBlanks();
  if (open_.empty() || name != open_.back()) {
    return false;
  }
  open_.pop_back();
  return Take(">");
}

// Collects the names in `attributes_`; it stops before the characters that close the tag.
bool CXmlScanner::ScanAttributes() {
  attributes_.clear();
  while (TakeBlanks() && !rest_.empty() && details::IsNameStart(rest_.front())) {
    std::string_view name;
    if (!ScanAttribute(name) || ++values_ > kMaxDocumentValues) {
      return false;
    }
    attributes_.push_back(name);
  }
  return !HasDuplicates();
}

bool CXmlScanner::ScanAttribute(std::string_view& name) {
  name = TakeName();
  TakeBlanks();
  if (!Take("=")) {
    return false;
  }
  TakeBlanks();
  const char quote = rest_.empty() ? '\0' : rest_.front();
  if (quote != '"' && quote != '\'') {
    return false;
  }
  rest_.remove_prefix(1);
  while (!rest_.empty() && rest_.front() != quote) {
    if (rest_.front() == '<' || (rest_.front() == '&' && !ScanReference())) {
      return false;
    }
    rest_.remove_prefix(1);
  }
  if (rest_.empty()) {
    return false;
  }
  rest_.remove_prefix(1);
  return true;
}

// Reads text up to the next markup. Outside the root element only blanks are allowed.
bool CXmlScanner::ScanCharacters() {
  if (open_.empty()) {
    return TakeBlanks();
  }
  while (!rest_.empty() && rest_.front() != '<') {
    if (rest_.starts_with("]]>") || (rest_.front() == '&' && !ScanReference())) {
      return false;
    }
    rest_.remove_prefix(1);
  }
  return true;
}

// The position is on the semicolon afterwards.
bool CXmlScanner::ScanReference() {
  constexpr std::size_t kLongest = 12;
  const auto semicolon = rest_.substr(0, kLongest).find(';');
  if (semicolon == std::string_view::npos) {
    return false;
  }
  const std::string_view text = rest_.substr(1, semicolon - 1);
  rest_.remove_prefix(semicolon);
  static constexpr std::array<std::string_view, 5> kEntities = {"amp", "lt", "gt", "quot", "apos"};
  return text.starts_with('#') ? details::IsCharacterReference(text)
                               : std::find(kEntities.begin(), kEntities.end(), text) != kEntities.end();
}

bool CXmlScanner::ScanUntil(std::string_view end) {
  const auto found = rest_.find(end);
  if (found == std::string_view::npos) {
    return false;
  }
  rest_.remove_prefix(found + end.size());
  return true;
}

bool CXmlScanner::Take(std::string_view expected) {
  if (!rest_.starts_with(expected)) {
    return false;
  }
  rest_.remove_prefix(expected.size());
  return true;
}

// Returns true when there was at least one.
bool CXmlScanner::TakeBlanks() {
  const std::size_t count = std::min(rest_.find_first_not_of(details::kBlanks), rest_.size());
  rest_.remove_prefix(count);
  return count > 0;
}

std::string_view CXmlScanner::TakeName() {
  if (rest_.empty() || !details::IsNameStart(rest_.front())) {
    return {};
  }
  const auto end = std::find_if_not(rest_.begin(), rest_.end(), details::IsNamePart);
  const std::string_view name = rest_.substr(0, static_cast<std::size_t>(end - rest_.begin()));
  rest_.remove_prefix(name.size());
  return name;
}

bool CXmlScanner::HasDuplicates() {
  if (attributes_.size() < 2) {
    return false;
  }
  std::vector<std::string_view> sorted = attributes_;
  std::sort(sorted.begin(), sorted.end());
  return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

}  // namespace TansyProto
