// links: TansyProto
// JSON bodies as servers send them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Require.h"
#include "TansyProto/RapidJsonProto.h"

namespace {

// What is accepted can be written and is accepted again. The last digits of fractions may differ.
void CheckRoundTrip(const TansyProto::CRapidJsonProto& document) {
  TansyProto::CRapidJsonProto again;
  const std::string text = document.Serialize();
  Require(again.Parse(text));
  Require(again.Serialize() == text || text.find_first_of(".e") != std::string::npos);
}

void CheckPaths(TansyProto::CRapidJsonProto& document) {
  document.GetString("/GatewayIP");
  document.GetInt("/GatewayPort");
  int count = 0;
  while (document.Has("/List[" + std::to_string(count + 1) + "]")) {
    ++count;
    document.GetString("/List[" + std::to_string(count) + "]/PoolID");
  }
  const std::string next = "/List[" + std::to_string(count + 1) + "]";
  if (document.SetInt(next, -7)) {
    Require(document.GetInt(next) == -7);
  }
  if (document.SetString("/ErrorCode", "e")) {
    Require(document.GetString("/ErrorCode") == "e");
  }
}

void CheckText(const std::string& text) {
  TansyProto::CRapidJsonProto document;
  Require(document.SetString("/A", text));
  TansyProto::CRapidJsonProto again;
  Require(again.Parse(document.Serialize()));
  Require(again.GetString("/A") == document.GetString("/A"));
}

void CheckPath(const std::string& path) {
  TansyProto::CRapidJsonProto document;
  const bool written = document.SetBool(path, true);
  Require(document.Has(path) == written);
  CheckRoundTrip(document);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  TansyProto::CRapidJsonProto document;
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
