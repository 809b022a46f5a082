// Texts that name the source of a copy, and the text that the catalogue keeps about an object.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "StorageServer/S3Server/S3Attributes.h"
#include "StorageServer/S3Server/S3CopySource.h"

namespace {

using namespace Tansy::CloudStorage::S3;

void CheckSource(std::string_view text) {
  CopySource source;
  if (ReadCopySource(source, text)) {
    return;
  }
  Require(!source.bucket.empty() && source.bucket.find('/') == std::string::npos && !source.key.empty());
  CopySource again;
  Require(!ReadCopySource(again, "/" + PercentEncode(source.bucket) + "/" + PercentEncodePath(source.key)));
  Require(again.bucket == source.bucket && again.key == source.key);
}

void CheckRange(std::string_view text) {
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{10}, std::uint64_t{0xFFFFFFFF}}) {
    std::uint64_t begin = 0;
    std::uint64_t length = size;
    if (!ReadCopyRange(begin, length, text, size)) {
      Require(begin <= size && length <= size - begin && (length > 0 || text.empty()));
    }
  }
}

// A row may hold anything. What is read from it is written so that it reads the same.
void CheckRow(std::string_view text) {
  const Attributes attributes = FromText(text);
  Require(ETagOfText(text) == attributes.etag);
  const std::string written = ToText(attributes);
  Require(ToText(FromText(written)) == written);
}

// What a client sends comes back as it was.
void CheckHeaders(std::string_view text) {
  LowerHeaders headers;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const std::size_t colon = line.find(':');
    const std::string name = ToLower(line.substr(0, colon));
    const bool is_name = std::all_of(name.begin(), name.end(), [](char c) { return c > 0x20 && c < 0x7f; });
    if (colon != std::string_view::npos && is_name) {
      headers[name] = line.substr(colon + 1);
    }
  }
  Attributes attributes;
  attributes.etag = "d41d8cd98f00b204e9800998ecf8427e";
  if (TakeHeaders(attributes, headers)) {
    return;
  }
  const std::string written = ToText(attributes);
  Require(std::all_of(written.begin(), written.end(), [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); }));
  const Attributes again = FromText(written);
  Require(again.etag == attributes.etag && again.headers == attributes.headers);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckSource(text);
  CheckRange(text);
  CheckRow(text);
  CheckHeaders(text);
  return 0;
}
