// The HMAC functions are deprecated since OpenSSL 3.0 and stay there; this asks for the interface of 1.1.1 without the
// warnings.
#define OPENSSL_API_COMPAT 0x10101000L

#include "StorageServer/ServerComm.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "TansyBase/Encrypt.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

using TansyBase::StringUtil;

namespace details {
namespace {

constexpr std::array<const char*, 7> kWeekdays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr std::size_t kMaxDateBytes = 40;

// Years that the calendar arithmetic below holds, as days since 1970.
constexpr std::chrono::sys_days kFirstDay = std::chrono::year::min() / std::chrono::January / 1;
constexpr std::chrono::sys_days kLastDay = std::chrono::year::max() / std::chrono::December / 31;

constexpr std::string_view kHexDigits = "0123456789abcdef";

// Independent of the locale, unlike isalnum: what an escape means must not depend on where the host runs.
bool IsLetterOrDigit(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Value of a hexadecimal digit; -1 for anything else.
int HexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;
}

// The byte that the three characters at `text` stand for; -1 when they are no escape, or one of a letter or a digit.
int EscapedByte(const char* text, std::int32_t remaining) {
  if (remaining < 3 || text[0] != '%') {
    return -1;
  }
  const int high = HexValue(text[1]);
  const int low = HexValue(text[2]);
  if (high < 0 || low < 0) {
    return -1;
  }
  const int value = high * 16 + low;
  return IsLetterOrDigit(static_cast<unsigned char>(value)) ? -1 : value;
}

// A digest of its own for each thread. Setting up a context looks the algorithm up by name and hashes the key, which
// costs more than the signature of a request itself; a server has one key, so both are done once and kept.
class HmacSha1 {
 public:
  // Writes the digest and its length. False when the library refuses.
  bool Sign(std::string_view text, std::string_view key, unsigned char* digest, unsigned int& length) {
    if (!Restart(key)) {
      return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    return HMAC_Update(context_.get(), bytes, text.size()) == 1 && HMAC_Final(context_.get(), digest, &length) == 1;
  }

 private:
  struct Free {
    void operator()(HMAC_CTX* context) const { HMAC_CTX_free(context); }
  };

  bool Restart(std::string_view key) {
    if (has_key_ && key == key_) {
      return HMAC_Init_ex(context_.get(), nullptr, 0, nullptr, nullptr) == 1;
    }
    has_key_ = false;
    if (key.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
      return false;
    }
    if (!context_) {
      context_.reset(HMAC_CTX_new());
    }
    key_ = key;
    // c_str() is never null, and a null key would mean "the one before".
    has_key_ =
        context_ && HMAC_Init_ex(context_.get(), key_.c_str(), static_cast<int>(key_.size()), EVP_sha1(), nullptr) == 1;
    return has_key_;
  }

  std::unique_ptr<HMAC_CTX, Free> context_;
  std::string key_;
  bool has_key_ = false;
};

}  // namespace
}  // namespace details

const std::string& AuthPrefix() {
  // Not destroyed at the end of the process: requests may still be on their way then.
  static const std::string& prefix = *new std::string("quorvane");
  return prefix;
}

std::string FormatHttpDate() {
  using std::chrono::sys_seconds;
  const sys_seconds now{std::chrono::seconds(TansyBase::TimeUtil::Now())};
  if (now < details::kFirstDay || now >= details::kLastDay + std::chrono::days(1)) {
    return {};
  }
  const auto day = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss<std::chrono::seconds> time(now - day);
  const unsigned int weekday = std::chrono::weekday(day).c_encoding();
  const unsigned int month = static_cast<unsigned int>(date.month()) - 1;
  if (weekday >= details::kWeekdays.size() || month >= details::kMonths.size()) {
    return {};
  }
  const std::string year_and_time = StringUtil::str_fmt(
      "%d %02d:%02d:%02d GMT", static_cast<int>(date.year()), static_cast<int>(time.hours().count()),
      static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return StringUtil::str_fmt("%s, %2d %s %s", details::kWeekdays[weekday],
                             static_cast<int>(static_cast<unsigned int>(date.day())), details::kMonths[month],
                             year_and_time.c_str());
}

std::time_t ParseHttpDate(std::string_view text) {
  // "Tue, 03 Nov 2026 08:05:09 GMT", the day of the month in up to two places.
  const std::string date(text.substr(0, details::kMaxDateBytes));
  char weekday[4] = {};
  char month_name[4] = {};
  unsigned int day = 0;
  int year = 0;
  unsigned int hour = 0;
  unsigned int minute = 0;
  unsigned int second = 0;
  int length = 0;
  if (text.size() > details::kMaxDateBytes ||
      std::sscanf(date.c_str(), "%3[A-Za-z],%2u %3[A-Za-z] %4d %2u:%2u:%2u GMT%n", weekday, &day, month_name, &year,
                  &hour, &minute, &second, &length) != 7 ||
      static_cast<std::size_t>(length) != text.size()) {
    return -1;
  }
  const auto month = std::find_if(details::kMonths.begin(), details::kMonths.end(),
                                  [&](const char* name) { return std::strcmp(name, month_name) == 0; });
  const auto month_number = static_cast<unsigned int>(month - details::kMonths.begin()) + 1;
  const std::chrono::year_month_day ymd{std::chrono::year{year}, std::chrono::month{month_number},
                                        std::chrono::day{day}};
  // 60 is a leap second.
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 60) {
    return -1;
  }
  const auto time = std::chrono::sys_days(ymd) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                    std::chrono::seconds(second);
  const std::int64_t seconds = time.time_since_epoch().count();
  return seconds >= 0 ? static_cast<std::time_t>(seconds) : -1;
}

bool UrlQueryDecode(char* output, std::int32_t output_size, const char* input, std::int32_t input_length) {
  if (output == nullptr || input == nullptr || input_length < 0 || output_size < input_length) {
    return false;
  }
  std::memset(output, 0, static_cast<std::size_t>(output_size));
  for (std::int32_t read = 0; read < input_length;) {
    if (const int value = details::EscapedByte(input + read, input_length - read); value >= 0) {
      *output++ = static_cast<char>(value);
      read += 3;
    } else {
      *output++ = input[read] == '+' ? ' ' : input[read];
      ++read;
    }
  }
  return true;
}

std::string DecodeHttpUrlQuery(const std::string& text) {
  if (text.size() >= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    return text;
  }
  const auto length = static_cast<std::int32_t>(text.size());
  std::string decoded(text.size() + 1, '\0');
  if (!UrlQueryDecode(decoded.data(), length + 1, text.data(), length)) {
    return text;
  }
  // The result is a C text: an escaped NUL byte ends it.
  decoded.resize(std::strlen(decoded.c_str()));
  return decoded;
}

std::int32_t ParseHttpUrlQuery(std::map<std::string, std::string>& values, const std::string& query) {
  const std::string_view all(query);
  for (std::size_t begin = 0; begin < all.size();) {
    const std::size_t end = std::min(all.find('&', begin), all.size());
    const std::string_view piece = all.substr(begin, end - begin);
    begin = end + 1;
    const std::size_t equals = piece.find('=');
    if (equals != std::string_view::npos) {
      values.insert_or_assign(DecodeHttpUrlQuery(std::string(piece.substr(0, equals))),
                              DecodeHttpUrlQuery(std::string(piece.substr(equals + 1))));
    }
  }
  return 0;
}

std::string SignHmacSha1(std::string_view text, std::string_view key) {
  thread_local details::HmacSha1 hmac;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!hmac.Sign(text, key, digest, length)) {
    return {};
  }
  return TansyBase::Encrypt::Base64Encode(digest, length);
}

std::string Fingerprint(std::string_view text) {
  constexpr std::size_t kBytes = 16;
  unsigned char digest[EVP_MAX_MD_SIZE];
  if (EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  std::string hex;
  hex.reserve(2 * kBytes);
  for (std::size_t i = 0; i < kBytes; ++i) {
    hex += details::kHexDigits[digest[i] >> 4];
    hex += details::kHexDigits[digest[i] & 15U];
  }
  return hex;
}

bool CheckHMACResult(const std::string& text, const std::string& sk, const std::string& signature) {
  const std::string expected = SignHmacSha1(text, sk);
  // An empty expectation means that there is no signature to compare with, and must not match an empty one.
  return !expected.empty() && expected.size() == signature.size() &&
         CRYPTO_memcmp(expected.data(), signature.data(), expected.size()) == 0;
}

}  // namespace Tansy::CloudStorage
