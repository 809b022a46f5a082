// Signatures of requests to the S3 door, and to other ports that take the same ones for a service of their own.
// Threads: any. Only std::bad_alloc is thrown.
#ifndef TANSY_CLI_S3_SIGNER_H
#define TANSY_CLI_S3_SIGNER_H

#include <map>
#include <string>
#include <string_view>

#include "S3Request.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Cli {

struct S3Keys {
  std::string access_key;
  std::string secret_key;
  std::string region;
  std::string_view service = TansyNet::S3Signing::kS3Service;  // that the signature counts for
};

// Gives all headers of a request, with its signature of this moment. `host` is the value of the Host header.
std::map<std::string, std::string> SignedS3Headers(const S3Request& request, const std::string& host,
                                                   const S3Keys& keys);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_SIGNER_H
