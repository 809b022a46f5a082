// Signatures of the two protocols, for requests that the module's client classes do not make.
// Threads: any. Only std::bad_alloc is thrown.
#ifndef TANSY_CLI_SIGNER_H
#define TANSY_CLI_SIGNER_H

#include <cstdint>
#include <string>

namespace Tansy::Cli {

// Gives the current time as the Date header carries it.
std::string HttpDate();

// Gives the Base64 text of the HMAC-SHA1 of `text` under `secret_key`.
std::string Sign(const std::string& text, const std::string& secret_key);

// Gives the value of the Authorization header for a request without a body digest and extension headers.
std::string AuthorizationValue(const std::string& method, const std::string& content_type, const std::string& date,
                               const std::string& resource, const std::string& access_key,
                               const std::string& secret_key);

// Gives a target for GET that needs no header: `path` with a query that carries the signature. `expires` is the time in
// seconds since 1970 from which on servers refuse it; 0 means never.
std::string SignedObjectTarget(const std::string& path, std::int64_t expires, const std::string& access_key,
                               const std::string& secret_key);
// Does the same for a picture's address ("/pic?id=..."). `expires` is signed, but servers do not check it.
std::string SignedPictureTarget(const std::string& target, const std::string& expires, const std::string& access_key,
                                const std::string& secret_key);

// Writes everything but letters, digits, "-", "." and "_" as %XX.
std::string PercentEncode(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SIGNER_H
