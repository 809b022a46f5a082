// The tasks that the object server posts to the message loop.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/StreamPieceQueue.h"
#include "TansyBase/MessageLoop.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

namespace details {

// Tells a client that its request will not be handled, and forgets its upload. A record that stayed would keep the
// bytes that are stored already from being freed. When there is no memory even for an answer, the connection's time-out
// tells the client.
void EndRequest(std::int32_t handle) noexcept;

}  // namespace details

// Brings a request to its handler. It holds the message, whose body is shared with the HTTP library and not copied.
class CObjectMsgTask : public TansyBase::CTask {
 public:
  CObjectMsgTask(std::int32_t server_handle, TansyNet::HttpServerRecv msg);
  // Answers the request when the task is dropped because the loop has stopped.
  ~CObjectMsgTask() override;
  void Exec() override;

 private:
  TansyNet::HttpServerRecv msg_;
  std::int32_t server_handle_;
  bool executed_ = false;
};

// Brings one piece of a streamed upload to the storage. A piece that the storage refuses ends its stream and sends
// nothing to the client; the next piece, or the handler, finds that out. A piece that fails for any other reason
// (memory ran out), or is dropped by a loop that stops, ends the upload at once.
class CObjectStreamTask : public details::CStreamPiece {
 public:
  CObjectStreamTask(std::int32_t server_handle, const TansyNet::HttpServerRecv& msg);
  ~CObjectStreamTask() override;
  void Exec() override;

  std::int32_t Handle() const override { return server_handle_; }
  // Posts the upload's request to the loop after this piece, which is the last one, has been stored.
  void HandleAfterwards(std::unique_ptr<CObjectMsgTask> request) { request_ = std::move(request); }

 private:
  // Logs in the name of Exec.
  void Store(const details::Caller& caller);
  void EndUpload();

  std::shared_ptr<const std::string> data_;  // shared with the HTTP library; null for an empty piece
  std::uint32_t size_ = 0;
  std::int32_t server_handle_;
  std::string url_;
  std::unique_ptr<CObjectMsgTask> request_;  // set for the last piece only
  bool executed_ = false;
  // The token is held until the piece is stored, because the HTTP library delivers the next piece only then.
  std::shared_ptr<const void> token_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_TASKS_H
