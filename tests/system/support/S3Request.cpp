#include "support/S3Request.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <string>
#include <string_view>

namespace system_tests {
namespace {

std::string Hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string Sha256(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr);
  return {reinterpret_cast<const char*>(digest), size};
}

std::string Hmac(const std::string& key, std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest, &size);
  return {reinterpret_cast<const char*>(digest), size};
}

std::string TimeText(std::time_t now) {
  std::tm parts = {};
  ::gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  return text;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

}  // namespace

Request SignedS3(Request request, std::uint16_t port, std::time_t now, const Keys& keys) {
  const std::string time = TimeText(now);
  const std::string day = time.substr(0, 8);
  request.headers.insert(request.headers.end(), {{"Host", "127.0.0.1:" + std::to_string(port)},
                                                 {"x-amz-content-sha256", "UNSIGNED-PAYLOAD"},
                                                 {"x-amz-date", time}});
  std::map<std::string, std::string> signed_headers;
  for (const auto& [name, value] : request.headers) {
    if (Lower(name) == "host" || Lower(name).rfind("x-amz-", 0) == 0) {
      signed_headers[Lower(name)] = value;
    }
  }
  std::string lines;
  std::string names;
  for (const auto& [name, value] : signed_headers) {
    lines += name + ":" + value + "\n";
    names += (names.empty() ? "" : ";") + name;
  }
  const std::size_t question = std::min(request.target.find('?'), request.target.size());
  const std::string query = question < request.target.size() ? request.target.substr(question + 1) : "";
  const std::string canonical = request.method + "\n" + request.target.substr(0, question) + "\n" + query + "\n" +
                                lines + "\n" + names + "\nUNSIGNED-PAYLOAD";
  const std::string scope = day + "/us-east-1/s3/aws4_request";
  const std::string text = "AWS4-HMAC-SHA256\n" + time + "\n" + scope + "\n" + Hex(Sha256(canonical));
  std::string key = "AWS4" + keys.secret_key;
  for (const std::string& part : {day, std::string("us-east-1"), std::string("s3"), std::string("aws4_request")}) {
    key = Hmac(key, part);
  }
  request.headers.emplace_back("Authorization", "AWS4-HMAC-SHA256 Credential=" + keys.access_key + "/" + scope +
                                                    ", SignedHeaders=" + names + ", Signature=" + Hex(Hmac(key, text)));
  return request;
}

}  // namespace system_tests
