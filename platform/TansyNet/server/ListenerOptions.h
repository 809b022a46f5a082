// Differences between operating systems in listening sockets.
#ifndef TANSY_NET_SERVER_LISTENER_OPTIONS_H
#define TANSY_NET_SERVER_LISTENER_OPTIONS_H

namespace TansyNet {

// Says whether lingering connections of an earlier listener block a port unless the option for reusing addresses is
// set. Where they do not, that option would let two listeners share a port, so it is not set.
bool LingeringConnectionsBlockPorts();

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LISTENER_OPTIONS_H
