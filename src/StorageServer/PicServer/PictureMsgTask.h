#ifndef TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_MSG_TASK_H
#define TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_MSG_TASK_H

#include <cstdint>

#include "TansyBase/MessageLoop.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// Brings a request to its handler. It holds the message, whose body is shared with the HTTP library and not copied.
class CPictureMsgTask : public TansyBase::CTask {
 public:
  CPictureMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg);
  // Answers the request when the task is dropped because the loop has stopped.
  ~CPictureMsgTask() override;
  void Exec() override;

 private:
  TansyNet::HttpServerRecv msg_;
  std::int32_t server_handle_;
  bool executed_ = false;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_MSG_TASK_H
