#include "TansyNet/server/ListenerOptions.h"

namespace TansyNet {

bool LingeringConnectionsBlockPorts() {
  return true;
}

}  // namespace TansyNet
