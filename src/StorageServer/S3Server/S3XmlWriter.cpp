#include "StorageServer/S3Server/S3XmlWriter.h"

#include <utility>

#include "TansyProto/TextRules.h"

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// Gives what stands for a character in a text; nothing when it stands for itself.
std::string_view ReferenceOf(char32_t character) {
  switch (character) {
    case U'&':
      return "&amp;";
    case U'<':
      return "&lt;";
    case U'>':
      return "&gt;";
    case U'"':
      return "&quot;";
    case U'\r':
      return "&#13;";
    default:
      return TansyProto::IsXmlCharacter(character) ? std::string_view() : kReplacement;
  }
}

}  // namespace

CXmlWriter::CXmlWriter() : text_("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") {}

void CXmlWriter::Open(std::string_view name) {
  text_.append("<").append(name).append(">");
}

void CXmlWriter::OpenAnswer(std::string_view name) {
  text_.append("<").append(name).append(" xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">");
}

void CXmlWriter::OpenTyped(std::string_view name, std::string_view type) {
  text_.append("<").append(name).append(" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:type=\"");
  text_.append(type).append("\">");
}

void CXmlWriter::Close(std::string_view name) {
  text_.append("</").append(name).append(">");
}

void CXmlWriter::Element(std::string_view name, std::string_view value) {
  Open(name);
  Text(value);
  Close(name);
}

void CXmlWriter::Element(std::string_view name, std::uint64_t value) {
  Element(name, std::string_view(std::to_string(value)));
}

void CXmlWriter::Text(std::string_view value) {
  while (!value.empty()) {
    const std::string_view before = value;
    char32_t character = 0;
    const bool is_character = TansyProto::TakeUtf8(value, character);
    const std::string_view reference = is_character ? ReferenceOf(character) : kReplacement;
    text_ += reference.empty() ? before.substr(0, before.size() - value.size()) : reference;
  }
}

bool CXmlWriter::CanCarry(std::string_view text) {
  bool can = true;
  while (can && !text.empty()) {
    char32_t character = 0;
    can = TansyProto::TakeUtf8(text, character) && TansyProto::IsXmlCharacter(character);
  }
  return can;
}

std::string CXmlWriter::Take() {
  return std::exchange(text_, {});
}

}  // namespace Tansy::CloudStorage::S3
