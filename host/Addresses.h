#ifndef TANSY_HOST_ADDRESSES_H
#define TANSY_HOST_ADDRESSES_H

#include <string>
#include <vector>

namespace Tansy::Host {

// The addresses of the machine's adapters, without loopback and tunnels: IPv4 ones first, each family in the system's
// order. Empty when there are none or the system does not say.
std::vector<std::string> AdapterAddresses();

// The first of them, else 127.0.0.1.
std::string DefaultLocalIp();

// An address as it stands in a URL.
std::string UrlHost(const std::string& ip);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADDRESSES_H
