// links: TansyProto
// XML bodies as clients and servers send them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Require.h"
#include "TansyProto/XmlProto.h"

namespace {

// What is accepted can be written, is accepted again, and is then written as before.
void CheckRoundTrip(const TansyProto::CXmlProto& document) {
  std::string first;
  Require(document.Serialize(first));
  TansyProto::CXmlProto again;
  Require(again.Parse(first));
  std::string second;
  Require(again.Serialize(second));
  Require(first == second);
}

void CheckPaths(TansyProto::CXmlProto& document) {
  int count = 0;
  while (document.Has("/CompleteMultipartUpload/Part[" + std::to_string(count + 1) + "]")) {
    ++count;
    const std::string part = "/CompleteMultipartUpload/Part[" + std::to_string(count) + "]";
    document.GetInt(part + "/PartNumber");
    document.GetString(part + "/ETag");
  }
  const std::string next = "/CompleteMultipartUpload/Part[" + std::to_string(count + 1) + "]/PartSize";
  const bool fits = document.Has("/CompleteMultipartUpload");
  Require(document.SetInt(next, 5) == fits);
  Require(!fits || document.GetInt(next) == 5);
}

// Any text can be an element's.
void CheckText(const std::string& text) {
  TansyProto::CXmlProto document;
  Require(document.SetString("/A/B", text));
  TansyProto::CXmlProto again;
  std::string serialized;
  Require(document.Serialize(serialized) && again.Parse(serialized));
  Require(again.GetString("/A/B") == document.GetString("/A/B"));
}

// Any text can be asked for as a path.
void CheckPath(const std::string& path) {
  TansyProto::CXmlProto document;
  const bool written = document.SetString(path, "x");
  Require(document.Has(path) == written);
  if (written) {
    CheckRoundTrip(document);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  TansyProto::CXmlProto document;
  if (document.Parse(text)) {
    CheckRoundTrip(document);
    CheckPaths(document);
    CheckRoundTrip(document);
  }
  CheckText(text);
  CheckPath(text);
  CheckPath("/" + text);
  return 0;
}
