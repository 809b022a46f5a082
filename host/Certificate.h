// The certificate of the HTTPS listeners: a pair PATH.crt and PATH.key beside each other, or one PEM file PATH that
// holds both.
#ifndef TANSY_HOST_CERTIFICATE_H
#define TANSY_HOST_CERTIFICATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::Host {

// The place where the servers look for it, below the data folder.
inline constexpr const char* kCertificatePath = CloudStorage::kDefaultCertificatePath;

// Makes a self-signed pair when there is neither a certificate nor a PEM file yet: P-256, ten years, for `localhost`,
// the loopback addresses and `names` (host names or addresses). A key that is there already is used. Returns true when
// it made a pair. Throws CStartFailure with kExitFailed.
bool MakeCertificateIfMissing(const std::string& path, const std::vector<std::string>& names);

// Says in one line why the pair cannot be used: it is missing or broken, or its halves do not belong together. The text
// is empty when the pair can be used.
std::string CheckCertificate(const std::string& path);

// Says when the certificate ends, in seconds since 1970; empty when it cannot be read.
std::optional<std::int64_t> CertificateEnd(const std::string& path);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CERTIFICATE_H
