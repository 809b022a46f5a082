#include "TansyNet/server/ListenerOptions.h"

namespace TansyNet {

bool LingeringConnectionsBlockPorts() {
  return false;
}

}  // namespace TansyNet
