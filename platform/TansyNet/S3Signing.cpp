// This asks for the interface of OpenSSL 1.1.1 without warnings.
#define OPENSSL_API_COMPAT 0x10101000L

#include "TansyNet/S3Signing.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <memory>
#include <new>

namespace TansyNet::S3Signing {

namespace {

constexpr std::string_view kCapitalDigits = "0123456789ABCDEF";
constexpr std::string_view kSmallDigits = "0123456789abcdef";
constexpr std::string_view kScopeEnd = "aws4_request";

bool IsUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::string Encode(std::string_view text, bool keeps_slashes) {
  std::string encoded;
  encoded.reserve(text.size() + 16);
  for (const char c : text) {
    if (IsUnreserved(c) || (keeps_slashes && c == '/')) {
      encoded += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    encoded += '%';
    encoded += kCapitalDigits[byte >> 4];
    encoded += kCapitalDigits[byte & 15];
  }
  return encoded;
}

// Removes blanks at both ends and makes one of each row of blanks.
std::string CanonicalValue(std::string_view value) {
  std::string text;
  for (const char c : value) {
    const bool is_blank = c == ' ' || c == '\t';
    if (!is_blank) {
      text += c;
    } else if (!text.empty() && text.back() != ' ') {
      text += ' ';
    }
  }
  return text.ends_with(' ') ? text.substr(0, text.size() - 1) : text;
}

void Expect(bool done) {
  if (!done) {
    throw std::bad_alloc();
  }
}

std::string BytesOf(const unsigned char* digest, unsigned int length) {
  return {reinterpret_cast<const char*>(digest), length};
}

// The digest of many texts. To set one up costs as much as the digest of a short text, so it is kept.
class CSha256 {
 public:
  CSha256() : context_(EVP_MD_CTX_new()) {
    Expect(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
  }

  std::string Of(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    Expect(EVP_DigestInit_ex(context_.get(), nullptr, nullptr) == 1 &&
           EVP_DigestUpdate(context_.get(), text.data(), text.size()) == 1 &&
           EVP_DigestFinal_ex(context_.get(), digest, &length) == 1);
    return BytesOf(digest, length);
  }

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };

  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

// The keyed digest of many texts. To look the algorithm up and to take the key costs more than the digest of a short
// text, so both are kept.
class CHmac {
 public:
  std::string Sign(std::string_view key, std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    Restart(key);
    Expect(HMAC_Update(context_.get(), bytes, text.size()) == 1 && HMAC_Final(context_.get(), digest, &length) == 1);
    return BytesOf(digest, length);
  }

 private:
  struct Free {
    void operator()(HMAC_CTX* context) const { HMAC_CTX_free(context); }
  };

  void Restart(std::string_view key) {
    if (has_key_ && key == key_) {
      Expect(HMAC_Init_ex(context_.get(), nullptr, 0, nullptr, nullptr) == 1);
      return;
    }
    has_key_ = false;
    if (!context_) {
      context_.reset(HMAC_CTX_new());
    }
    key_ = key;
    // c_str() is never null: a null key would be taken for the one before.
    Expect(context_ &&
           HMAC_Init_ex(context_.get(), key_.c_str(), static_cast<int>(key_.size()), EVP_sha256(), nullptr) == 1);
    has_key_ = true;
  }

  std::unique_ptr<HMAC_CTX, Free> context_;
  std::string key_;
  bool has_key_ = false;
};

}  // namespace

std::string PercentEncode(std::string_view text) {
  return Encode(text, false);
}

std::string PercentEncodePath(std::string_view path) {
  return Encode(path, true);
}

std::string PercentDecode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned int byte = 0;
    const bool has_digits = text[i] == '%' && text.size() - i > 2;
    const char* const end = has_digits ? text.data() + i + 3 : nullptr;
    if (!has_digits || std::from_chars(end - 2, end, byte, 16).ptr != end) {
      decoded += text[i];
      continue;
    }
    decoded += static_cast<char>(byte);
    i += 2;
  }
  return decoded;
}

std::string QueryText(const std::vector<NameValue>& query) {
  std::vector<NameValue> encoded;
  encoded.reserve(query.size());
  for (const auto& [name, value] : query) {
    encoded.emplace_back(PercentEncode(name), PercentEncode(value));
  }
  std::sort(encoded.begin(), encoded.end());
  std::string text;
  for (const auto& [name, value] : encoded) {
    text.append(text.empty() ? "" : "&").append(name).append("=").append(value);
  }
  return text;
}

std::string ToHex(std::string_view bytes) {
  std::string text(bytes.size() * 2, '\0');
  auto digit = text.begin();
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    *digit++ = kSmallDigits[byte >> 4];
    *digit++ = kSmallDigits[byte & 15];
  }
  return text;
}

std::string Sha256(std::string_view text) {
  thread_local CSha256 digest;
  return digest.Of(text);
}

std::string HmacSha256(std::string_view key, std::string_view text) {
  thread_local CHmac hmac;
  return hmac.Sign(key, text);
}

std::string CanonicalRequest(const SignedRequest& request) {
  constexpr std::size_t kUsualSize = 512;
  std::string text;
  text.reserve(kUsualSize);
  text.append(request.method).append("\n").append(PercentEncodePath(request.path)).append("\n");
  text.append(QueryText(request.query)).append("\n");
  std::string names;
  for (const auto& [name, value] : request.headers) {
    text.append(name).append(":").append(CanonicalValue(value)).append("\n");
    names.append(names.empty() ? "" : ";").append(name);
  }
  return text.append("\n").append(names).append("\n").append(request.payload);
}

std::string Scope(std::string_view date, std::string_view region, std::string_view service) {
  std::string text(date);
  return text.append("/").append(region).append("/").append(service).append("/").append(kScopeEnd);
}

std::string StringToSign(std::string_view timestamp, std::string_view scope, std::string_view canonical_request) {
  std::string text(kAlgorithm);
  text.append("\n").append(timestamp).append("\n").append(scope).append("\n");
  return text + ToHex(Sha256(canonical_request));
}

std::string SigningKey(std::string_view secret_key, std::string_view date, std::string_view region,
                       std::string_view service) {
  std::string key = HmacSha256("AWS4" + std::string(secret_key), date);
  for (const std::string_view step : {region, service, kScopeEnd}) {
    key = HmacSha256(key, step);
  }
  return key;
}

std::string Sign(std::string_view signing_key, std::string_view text) {
  return ToHex(HmacSha256(signing_key, text));
}

}  // namespace TansyNet::S3Signing
