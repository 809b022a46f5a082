// winsock2.h has to come before windows.h, that before wincrypt.h, and all before OpenSSL's headers.
// clang-format off
#include <winsock2.h>
#include <windows.h>
#include <wincrypt.h>
// clang-format on

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "TansyNet/client/SystemTrust.h"

#pragma comment(lib, "crypt32.lib")

namespace TansyNet::details {

bool AddSystemTrust(SSL_CTX* context) {
  const HCERTSTORE system = ::CertOpenSystemStoreW(0, L"ROOT");
  if (system == nullptr) {
    return false;
  }
  X509_STORE* const store = SSL_CTX_get_cert_store(context);
  for (PCCERT_CONTEXT entry = ::CertEnumCertificatesInStore(system, nullptr); entry != nullptr;
       entry = ::CertEnumCertificatesInStore(system, entry)) {
    const unsigned char* encoded = entry->pbCertEncoded;
    X509* const certificate = d2i_X509(nullptr, &encoded, static_cast<long>(entry->cbCertEncoded));
    if (certificate != nullptr) {
      X509_STORE_add_cert(store, certificate);
      X509_free(certificate);
    }
  }
  ::CertCloseStore(system, 0);
  return true;
}

}  // namespace TansyNet::details
