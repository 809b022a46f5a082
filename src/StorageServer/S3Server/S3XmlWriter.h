#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_XML_WRITER_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_XML_WRITER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace Tansy::CloudStorage::S3 {

// Writes XML from its first byte to its last. A listing has thousands of elements, so nothing is kept but the text.
//
// Characters that XML cannot carry, and bytes that are not UTF-8, are each written as U+FFFD; clients that want such
// keys whole ask for percent-encoded ones.
class CXmlWriter {
 public:
  CXmlWriter();

  void Open(std::string_view name);
  // Opens the element that an answer consists of, with the name space that clients expect.
  void OpenAnswer(std::string_view name);
  // Opens an element that says of which kind its content is, in the attribute xsi:type.
  void OpenTyped(std::string_view name, std::string_view type);
  void Close(std::string_view name);
  void Element(std::string_view name, std::string_view value);
  void Element(std::string_view name, std::uint64_t value);
  void Element(std::string_view name, bool value) { Element(name, std::string_view(value ? "true" : "false")); }
  // Without this, a text would be taken for a truth value.
  void Element(std::string_view name, const char* value) { Element(name, std::string_view(value)); }
  void Element(std::string_view name, const std::string& value) { Element(name, std::string_view(value)); }

  // Adds text inside the open element.
  void Raw(std::string_view value) { Text(value); }

  std::string Take();

  // Says whether a reader gets this text back as it is.
  static bool CanCarry(std::string_view text);

 private:
  void Text(std::string_view value);

  std::string text_;
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_XML_WRITER_H
