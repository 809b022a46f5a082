#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_REQUEST_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_REQUEST_H

#include <string>
#include <string_view>

#include "ModuleLog.h"
#include "StorageServer/RequestSignature.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/StorageConfig.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

// A request as its handler gets it: what was delivered, and what the opening made of it. Lives as long as the call of
// the handler; message and configuration outlive it.
struct ObjectRequest {
  ObjectRequest(const TansyNet::HttpServerRecv& message, const StorageServerConfig_V1& conf)
      : msg(message), config(conf), query(QueryOf(message)) {}

  // The bytes of this delivery.
  std::string_view Body() const { return msg.body ? std::string_view(*msg.body) : std::string_view(""); }

  const TansyNet::HttpServerRecv& msg;
  const StorageServerConfig_V1& config;  // as it was when the request was taken up; the same to its end
  const std::string query;               // the part of the query that means anything
  std::string bucket;                    // the two parts of the path, not percent-decoded
  std::string key;
  ObjectInfo object;            // of the routes that need one that exists
  details::Caller caller = {};  // the handler, for the log lines of its helpers
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_REQUEST_H
