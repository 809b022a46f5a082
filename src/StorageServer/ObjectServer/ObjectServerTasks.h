// What the object server posts to the message loop.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H

#include <cstdint>
#include <memory>
#include <string>

#include "TansyBase/MessageLoop.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// A request on its way to its handler. Holds the message; its body is shared with the HTTP library, not copied.
class CObjectMsgTask : public TansyBase::CTask {
 public:
  CObjectMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg);
  void Exec() override;

 private:
  TansyNet::HttpServerRecv msg_;
  std::int32_t server_handle_;
};

// One piece of a streamed upload on its way to the storage. Sends nothing to the client: a piece that cannot be stored
// ends the stream, and whoever waits for its bytes, or the next piece, finds that out.
class CObjectStreamTask : public TansyBase::CTask {
 public:
  CObjectStreamTask(std::int32_t server_handle, const TansyNet::HttpServerRecv& msg);
  // A piece that was dropped unstored, by a loop that stops, ends its stream too.
  ~CObjectStreamTask() override;
  void Exec() override;

 private:
  std::shared_ptr<const std::string> data_;  // shared with the HTTP library; null for an empty piece
  std::uint32_t size_ = 0;
  std::int32_t server_handle_;
  std::string url_;
  bool executed_ = false;
  // Held until the piece is stored: the HTTP library delivers the next piece only then.
  std::shared_ptr<const void> token_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H
