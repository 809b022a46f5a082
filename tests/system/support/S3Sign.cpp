#include "support/S3Sign.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <map>

namespace system_tests {

namespace {

std::string Hex(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += digits;
  }
  return text;
}

std::string Hmac(std::string_view key, std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest, &size);
  return {reinterpret_cast<const char*>(digest), size};
}

std::string Timestamp(int offset) {
  const std::time_t now = std::time(nullptr) + offset;
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[20];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  return text;
}

std::string Length(std::size_t size) {
  char text[20];
  std::snprintf(text, sizeof text, "%zx", size);
  return text;
}

}  // namespace

std::string Sha256(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr);
  return Hex({reinterpret_cast<const char*>(digest), size});
}

Request S3Signed(Request request, std::uint16_t port, const S3Claim& claim, S3Chain* chain) {
  const Keys& keys = claim.keys;
  const std::string timestamp = Timestamp(claim.clock_offset);
  const std::string day = timestamp.substr(0, 8);
  const std::string scope = day + "/us-east-1/" + claim.service + "/aws4_request";
  request.headers.emplace_back("x-amz-date", timestamp);
  request.headers.emplace_back("x-amz-content-sha256", claim.payload);
  std::map<std::string, std::string> headers = {{"host", "127.0.0.1:" + std::to_string(port)}};
  for (const auto& [name, value] : request.headers) {
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower.starts_with("x-amz-")) {
      headers.emplace(lower, value);
    }
  }
  const std::size_t mark = request.target.find('?');
  std::string canonical = request.method + "\n" + request.target.substr(0, mark) + "\n" +
                          (mark == std::string::npos ? "" : request.target.substr(mark + 1)) + "\n";
  std::string names;
  for (const auto& [name, value] : headers) {
    canonical.append(name).append(":").append(value).append("\n");
    names.append(names.empty() ? "" : ";").append(name);
  }
  canonical.append("\n").append(names).append("\n").append(claim.payload);
  const std::string key =
      Hmac(Hmac(Hmac(Hmac("AWS4" + keys.secret_key, day), "us-east-1"), claim.service), "aws4_request");
  const std::string text = "AWS4-HMAC-SHA256\n" + timestamp + "\n" + scope + "\n" + Sha256(canonical);
  const std::string signature = Hex(Hmac(key, text));
  request.headers.emplace_back("Authorization", "AWS4-HMAC-SHA256 Credential=" + keys.access_key + "/" + scope +
                                                    ", SignedHeaders=" + names + ", Signature=" + signature);
  if (chain != nullptr) {
    *chain = {key, timestamp, scope, signature};
  }
  return request;
}

std::string Chunk(std::string_view bytes) {
  return Length(bytes.size()) + "\r\n" + std::string(bytes) + (bytes.empty() ? "" : "\r\n");
}

std::string SignedChunk(S3Chain& chain, std::string_view bytes) {
  const std::string text = "AWS4-HMAC-SHA256-PAYLOAD\n" + chain.timestamp + "\n" + chain.scope + "\n" +
                           chain.signature + "\n" + Sha256("") + "\n" + Sha256(bytes);
  chain.signature = Hex(Hmac(chain.key, text));
  return Length(bytes.size()) + ";chunk-signature=" + chain.signature + "\r\n" + std::string(bytes) + "\r\n";
}

std::string InChunks(std::string_view bytes, std::size_t chunk, const std::string& trailer) {
  std::string body;
  for (std::size_t at = 0; at < bytes.size(); at += chunk) {
    body += Chunk(bytes.substr(at, chunk));
  }
  return body + Chunk("") + trailer + "\r\n";
}

}  // namespace system_tests
