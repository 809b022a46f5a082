#include "StorageServer/ObjectServer/KeyOrder.h"

#include <cstddef>

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Returns -1 for what is no hexadecimal digit.
int DigitOf(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const char capital = static_cast<char>(c & ~0x20);
  return capital >= 'A' && capital <= 'F' ? capital - 'A' + 10 : -1;
}

// Takes the byte that the beginning of a name stands for off the name, which is not empty.
int TakeByte(std::string_view& name) {
  if (name.front() == '%' && name.size() >= 3) {
    const int high = DigitOf(name[1]);
    const int low = DigitOf(name[2]);
    if (high >= 0 && low >= 0) {
      name.remove_prefix(3);
      return high * 16 + low;
    }
  }
  const int byte = static_cast<unsigned char>(name.front());
  name.remove_prefix(1);
  return byte;
}

bool IsUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

bool IsCapitalDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

}  // namespace
}  // namespace details

std::string KeyOfName(std::string_view name) {
  std::string key;
  key.reserve(name.size());
  while (!name.empty()) {
    key += static_cast<char>(details::TakeByte(name));
  }
  return key;
}

bool IsCanonicalName(std::string_view name) {
  while (!name.empty()) {
    const std::string_view before = name;
    const auto byte = static_cast<char>(details::TakeByte(name));
    const std::size_t length = before.size() - name.size();
    const bool is_canonical = details::IsUnreserved(byte) ? length == 1
                                                          : length == 3 && details::IsCapitalDigit(before[1]) &&
                                                                details::IsCapitalDigit(before[2]);
    if (!is_canonical) {
      return false;
    }
  }
  return true;
}

bool HasUsualSpellings(std::string_view name) {
  while (!name.empty()) {
    const auto byte = static_cast<char>(details::TakeByte(name));
    if (!details::IsUnreserved(byte) && byte != '/' && byte != ' ') {
      return true;
    }
  }
  return false;
}

int CompareKeys(std::string_view left, std::string_view right) {
  while (!left.empty() && !right.empty()) {
    if (const int difference = details::TakeByte(left) - details::TakeByte(right); difference != 0) {
      return difference;
    }
  }
  return static_cast<int>(!left.empty()) - static_cast<int>(!right.empty());
}

}  // namespace Tansy::CloudStorage
