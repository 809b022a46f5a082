// What the object server posts to the message loop.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "ModuleLog.h"
#include "TansyBase/MessageLoop.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// A request on its way to its handler. Holds the message; its body is shared with the HTTP library, not copied.
class CObjectMsgTask : public TansyBase::CTask {
 public:
  CObjectMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg);
  // A request that is dropped, because the loop has stopped, is answered here.
  ~CObjectMsgTask() override;
  void Exec() override;

 private:
  TansyNet::HttpServerRecv msg_;
  std::int32_t server_handle_;
  bool executed_ = false;
};

// One piece of a streamed upload on its way to the storage. A piece that the storage refuses ends its stream and sends
// nothing to the client: the next piece, or the handler, finds that out. A piece that fails for any other reason (out
// of memory), or is dropped by a loop that stops, ends the upload at once.
class CObjectStreamTask : public TansyBase::CTask {
 public:
  CObjectStreamTask(std::int32_t server_handle, const TansyNet::HttpServerRecv& msg);
  ~CObjectStreamTask() override;
  void Exec() override;

  std::int32_t Handle() const { return server_handle_; }
  // Posts the upload's request to the loop when this piece, the last one, is done with.
  void HandleAfterwards(std::unique_ptr<CObjectMsgTask> request) { request_ = std::move(request); }

 private:
  // In the name of Exec.
  void Store(const details::Caller& caller);
  void EndUpload();

  std::shared_ptr<const std::string> data_;  // shared with the HTTP library; null for an empty piece
  std::uint32_t size_ = 0;
  std::int32_t server_handle_;
  std::string url_;
  std::unique_ptr<CObjectMsgTask> request_;  // of the last piece
  bool executed_ = false;
  // Held until the piece is stored: the HTTP library delivers the next piece only then.
  std::shared_ptr<const void> token_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H
