#include "TansyNet/ListenerOptions.h"

namespace TansyNet {

bool LingeringConnectionsBlockPorts() {
  return false;
}

}  // namespace TansyNet
