// Says whom the client's secure connections trust.
#ifndef TANSY_NET_CLIENT_TLS_TRUST_H
#define TANSY_NET_CLIENT_TLS_TRUST_H

#include <string>

namespace TansyNet {

// Says how https servers are trusted, for the whole process. Certificates must name the host of the URL. A trust file
// that cannot be read fails every https exchange.
struct TlsTrust {
  std::string trust_file;   // PEM, authorities or servers' own certificates; empty: the system's store
  bool accept_any = false;  // an explicit switch, for servers with self-signed certificates
};

}  // namespace TansyNet

#endif  // TANSY_NET_CLIENT_TLS_TRUST_H
