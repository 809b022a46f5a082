// Says whether a text is XML that may be parsed. The parser behind it is fast because it tolerates many errors and
// trusts the rest, so texts from the network have to pass here first.
#ifndef TANSY_PROTO_XML_SCANNER_H
#define TANSY_PROTO_XML_SCANNER_H

#include <cstddef>
#include <string_view>
#include <vector>

namespace TansyProto {

// Recognises the name of an element or attribute. Characters beyond ASCII all count as letters.
bool IsXmlName(std::string_view name);

// Makes one pass over the text, without recursion, and with memory for kMaxDepth open elements only.
class CXmlScanner {
 public:
  explicit CXmlScanner(std::string_view text);

  // Returns true for a well-formed text in UTF-8 with one root element and no document type declaration (and so no
  // entities except the five of XML itself), within the limits of DocumentPath.h.
  bool Accepts();

 private:
  bool ScanMarkup();
  bool ScanDeclaration();
  bool ScanInstruction();
  bool ScanStartTag();
  bool ScanEndTag();
  bool ScanAttributes();
  bool ScanAttribute(std::string_view& name);
  bool ScanCharacters();
  bool ScanReference();
  bool ScanUntil(std::string_view end);

  bool Take(std::string_view expected);
  bool TakeBlanks();
  std::string_view TakeName();
  bool HasDuplicates();

  std::string_view rest_;
  bool has_root_ = false;
  std::size_t values_ = 0;
  std::vector<std::string_view> open_;
  std::vector<std::string_view> attributes_;
};

}  // namespace TansyProto

#endif  // TANSY_PROTO_XML_SCANNER_H
