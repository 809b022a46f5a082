#ifndef TANSY_PROTO_XML_PROTO_H
#define TANSY_PROTO_XML_PROTO_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace TansyProto {

// An XML document read and written by element paths.
//
// A path is "/Root/Child/Part[3]/Size": names separated by slashes, an index in square brackets selecting the n-th
// child of that name, counted from 1 (no index means the first). Writing creates what is missing, in the order of the
// calls; an index may be at most one beyond what exists. Reading or writing the elements of a list, in whatever order,
// costs constant time for each. A path has at most 64 steps. Threads: one document belongs to one thread at a time.
// Nothing throws. A document that was moved from is an empty one.
class CXmlProto {
 public:
  CXmlProto();
  ~CXmlProto();
  CXmlProto(CXmlProto&&) noexcept;
  CXmlProto& operator=(CXmlProto&&) noexcept;

  // Replaces the document. Returns false, and leaves an empty document, when the text is not well-formed XML in UTF-8
  // with one root element, holds a document type declaration, nests deeper than 64 elements, is longer than 64 MiB or
  // holds more than a million elements and attributes. An encoding that the text claims is ignored.
  bool Parse(std::string_view text);

  bool Has(const std::string& path) const;
  // Gives the text of the element (without that of elements in it), white space kept; `missing` when there is no such
  // element.
  std::string GetString(const std::string& path, const std::string& missing = {}) const;
  // Gives the decimal integer of the element; `missing` when the element is missing, empty or not a decimal integer of
  // 64 bits. Blanks around it do not matter.
  std::int64_t GetInt(const std::string& path, std::int64_t missing = -1) const;

  // Returns false, with the document as it was, when the path is malformed, names a second root, or skips an index.
  // Characters that XML cannot carry (most control characters) and bytes that are not UTF-8 are each written as U+FFFD,
  // so that the document stays well-formed whatever a client named its object.
  bool SetString(const std::string& path, const std::string& value);
  bool SetInt(const std::string& path, std::int64_t value);
  // Makes the element without text, so that an empty list is still there.
  bool SetEmpty(const std::string& path);

  // Gives the document as text with an XML declaration (UTF-8), without indentation. Returns false when the document is
  // empty.
  bool Serialize(std::string& text) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyProto

#endif  // TANSY_PROTO_XML_PROTO_H
