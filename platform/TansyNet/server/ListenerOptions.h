// Where operating systems differ about listening sockets.
#ifndef TANSY_NET_SERVER_LISTENER_OPTIONS_H
#define TANSY_NET_SERVER_LISTENER_OPTIONS_H

namespace TansyNet {

// Whether a port cannot be listened on while connections of an earlier listener linger, unless the option for reusing
// addresses is set. Where they do not, that option would let two listeners share a port and is left alone.
bool LingeringConnectionsBlockPorts();

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LISTENER_OPTIONS_H
