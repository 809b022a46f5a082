#include "PrintableText.h"

#include <algorithm>

namespace Tansy::Host {

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return text;
}

}  // namespace Tansy::Host
