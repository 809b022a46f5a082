#include "Requests.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace TansyBench {
namespace {

constexpr char kDate[] = "Sat, 21 Nov 2026 08:00:00 GMT";
constexpr char kFormType[] = "multipart/form-data";

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value == '\0') {
    throw std::runtime_error(std::string(name) + " is not set");
  }
  return value;
}

std::string Base64(const unsigned char* bytes, std::size_t size) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  text.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, static_cast<int>(size)));
  return text;
}

std::string HmacSha1(const std::string& text, const std::string& key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest, &size);
  return Base64(digest, size);
}

std::string HmacSha256(const std::string& text, const std::string& key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest, &size);
  return {reinterpret_cast<const char*>(digest), size};
}

std::string Sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr);
  return {reinterpret_cast<const char*>(digest), size};
}

std::string Hex(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

// The present time as "20261122T080000Z".
std::string NowText() {
  const std::time_t now = std::time(nullptr);
  char text[20];
  text[std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", std::gmtime(&now))] = '\0';
  return text;
}

// Signatures hold three characters that mean something else in a query.
std::string InQuery(const std::string& base64) {
  std::string text;
  for (const char c : base64) {
    text += c == '+' ? "%2B" : c == '/' ? "%2F" : c == '=' ? "%3D" : std::string(1, c);
  }
  return text;
}

class CSigner {
 public:
  explicit CSigner(ESignature signature, std::string host = {})
      : signature_(signature), host_(std::move(host)), s3_time_(NowText()) {}

  std::string CommonHeader() const {
    switch (signature_) {
      case ESignature::kHeader:
        return std::string("Date: ") + kDate;
      case ESignature::kForm:
        return std::string("Date: ") + kDate + "\r\nContent-Type: " + kFormType + "; boundary=tansy-bench";
      case ESignature::kS3:
        return "x-amz-date: " + s3_time_ + "\r\nx-amz-content-sha256: UNSIGNED-PAYLOAD";
      default:
        return "Accept: */*";
    }
  }

  Request Sign(const std::string& method, const std::string& path) const {
    switch (signature_) {
      case ESignature::kLink:
        return {method, Link(method, path), ""};
      case ESignature::kPictureLink:
        return {method, PictureLink(method, path), ""};
      case ESignature::kS3:
        return {method, path, S3Authorization(method, path)};
      default:
        return {method, path, Scheme() + HmacSha1(Text(method, path), secret_key_)};
    }
  }

 private:
  std::string Scheme() const { return "quorvane " + access_key_ + ":"; }

  std::string Text(const std::string& method, const std::string& path) const {
    const std::string type = signature_ == ESignature::kForm ? kFormType : "";
    return method + "\n\n" + type + "\n" + kDate + "\n\n" + path;
  }

  std::string Link(const std::string& method, const std::string& path) const {
    const std::string target = path + "?link=1";
    const std::string token = Scheme() + HmacSha1(method + "\n\n\n\n\n" + target, secret_key_);
    return target + "&token=" + InQuery(Base64(reinterpret_cast<const unsigned char*>(token.data()), token.size()));
  }

  // Version 4; paths need no encoding, and parameters come in the order of their names.
  std::string S3Authorization(const std::string& method, const std::string& path) const {
    const std::string names = "host;x-amz-content-sha256;x-amz-date";
    const std::size_t end = std::min(path.find('?'), path.size());
    const std::string query = path.substr(std::min(end + 1, path.size()));
    const std::string canonical = method + "\n" + path.substr(0, end) + "\n" + query + "\nhost:" + host_ +
                                  "\nx-amz-content-sha256:UNSIGNED-PAYLOAD\nx-amz-date:" + s3_time_ + "\n\n" + names +
                                  "\nUNSIGNED-PAYLOAD";
    const std::string day = s3_time_.substr(0, 8);
    const std::string scope = day + "/us-east-1/s3/aws4_request";
    std::string key = "AWS4" + secret_key_;
    for (const std::string& step : {day, std::string("us-east-1"), std::string("s3"), std::string("aws4_request")}) {
      key = HmacSha256(step, key);
    }
    const std::string text = "AWS4-HMAC-SHA256\n" + s3_time_ + "\n" + scope + "\n" + Hex(Sha256(canonical));
    return "AWS4-HMAC-SHA256 Credential=" + access_key_ + "/" + scope + ",SignedHeaders=" + names +
           ",Signature=" + Hex(HmacSha256(text, key));
  }

  std::string PictureLink(const std::string& method, const std::string& path) const {
    const std::string expires = "1795248000";
    return path + "&AccessKeyId=" + access_key_ + "&Expires=" + expires +
           "&Signature=" + InQuery(HmacSha1(method + "\n\n\n" + expires + "\n\n" + path, secret_key_));
  }

  const ESignature signature_;
  const std::string host_;
  const std::string s3_time_;
  const std::string access_key_ = Environment("TANSY_ACCESS_KEY");
  const std::string secret_key_ = Environment("TANSY_SECRET_KEY");
};

// Header lines are kept on one line of the file.
std::string Escaped(std::string text) {
  for (std::size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at)) {
    text.replace(at, 2, "\t");
  }
  return text;
}

std::string Unescaped(std::string text) {
  for (std::size_t at = text.find('\t'); at != std::string::npos; at = text.find('\t', at)) {
    text.replace(at, 1, "\r\n");
  }
  return text;
}

}  // namespace

