#include "TansyNet/ListenerOptions.h"

namespace TansyNet {

bool LingeringConnectionsBlockPorts() {
  return true;
}

}  // namespace TansyNet
