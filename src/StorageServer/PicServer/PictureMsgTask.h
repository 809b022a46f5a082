#ifndef TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_MSG_TASK_H
#define TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_MSG_TASK_H

#include <cstdint>

#include "TansyBase/MessageLoop.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// A request on its way to its handler. Holds the message; its body is shared with the HTTP library, not copied.
class CPictureMsgTask : public TansyBase::CTask {
 public:
  CPictureMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg);
  // A request that is dropped, because the loop has stopped, is answered here.
  ~CPictureMsgTask() override;
  void Exec() override;

 private:
  TansyNet::HttpServerRecv msg_;
  std::int32_t server_handle_;
  bool executed_ = false;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_MSG_TASK_H
