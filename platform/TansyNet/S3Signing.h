// The steps of signature version 4 of the S3 protocol, which clients and servers share.
// Threads: any. The functions throw std::bad_alloc, also when the cryptographic library refuses, which it does for want
// of memory only.
#ifndef TANSY_NET_S3_SIGNING_H
#define TANSY_NET_S3_SIGNING_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TansyNet::S3Signing {

inline constexpr std::string_view kAlgorithm = "AWS4-HMAC-SHA256";

// The service that a signature is made for. A request that was signed for one counts nowhere else.
inline constexpr std::string_view kS3Service = "s3";
inline constexpr std::string_view kAdminService = "tansy-admin";  // requests to the admin port of tansyd

using NameValue = std::pair<std::string, std::string>;

// What a signature covers. The texts outlive it.
struct SignedRequest {
  std::string_view method;
  std::string_view path;           // as it is meant: not percent-encoded
  std::vector<NameValue> query;    // as it is meant, in any order, without the signature itself
  std::vector<NameValue> headers;  // by lower-case name, in the order of the names
  std::string_view payload;        // the last line: the digest of the body, or what stands for it
};

// Writes unreserved bytes (letters, digits, "-", ".", "_", "~") as they are and every other byte as %XX, in capitals.
std::string PercentEncode(std::string_view text);
// Does the same and leaves slashes as they are, which is how a path is written.
std::string PercentEncodePath(std::string_view path);
// Turns %XX into its byte, in either case. Whatever is not the encoding of a byte stays as it is.
std::string PercentDecode(std::string_view text);
// Writes a query: encoded, in the order in which it is signed; "" when there are no parameters.
std::string QueryText(const std::vector<NameValue>& query);
// Writes bytes as lower-case hexadecimal digits.
std::string ToHex(std::string_view bytes);

// Gives the 32 bytes of a digest, and of the HMAC (RFC 2104) under `key`.
std::string Sha256(std::string_view text);
std::string HmacSha256(std::string_view key, std::string_view text);

// Gives the text whose digest is signed.
std::string CanonicalRequest(const SignedRequest& request);
// Gives "20130524/us-east-1/s3/aws4_request"; `date` is the eight digits of a day.
std::string Scope(std::string_view date, std::string_view region, std::string_view service = kS3Service);
// `timestamp` is written like "20130524T000000Z".
std::string StringToSign(std::string_view timestamp, std::string_view scope, std::string_view canonical_request);
std::string SigningKey(std::string_view secret_key, std::string_view date, std::string_view region,
                       std::string_view service = kS3Service);
// Gives the signature of a text in lower-case digits.
std::string Sign(std::string_view signing_key, std::string_view text);

}  // namespace TansyNet::S3Signing

#endif  // TANSY_NET_S3_SIGNING_H
