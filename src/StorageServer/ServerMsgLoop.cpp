#include "StorageServer/ServerMsgLoop.h"

#include <utility>

#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

CServerMsgLoop& CServerMsgLoop::Instance() {
  return CSingleton<CServerMsgLoop>::Instance();
}

void CServerMsgLoop::Take(std::unique_ptr<TansyBase::CTask> task, bool is_read) {
  if (!is_read || !TansyNet::CHttpServer::IsThreadLent() || !RunHere(*task)) {
    PostTask(task.release());
  }
}

}  // namespace Tansy::CloudStorage
