#include "StorageServer/ServerComm.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

// This does not depend on the locale, unlike isalnum, because an escape must mean the same wherever the host runs.
bool IsLetterOrDigit(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Gives the value of a hexadecimal digit; -1 for anything else.
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

// Gives the byte that the three characters at `text` stand for; -1 when they are no escape, or the escape of a letter
// or a digit.
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

}  // namespace
}  // namespace details

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

std::string Fingerprint(std::string_view text) {
  constexpr std::size_t kBytes = 16;
  unsigned char digest[EVP_MAX_MD_SIZE];
  // The algorithm is looked up by name once; doing so for each text costs more than the digest itself. It is never
  // freed, because requests may still be under way at the end of the process.
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
  if (algorithm == nullptr || EVP_Digest(text.data(), text.size(), digest, nullptr, algorithm, nullptr) != 1) {
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
  // An empty expected value means that there is no signature to compare with, so it must not match an empty signature.
  return !expected.empty() && expected.size() == signature.size() &&
         CRYPTO_memcmp(expected.data(), signature.data(), expected.size()) == 0;
}

void SetRspHeaders(TansyNet::HttpResponse& response, const char* content_type) {
  response.content_type = content_type;
  response.headers["Date"] = FormatHttpDate();
}

}  // namespace Tansy::CloudStorage