ESignature ParseSignature(const std::string& word) {
  if (word == "header") {
    return ESignature::kHeader;
  }
  if (word == "link") {
    return ESignature::kLink;
  }
  if (word == "picture-link") {
    return ESignature::kPictureLink;
  }
  if (word == "s3") {
    return ESignature::kS3;
  }
  if (word == "form") {
    return ESignature::kForm;
  }
  throw std::runtime_error("no way to sign: " + word);
}

void WriteSigned(std::istream& lines, ESignature signature, std::ostream& requests, const std::string& host) {
  const CSigner signer(signature, host);
  requests << Escaped(signer.CommonHeader()) << '\n';
  std::string method;
  std::string path;
  while (lines >> method >> path) {
    const Request request = signer.Sign(method, path);
    requests << request.method << '\t' << request.path << '\t'
             << (request.authorization.empty() ? "-" : request.authorization) << '\n';
  }
}

RequestList SignOne(const std::string& method, const std::string& path) {
  const CSigner signer(ESignature::kHeader);
  return {signer.CommonHeader(), {signer.Sign(method, path)}};
}

RequestList ReadRequests(const std::string& file) {
  std::ifstream input(file);
  RequestList list;
  std::string line;
  if (!std::getline(input, line)) {
    throw std::runtime_error("cannot read requests from " + file);
  }
  list.common_header = Unescaped(line);
  while (std::getline(input, line)) {
    std::istringstream fields(line);
    Request request;
    std::getline(fields, request.method, '\t');
    std::getline(fields, request.path, '\t');
    std::getline(fields, request.authorization, '\t');
    if (request.authorization == "-") {
      request.authorization.clear();
    }
    list.requests.push_back(std::move(request));
  }
  if (list.requests.empty()) {
    throw std::runtime_error("no requests in " + file);
  }
  return list;
}

std::string Head(const RequestList& list, const Request& request, const std::string& host, std::uint64_t body_size) {
  std::string head =
      request.method + " " + request.path + " HTTP/1.1\r\nHost: " + host + "\r\n" + list.common_header + "\r\n";
  if (!request.authorization.empty()) {
    head += "Authorization: " + request.authorization + "\r\n";
  }
  if (request.method == "PUT" || request.method == "POST") {
    head += "Content-Length: " + std::to_string(body_size) + "\r\n";
  }
  return head + "\r\n";
}

}  // namespace TansyBench
