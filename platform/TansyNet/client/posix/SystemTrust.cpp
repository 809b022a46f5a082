#include <openssl/ssl.h>

#include "TansyNet/client/SystemTrust.h"

namespace TansyNet::details {

bool AddSystemTrust(SSL_CTX* context) {
  return SSL_CTX_set_default_verify_paths(context) == 1;
}

}  // namespace TansyNet::details
