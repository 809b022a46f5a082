// Requests of the S3 protocol, signed with version 4 in a header, for connections on which tests send what no client
// would.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_S3_SIGN_H
#define TANSY_TESTS_SYSTEM_SUPPORT_S3_SIGN_H

#include <cstdint>
#include <string>
#include <string_view>

#include "support/Http.h"

namespace system_tests {

// Gives the digest in hexadecimal digits, as a request names it that signs its body.
std::string Sha256(std::string_view text);

// What a request says about its body and its time.
struct S3Claim {
  std::string payload = "UNSIGNED-PAYLOAD";  // the value of x-amz-content-sha256
  int clock_offset = 0;                      // seconds that the client's clock is ahead
  Keys keys = {};
  std::string service = "s3";  // that the signature is for; the admin port's is "tansy-admin"
};

// What the signatures of chunks are made from.
struct S3Chain {
  std::string key;
  std::string timestamp;
  std::string scope;
  std::string signature;  // the one before
};

// The path is percent-encoded as clients do it, and the query's names are in their order, each with a "=". All headers
// whose names begin with x-amz- are signed.
Request S3Signed(Request request, std::uint16_t port, const S3Claim& claim = {}, S3Chain* chain = nullptr);

// A chunk of a body in aws-chunked; one without bytes is the last.
std::string Chunk(std::string_view bytes);
std::string SignedChunk(S3Chain& chain, std::string_view bytes);
// A whole body in unsigned chunks of this size, with the trailer's lines.
std::string InChunks(std::string_view bytes, std::size_t chunk, const std::string& trailer = {});

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_S3_SIGN_H
