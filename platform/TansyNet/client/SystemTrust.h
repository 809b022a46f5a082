// The authorities that the operating system trusts. The code is in posix/ and windows/.
#ifndef TANSY_NET_CLIENT_SYSTEM_TRUST_H
#define TANSY_NET_CLIENT_SYSTEM_TRUST_H

#include <openssl/types.h>

namespace TansyNet::details {

// Returns false when the system does not provide them.
bool AddSystemTrust(SSL_CTX* context);

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_SYSTEM_TRUST_H
