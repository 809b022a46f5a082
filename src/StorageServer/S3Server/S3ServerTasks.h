// The tasks that the S3 server posts to the message loop.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_TASKS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_TASKS_H

#include <cstdint>
#include <utility>

#include "StorageServer/ObjectServer/StreamPieceQueue.h"
#include "TansyBase/MessageLoop.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// Brings a request to its handler. When the task is dropped, because the loop has stopped, the request is answered.
class CMsgTask : public TansyBase::CTask {
 public:
  CMsgTask(std::int32_t handle, TansyNet::HttpServerRecv msg) : handle_(handle), msg_(std::move(msg)) {}
  ~CMsgTask() override;
  void Exec() override;

 private:
  const std::int32_t handle_;
  TansyNet::HttpServerRecv msg_;
  bool executed_ = false;
};

// Stores one piece of an upload. It keeps the piece's token until then, because the next piece comes only afterwards.
class CPieceTask : public CloudStorage::details::CStreamPiece {
 public:
  CPieceTask(std::int32_t handle, TansyNet::HttpServerRecv msg) : handle_(handle), msg_(std::move(msg)) {}
  ~CPieceTask() override;
  void Exec() override;
  std::int32_t Handle() const override { return handle_; }

 private:
  const std::int32_t handle_;
  TansyNet::HttpServerRecv msg_;
  bool executed_ = false;
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SERVER_TASKS_H
