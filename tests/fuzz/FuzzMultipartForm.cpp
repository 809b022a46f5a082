// links: TansyNet
// Multipart forms: the first line is the content type, the rest the body. Every view must lie in what was given, in
// order, and the number of parts is bounded.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "Require.h"
#include "TansyNet/HttpServer.h"

namespace {

void RequireInside(std::string_view view, std::string_view whole) {
  Require(view.empty() || (view.data() >= whole.data() && view.data() + view.size() <= whole.data() + whole.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kMaxParts = 20;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::size_t line = text.find('\n');
  const std::string_view content_type = text.substr(0, line);
  const std::string_view body = line == std::string_view::npos ? std::string_view() : text.substr(line + 1);

  std::vector<TansyNet::FormPart> parts;
  const bool found = TansyNet::ParseMultipartForm(content_type, body, parts, kMaxParts);
  Require(found || parts.empty());
  Require(parts.size() <= kMaxParts);
  const char* end_of_last = body.data();
  for (const TansyNet::FormPart& part : parts) {
    for (const std::string_view view : {part.name, part.file_name, part.content_type, part.data}) {
      RequireInside(view, body);
    }
    if (!part.data.empty()) {
      Require(part.data.data() >= end_of_last);
      end_of_last = part.data.data() + part.data.size();
    }
  }
  return 0;
}
