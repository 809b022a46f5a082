#include "support/ConsoleUser.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <regex>

namespace system_tests {
namespace {

std::string HmacHex(const std::string& secret, const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &size);
  std::string digits;
  for (unsigned int i = 0; i < size; ++i) {
    digits += "0123456789abcdef"[digest[i] >> 4];
    digits += "0123456789abcdef"[digest[i] & 15];
  }
  return digits;
}

}  // namespace

std::string JsonMember(const std::string& json, const std::string& name) {
  std::smatch found;
  return std::regex_search(json, found, std::regex("\"" + name + "\":\"([^\"]*)\"")) ? found[1].str() : "";
}

Reply PostJson(std::uint16_t port, const std::string& target, const std::string& body, HeaderList headers) {
  headers.emplace_back("Content-Type", "application/json");
  return Call(port, {"POST", target, headers, body});
}

Reply SignInAtConsole(std::uint16_t port, const Keys& keys) {
  const std::string nonce = JsonMember(Call(port, {"GET", "/console/api/challenge", {}, ""}).body, "nonce");
  return PostJson(port, "/console/api/session",
                  R"({"key":")" + keys.access_key + R"(","nonce":")" + nonce + R"(","proof":")" +
                      HmacHex(keys.secret_key, nonce + "\n" + keys.access_key) + "\"}");
}

HeaderList SignedInAtConsole(std::uint16_t port, const Keys& keys) {
  const Reply reply = SignInAtConsole(port, keys);
  EXPECT_EQ(reply.status, 200) << reply.body;
  const std::string cookie = reply.Header("Set-Cookie");
  return {{"Cookie", cookie.substr(0, cookie.find(';'))}, {"X-CSRF-Token", JsonMember(reply.body, "csrf")}};
}

}  // namespace system_tests
