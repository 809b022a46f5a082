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

// A request as its handler receives it: what was delivered, and what the opening made of it. It lives as long as the
// call of the handler; message and configuration outlive it.
struct ObjectRequest {
  ObjectRequest(const TansyNet::HttpServerRecv& message, const StorageServerConfig_V1& conf)
      : msg(message), config(conf), query(QueryOf(message)) {}

  // The bytes of this delivery.
  std::string_view Body() const { return msg.body ? std::string_view(*msg.body) : std::string_view(""); }

  const TansyNet::HttpServerRecv& msg;
  const StorageServerConfig_V1& config;  // configuration at the request's beginning; the same to its end
  const std::string query;               // query up to the end of a token; see QueryOf
  std::string bucket;                    // bucket and key are the two parts of the path, not percent-decoded
  std::string key;
  ObjectInfo object;            // set by routes that need an existing object
  details::Caller caller = {};  // handler that the log lines of its helpers name
  // The first piece of this upload has passed the opening. Its Date was compared with the clock then, and is older now
  // by as long as the upload took.
  bool opened_before = false;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_REQUEST_H
