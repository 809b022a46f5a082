// The certificate and rules of an HTTPS listener.
#ifndef TANSY_NET_SERVER_SERVER_TLS_CONTEXT_H
#define TANSY_NET_SERVER_SERVER_TLS_CONTEXT_H

#include <openssl/types.h>

#include <memory>
#include <string>

#include "TansyNet/server/ServerSettings.h"

namespace TansyNet {

using TlsContextPtr = std::shared_ptr<SSL_CTX>;

// Returns null when the certificate, its key or the authorities' file cannot be used; `error` then says why in one
// line.
TlsContextPtr LoadTlsContext(const HttpsServer& tls, std::string& error);

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_TLS_CONTEXT_H
