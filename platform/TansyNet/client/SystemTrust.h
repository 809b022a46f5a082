// The authorities that the operating system trusts; in posix/ and windows/.
#ifndef TANSY_NET_CLIENT_SYSTEM_TRUST_H
#define TANSY_NET_CLIENT_SYSTEM_TRUST_H

#include <openssl/types.h>

namespace TansyNet::details {

// False when the system does not give them.
bool AddSystemTrust(SSL_CTX* context);

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_SYSTEM_TRUST_H
