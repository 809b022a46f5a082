#include "S3Text.h"

#include <cstddef>

namespace Tansy::Cli {

std::string WithoutQuotes(const std::string& tag) {
  return tag.size() > 1 && tag.starts_with('"') && tag.ends_with('"') ? tag.substr(1, tag.size() - 2) : tag;
}

std::string ReadableTime(const std::string& text) {
  constexpr std::size_t kSeconds = 19;  // length up to the seconds
  if (text.size() <= kSeconds || text[10] != 'T' || !text.ends_with('Z')) {
    return text;
  }
  std::string readable = text.substr(0, kSeconds);
  readable[10] = ' ';
  return readable;
}

}  // namespace Tansy::Cli
