#ifndef TANSY_HOST_ADDRESSES_H
#define TANSY_HOST_ADDRESSES_H

#include <optional>
#include <string>
#include <vector>

namespace Tansy::Host {

// Gives the addresses of the machine's adapters, without loopback and tunnels: IPv4 addresses first, each family in the
// system's order. The result is empty when the system does not say.
std::optional<std::vector<std::string>> AdapterAddresses();

// Chooses the address under which clients reach a server of this machine. It is one of those in `listen`, where
// "0.0.0.0" and "::" stand for the adapters' addresses of that family, and an empty list stands for both. IPv4 goes
// before IPv6, an address that only one network knows comes after both, and loopback comes last. When there is no
// other, the answer is 127.0.0.1 (or ::1 where only IPv6 is listened on).
std::string ChooseLocalIp(const std::vector<std::string>& listen, const std::vector<std::string>& adapters);

// Gives the address under which the programs of this machine reach such a server.
std::string LoopbackAddress(const std::vector<std::string>& listen);

// Writes an address as it stands in a URL, an IPv6 address in brackets.
std::string UrlHost(const std::string& ip);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADDRESSES_H
