#include "TansyNet/server/OfferedSockets.h"

namespace TansyNet {
namespace details {
namespace {

std::string TextOf(const ListenerName& name) {
  return name.address + " port " + std::to_string(name.port);
}

}  // namespace
}  // namespace details

std::string COfferedSockets::Add(const std::vector<details::SocketHandle>& sockets) {
  const std::scoped_lock lock(mutex_);
  for (const details::SocketHandle socket : sockets) {
    Offer offer;
    offer.socket = socket;
    if (!details::NameListener(socket, offer.name)) {
      return "an offered socket is none that listens for TCP";
    }
    // Listeners of IPv4 have sockets of their own, and could not be opened beside this one.
    if (offer.name.takes_ipv4_too) {
      return "the offered socket of " + details::TextOf(offer.name) + " takes IPv4 too: offer one for each family";
    }
    offers_.push_back(offer);
  }
  return {};
}

details::SocketHandle COfferedSockets::Find(const std::string& address, std::uint16_t port) {
  const std::scoped_lock lock(mutex_);
  for (Offer& offer : offers_) {
    if (offer.name.port == port && offer.name.address == address) {
      offer.is_used = true;
      return details::CopySocket(offer.socket);
    }
  }
  return details::kNoSocket;
}

std::vector<std::string> COfferedSockets::Unused() const {
  const std::scoped_lock lock(mutex_);
  std::vector<std::string> names;
  for (const Offer& offer : offers_) {
    if (!offer.is_used) {
      names.push_back(details::TextOf(offer.name));
    }
  }
  return names;
}

}  // namespace TansyNet
