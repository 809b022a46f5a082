// Opens and closes the listeners of the two servers. Each function returns 0 or the HTTP library's error.
#ifndef TANSY_SRC_STORAGE_SERVER_SERVER_LISTENERS_H
#define TANSY_SRC_STORAGE_SERVER_SERVER_LISTENERS_H

#include <cstdint>

#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::details {

inline constexpr const char* kAnyIpv4 = "0.0.0.0";
inline constexpr const char* kAnyIpv6 = "::";

// One listener of a server. Per address, a server has at most one listener with TLS and one without.
struct Listener {
  std::int32_t handle = 0;  // 0 when it is not open
  std::uint16_t port = 0;
};

// Opens a listener. A listener that is open at this port already stays as it is, so that a start that failed half-way
// can be repeated. A listener at another port is stopped once the new one is open, and stays when the new one cannot be
// opened. Ports are read as 16 bits.
int StartListener(Listener& listener, const char* address, std::uint32_t port,
                  TansyNet::CHttpServer::RecvCallback callback, const TansyNet::ListenerStyle& style = {});
// Does the same with TLS and the default certificate, which lies below the executable's folder.
int StartTlsListener(Listener& listener, const char* address, std::uint32_t port,
                     TansyNet::CHttpServer::RecvCallback callback, const TansyNet::ListenerStyle& style = {});
// Stops a listener. A stopped listener is forgotten, so that a stop that failed half-way can be repeated.
int StopListener(Listener& listener);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_SERVER_LISTENERS_H
