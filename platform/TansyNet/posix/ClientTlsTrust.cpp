#include <openssl/ssl.h>

#include "TansyNet/ClientTls.h"

namespace TansyNet::details {

bool AddSystemTrust(ssl_ctx_st* context) {
  return SSL_CTX_set_default_verify_paths(context) == 1;
}

}  // namespace TansyNet::details
