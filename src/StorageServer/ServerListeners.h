// Opening and closing the listeners of the two servers. Each function returns 0 or the HTTP library's error.
#ifndef TANSY_SRC_STORAGE_SERVER_SERVER_LISTENERS_H
#define TANSY_SRC_STORAGE_SERVER_SERVER_LISTENERS_H

#include <cstdint>

#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::details {

inline constexpr const char* kAnyIpv4 = "0.0.0.0";
inline constexpr const char* kAnyIpv6 = "::";

// A listener that is open already (its handle is not 0) stays as it is, so that a start that failed half-way can be
// tried again. Ports are read as 16 bits.
int StartListener(std::int32_t& handle, const char* address, std::uint32_t port,
                  TansyNet::CHttpServer::RecvCallback callback);
// The same with TLS and the default certificate, which lies below the executable's folder.
int StartTlsListener(std::int32_t& handle, const char* address, std::uint32_t port,
                     TansyNet::CHttpServer::RecvCallback callback);
// A stopped listener is forgotten (its handle becomes 0), so that a stop that failed half-way can be tried again.
int StopListener(std::int32_t& handle);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_SERVER_LISTENERS_H
