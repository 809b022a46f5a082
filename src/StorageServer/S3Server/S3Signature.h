// Signature version 4 of the S3 protocol, on the server's side. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SIGNATURE_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SIGNATURE_H

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Text.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::CloudStorage::S3 {

// Whose signatures count, and for which region.
struct Identity {
  std::string access_key;
  std::string secret_key;
  std::string region;
};

// A request as far as a signature covers it. The texts outlive it.
struct RequestToSign {
  std::string_view method;
  std::string_view path;  // as it was sent
  const Query& query;
  const LowerHeaders& headers;
};

// How a body is encoded and what vouches for it.
enum class EBodyForm {
  kPlain,                // the body as it is, and nothing vouches for it
  kPlainWithDigest,      // the body as it is, with a SHA-256 digest that is signed
  kChunks,               // aws-chunked; the chunks are not signed, a trailer follows
  kSignedChunks,         // aws-chunked; each chunk is signed
  kSignedChunksTrailer,  // aws-chunked; each chunk is signed, and so is the trailer that follows
};

// What a checked signature says about its request.
struct Signed {
  EBodyForm body_form = EBodyForm::kPlain;
  std::string digest;       // SHA-256 of the body in lower-case digits, for kPlainWithDigest
  std::string timestamp;    // "20130524T000000Z"
  std::string scope;        // "20130524/us-east-1/s3/aws4_request"
  std::string signing_key;  // 32 bytes
  std::string signature;    // of the request; the first chunk's signature is made from it
};

// Gives the access key that a request, or a credential "KEY/DATE/REGION/s3/aws4_request", names, whatever else is wrong
// with it; empty when it names none.
std::string ClaimedAccessKey(const RequestToSign& request);
std::string AccessKeyOfCredential(std::string_view credential);

// Checks the signature in the Authorization header or in the query. `now` is the clock, in seconds since 1970.
// A request without a signature is denied, and so is every request when the access key or the secret key is empty.
Failure CheckSignature(Signed& result, const RequestToSign& request, const Identity& identity, std::time_t now);

// Checks a text that is signed by itself, such as the policy of a form. `credential` is
// "KEY/DATE/REGION/s3/aws4_request".
Failure CheckSignedText(std::string_view text, std::string_view credential, std::string_view signature,
                        const Identity& identity);

// The steps of a signature.

// Gives the text whose digest is signed. `signed_headers` are lower-case names in order; `payload` is the last line.
std::string CanonicalRequest(const RequestToSign& request, const std::vector<std::string>& signed_headers,
                             std::string_view payload);
using TansyNet::S3Signing::Sign;
using TansyNet::S3Signing::SigningKey;
using TansyNet::S3Signing::StringToSign;
// Gives the text that the signature of a chunk is made of; `before` is the signature in front of it.
std::string ChunkToSign(const Signed& request, std::string_view before, std::string_view data_digest);
// Does the same for the trailer that follows the last chunk.
std::string TrailerToSign(const Signed& request, std::string_view before, std::string_view trailer_digest);

// Reads "20130524T000000Z". Returns -1 for any other text and for days that no calendar has.
std::time_t ParseTimestamp(std::string_view text);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SIGNATURE_H
