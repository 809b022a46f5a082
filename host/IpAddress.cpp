#include "IpAddress.h"

#include <openssl/asn1.h>
#include <openssl/x509v3.h>

#include <array>
#include <charconv>
#include <memory>
#include <string_view>

#include "OSAL/Osal.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kIpv4Size = 4;
constexpr std::size_t kIpv6Size = 16;
constexpr std::size_t kTextSize = 64;

// Reads one of the four numbers of an IPv4 address. Leading zeros are refused, because some programs read such numbers
// as octal.
bool ParseNumber(std::string_view text, unsigned char& number) {
  if (text.empty() || (text.size() > 1 && text.front() == '0')) {
    return false;
  }
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size();
}

std::optional<IpAddress> ParseIpv4(std::string_view text) {
  IpAddress address;
  address.text = text;
  std::array<unsigned char, kIpv4Size> bytes{};
  for (std::size_t i = 0; i < kIpv4Size; ++i) {
    const std::size_t point = i + 1 < kIpv4Size ? text.find('.') : text.size();
    if (point == std::string_view::npos || !ParseNumber(text.substr(0, point), bytes[i])) {
      return std::nullopt;
    }
    text.remove_prefix(point == text.size() ? point : point + 1);
  }
  address.is_any = bytes == std::array<unsigned char, kIpv4Size>{};
  address.is_loopback = bytes[0] == 127;
  address.is_link_local = bytes[0] == 169 && bytes[1] == 254;
  return address;
}

std::optional<IpAddress> ParseIpv6(const std::string& text) {
  // The library's own reader accepts blanks, so they are refused here.
  if (text.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos) {
    return std::nullopt;
  }
  const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> parsed(a2i_IPADDRESS(text.c_str()),
                                                                                     &ASN1_OCTET_STRING_free);
  if (parsed == nullptr || ASN1_STRING_length(parsed.get()) != static_cast<int>(kIpv6Size)) {
    return std::nullopt;
  }
  const unsigned char* bytes = ASN1_STRING_get0_data(parsed.get());
  char shown[kTextSize];
  if (OSAL_InetNtop(OSAL_AF_INET6, bytes, shown, sizeof shown) == 0) {
    return std::nullopt;
  }
  IpAddress address;
  address.text = shown;
  address.is_ipv6 = true;
  address.is_any = address.text == "::";
  address.is_loopback = address.text == "::1";
  address.is_link_local = bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80;
  return address;
}

}  // namespace
}  // namespace details

std::optional<IpAddress> ParseIpAddress(const std::string& text) {
  return text.find(':') == std::string::npos ? details::ParseIpv4(text) : details::ParseIpv6(text);
}

}  // namespace Tansy::Host
