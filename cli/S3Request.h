#ifndef TANSY_CLI_S3_REQUEST_H
#define TANSY_CLI_S3_REQUEST_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "S3Path.h"

namespace Tansy::Cli {

// One request of the S3 protocol before it is signed.
struct S3Request {
  std::string method = "GET";
  S3Path path = {};                                             // without a bucket the request is for the server itself
  std::vector<std::pair<std::string, std::string>> query = {};  // not encoded
  std::map<std::string, std::string> headers = {};              // by lower-case name
  std::string_view body = {};
  std::uint32_t patience_ms = 60000;  // longest time without progress, and until the answer begins
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_REQUEST_H
