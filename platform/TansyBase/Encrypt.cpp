#include "TansyBase/Encrypt.h"

#include <array>
#include <cstdint>
#include <utility>

namespace TansyBase {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kForeign = 0xFF;

constexpr std::array<std::uint8_t, 256> MakeValues() {
  std::array<std::uint8_t, 256> values{};
  values.fill(kForeign);
  for (std::uint8_t i = 0; i < 64; ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = i;
  }
  return values;
}
constexpr std::array<std::uint8_t, 256> kValues = MakeValues();

// Joins up to three bytes to 24 bits and writes four characters, padded where there were fewer bytes.
void AppendGroup(std::string& out, const unsigned char* bytes, std::size_t count) {
  const std::uint32_t bits = (std::uint32_t{bytes[0]} << 16) | (count > 1 ? std::uint32_t{bytes[1]} << 8 : 0) |
                             (count > 2 ? std::uint32_t{bytes[2]} : 0);
  out += kAlphabet[bits >> 18];
  out += kAlphabet[(bits >> 12) & 63];
  out += count > 1 ? kAlphabet[(bits >> 6) & 63] : '=';
  out += count > 2 ? kAlphabet[bits & 63] : '=';
}

// Gives the number of "=" at the end: 0 to 2.
std::size_t PaddingOf(std::string_view text) {
  return text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
}

}  // namespace

std::string Encrypt::Base64Encode(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (std::size_t at = 0; at < size; at += 3) {
    AppendGroup(out, bytes + at, size - at < 3 ? size - at : 3);
  }
  return out;
}

std::string Encrypt::Base64Encode(std::string_view data) {
  return Base64Encode(data.data(), data.size());
}

bool Encrypt::Base64Decode(std::string_view text, std::string& out) {
  out.clear();
  if (text.size() % 4 != 0) {
    return false;
  }
  const std::size_t padding = PaddingOf(text);
  const std::string_view digits = text.substr(0, text.size() - padding);
  std::string decoded;
  decoded.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  int bit_count = 0;
  for (const char c : digits) {
    const std::uint8_t value = kValues[static_cast<unsigned char>(c)];
    if (value == kForeign) {
      return false;
    }
    bits = (bits << 6) | value;
    bit_count += 6;
    if (bit_count >= 8) {
      bit_count -= 8;
      decoded += static_cast<char>((bits >> bit_count) & 0xFF);
    }
  }
  // The bits that belong to no byte must be 0, as every encoder leaves them; any other text was not made by an encoder.
  if ((bits & ((1U << bit_count) - 1)) != 0) {
    return false;
  }
  out = std::move(decoded);
  return true;
}

}  // namespace TansyBase
