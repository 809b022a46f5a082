// Requests to the admin listener that change something are signed as requests of the S3 protocol are: version 4 in the
// Authorization header, with the digest of the body. So no secret travels, and a request that somebody overhears can be
// repeated for minutes only. The scope names the service "tansy-admin", so that no request to the S3 server, whose
// buckets may have any name, counts here too. Threads: any.
#ifndef TANSY_HOST_ADMIN_SIGNATURE_H
#define TANSY_HOST_ADMIN_SIGNATURE_H

#include <ctime>

#include "Credentials.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::Host {

// Says whether these keys signed the request, its body included, within 15 minutes of `now`. The host and the digest of
// the body have to be among the headers that are signed; the region may be any.
bool IsSigned(const TansyNet::HttpServerRecv& message, const CredentialPair& keys, std::time_t now);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADMIN_SIGNATURE_H
