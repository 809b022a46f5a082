// What a listener shares with the connections that it accepted.
#ifndef TANSY_NET_SERVER_ENDPOINT_H
#define TANSY_NET_SERVER_ENDPOINT_H

#include <atomic>

#include "TansyNet/server/ServerSettings.h"

namespace TansyNet {

struct Endpoint {
  explicit Endpoint(RecvCallback receiver, const ListenerStyle& way = {}) : callback(receiver), style(way) {}

  const RecvCallback callback;
  const ListenerStyle style;
  std::atomic<bool> closed{false};  // the listener has stopped: connections end with their present request
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_ENDPOINT_H
