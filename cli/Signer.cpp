#include "Signer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <cstdio>

#include "TansyBase/Encrypt.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr char kScheme[] = "quorvane ";

// Days and months in the protocol's own spelling, whatever the locale says.
constexpr std::array<const char*, 7> kDays{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// 0 is a Sunday; 1970-01-01 was a Thursday.
std::size_t DayOfWeek(std::time_t time) {
  return static_cast<std::size_t>((time / 86400 + 4) % 7);
}

}  // namespace
}  // namespace details

std::string HttpDate() {
  const std::time_t now = TansyBase::TimeUtil::Now();
  int year = 0;
  int month = 0;
  int day = 0;
  char time[9] = {};
  // "2026-11-03 08:05:09"
  if (std::sscanf(TansyBase::TimeUtil::TimeT2StrUTCDatetime(now).c_str(), "%d-%d-%d %8s", &year, &month, &day, time) !=
          4 ||
      month < 1 || month > 12) {
    return "";
  }
  return TansyBase::StringUtil::str_fmt("%s, %2d %s %d %s GMT", details::kDays[details::DayOfWeek(now)], day,
                                        details::kMonths[static_cast<std::size_t>(month) - 1], year, time);
}

std::string Sign(const std::string& text, const std::string& secret_key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (HMAC(EVP_sha1(), secret_key.data(), static_cast<int>(secret_key.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &size) == nullptr) {
    return "";
  }
  return TansyBase::Encrypt::Base64Encode(digest, size);
}

std::string AuthorizationValue(const std::string& method, const std::string& content_type, const std::string& date,
                               const std::string& resource, const std::string& access_key,
                               const std::string& secret_key) {
  return details::kScheme + access_key + ":" +
         Sign(method + "\n\n" + content_type + "\n" + date + "\n\n" + resource, secret_key);
}

std::string SignedObjectTarget(const std::string& path, std::int64_t expires, const std::string& access_key,
                               const std::string& secret_key) {
  // Servers look for the token behind another parameter only.
  const std::string target = path + (expires == 0 ? "?link=1" : "?expires=" + std::to_string(expires));
  const std::string signature = Sign("GET\n\n\n\n\n" + target, secret_key);
  const std::string token = TansyBase::Encrypt::Base64Encode(details::kScheme + access_key + ":" + signature);
  return target + "&token=" + PercentEncode(token);
}

std::string SignedPictureTarget(const std::string& target, const std::string& expires, const std::string& access_key,
                                const std::string& secret_key) {
  const std::string signature = Sign("GET\n\n\n" + expires + "\n\n" + target, secret_key);
  return target + "&AccessKeyId=" + PercentEncode(access_key) + "&Algorithm=0&Expires=" + expires +
         "&Signature=" + PercentEncode(signature);
}

std::string PercentEncode(const std::string& text) {
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                       byte == '-' || byte == '.' || byte == '_';
    encoded += plain ? std::string(1, c) : TansyBase::StringUtil::str_fmt("%%%02X", byte);
  }
  return encoded;
}

}  // namespace Tansy::Cli
