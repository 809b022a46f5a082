// Query text as clients send it: decoding and splitting.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "Require.h"
#include "StorageServer/ServerComm.h"

namespace {

void CheckDecode(const std::string& text) {
  using Tansy::CloudStorage::UrlQueryDecode;
  const auto length = static_cast<std::int32_t>(text.size());
  // Exactly as long as allowed, so that a byte too many is caught by the sanitizer.
  std::string output(text.size(), 'x');
  Require(UrlQueryDecode(output.data(), length, text.data(), length));
  Require(length == 0 || !UrlQueryDecode(output.data(), length - 1, text.data(), length));

  // The result in a buffer with room is the same, and nothing stands behind it.
  std::string roomy(text.size() + 16, 'x');
  Require(UrlQueryDecode(roomy.data(), length + 16, text.data(), length));
  Require(roomy == output + std::string(16, '\0'));
  Require(Tansy::CloudStorage::DecodeHttpUrlQuery(text) == roomy.c_str());
}

void CheckParse(const std::string& query) {
  std::map<std::string, std::string> values;
  Require(Tansy::CloudStorage::ParseHttpUrlQuery(values, query) == 0);
  std::size_t pieces = 1;
  for (const char c : query) {
    pieces += c == '&' ? 1 : 0;
  }
  Require(values.size() <= pieces);

  // Empty pieces and pieces without "=" change nothing; later values replace earlier ones.
  std::map<std::string, std::string> again;
  Tansy::CloudStorage::ParseHttpUrlQuery(again, "&" + query + "&&flag&");
  Require(again == values);
  Tansy::CloudStorage::ParseHttpUrlQuery(again, query);
  Require(again == values);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  CheckDecode(text);
  CheckParse(text);
  return 0;
}
