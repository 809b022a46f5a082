#include "PictureClientFixture.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>

namespace Tansy::CloudStorage {

namespace {

const unsigned char* Bytes(const std::string& text) {
  const void* const plain = text.data();
  return static_cast<const unsigned char*>(plain);
}

std::string Base64(const unsigned char* data, std::size_t size) {
  std::array<unsigned char, 64> text{};
  const int length = EVP_EncodeBlock(text.data(), data, static_cast<int>(size));
  return std::string(text.begin(), text.begin() + length);
}

}  // namespace

std::string ExpectedAuthorization(const std::string& method, const std::string& content_type, const std::string& date,
                                  const std::string& resource) {
  const std::string text = method + "\n" + "\n" + content_type + "\n" + date + "\n" + "\n" + resource;
  const std::string key = "secret";
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), Bytes(text), text.size(), digest.data(), &size);
  return "quorvane access:" + Base64(digest.data(), size);
}

CPictureClientFixture::CPictureClientFixture(bool https, const std::string& address)
    : server_({.https = https, .address = address}) {
  TansyNet::HttpClient::CloseIdleConnections();
  config_.is_https = https;
  config_.ip = address;
  config_.upload_port = server_.Port();
  config_.download_port = server_.Port();
  config_.pool_name = "pool";
  config_.ak = kAk;
  config_.sk = kSk;
  if (https) {
    TansyNet::HttpClient::SetTlsTrust({.trust_file = server_.CertificateFile(), .accept_any = false});
  }
}

CPictureClientFixture::~CPictureClientFixture() {
  TansyNet::HttpClient::SetTlsTrust({});
}

Tests::ScriptedAnswer CPictureClientFixture::BestNodeAnswer(const std::string& address, const std::string& port) {
  return {.headers = {{"Content-Type", "text/json; charset=utf-8"}},
          .body = R"({"GatewayIP":")" + address + R"(","GatewayPort":")" + port + R"(","Token":"the-token"})"};
}

void CPictureClientFixture::ScriptUpload() {
  server_.Answer("GET /Quorvane/BestNode*", BestNodeAnswer(config_.ip, std::to_string(server_.Port())));
  server_.Answer("POST /Quorvane/Picture/Write",
                 {.headers = {{"Content-Type", "text/json; charset=utf-8"}}, .body = R"({"PictureUrl":"/pic?id=1"})"});
}

}  // namespace Tansy::CloudStorage
