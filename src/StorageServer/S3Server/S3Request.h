#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REQUEST_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REQUEST_H

#include <cstdint>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Signature.h"
#include "StorageServer/S3Server/S3Text.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// Whom an answer goes to, and what the log says about the request. It is copied for an answer that comes later.
struct Recipient {
  std::int32_t handle = 0;
  std::string id;  // for the answer and the log
  std::string method;
  std::string url;  // as it was sent
};

// A request on its way through dispatch and handler. Message and configuration outlive it.
struct Request : Recipient {
  // Splits path and query, and gives the request its id.
  Request(std::int32_t session, const TansyNet::HttpServerRecv& message, const S3ServerConfig& conf);

  // The bytes of this delivery.
  std::string_view Body() const { return msg.body ? std::string_view(*msg.body) : std::string_view(); }

  // Checks that the path can be read and that the request is signed; fills `signature`.
  Failure Check();

  const TansyNet::HttpServerRecv& msg;
  const S3ServerConfig& config;
  const Query query;
  const LowerHeaders headers;
  std::string bucket;  // decoded; empty when the request is about no bucket
  std::string key;     // decoded; empty when the request is about no object
  Signed signature;
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REQUEST_H
