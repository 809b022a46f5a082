#include "Signer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "TansyBase/Encrypt.h"
#include "TansyBase/HttpDate.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr char kScheme[] = "quorvane ";

}  // namespace
}  // namespace details

std::string HttpDate() {
  return TansyBase::HttpDate::Format(TansyBase::TimeUtil::Now(), ' ');
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
  // Servers find the token only behind another parameter, so there is always one.
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
