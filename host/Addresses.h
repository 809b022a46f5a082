#ifndef TANSY_HOST_ADDRESSES_H
#define TANSY_HOST_ADDRESSES_H

#include <optional>
#include <string>
#include <vector>

namespace Tansy::Host {

// The addresses of the machine's adapters, without loopback and tunnels: IPv4 ones first, each family in the system's
// order. Nothing when the system does not say.
std::optional<std::vector<std::string>> AdapterAddresses();

// The address under which clients reach a server of this machine: one of those in `listen`, where "0.0.0.0" and "::"
// stand for the adapters' addresses of that family, and nothing at all stands for both. IPv4 goes before IPv6, an
// address that only one network knows after both, and loopback comes last. 127.0.0.1 (or ::1 where only IPv6 is
// listened on) when there is no other.
std::string ChooseLocalIp(const std::vector<std::string>& listen, const std::vector<std::string>& adapters);

// The address under which the programs of this machine reach such a server.
std::string LoopbackAddress(const std::vector<std::string>& listen);

// An address as it stands in a URL.
std::string UrlHost(const std::string& ip);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADDRESSES_H
