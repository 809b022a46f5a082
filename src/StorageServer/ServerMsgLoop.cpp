#include "StorageServer/ServerMsgLoop.h"

namespace Tansy::CloudStorage {

CServerMsgLoop& CServerMsgLoop::Instance() {
  return CSingleton<CServerMsgLoop>::Instance();
}

}  // namespace Tansy::CloudStorage
