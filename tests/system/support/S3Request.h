// Requests of the S3 protocol, signed here, for tests that send very many of them.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_S3_REQUEST_H
#define TANSY_TESTS_SYSTEM_SUPPORT_S3_REQUEST_H

#include <cstdint>
#include <ctime>

#include "support/Http.h"

namespace system_tests {

// Signs by version 4, for the region us-east-1, without a digest of the body. The target is written as it is signed:
// percent-encoded, its query in the order of the names, and each of them has a "=". `now`: the time by the server's
// clock.
Request SignedS3(Request request, std::uint16_t port, std::time_t now = std::time(nullptr), const Keys& keys = {});

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_S3_REQUEST_H
