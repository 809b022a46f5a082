#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REQUEST_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REQUEST_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Keys.h"
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
  // The web pages that may read the answer, as Access-Control-Allow-Origin names them; empty: none.
  std::string readers = {};
};

// What became of the computation of an entity tag.
struct ComputedTag {
  std::string url;   // of the bytes, as the host left it
  std::string etag;  // without quotes; empty when it could not be computed
};

// A request on its way through dispatch and handler. Message and configuration outlive it. Whoever takes the body may
// change its bytes.
struct Request : Recipient {
  // Splits path and query, and gives the request its id.
  Request(std::int32_t session, TansyNet::HttpServerRecv& message, const S3ServerConfig& conf);

  // Checks that path and query can be read and that the request is signed; fills `signature` and `signer`.
  Failure Check();

  TansyNet::HttpServerRecv& msg;
  const S3ServerConfig& config;
  const Query query;
  const LowerHeaders headers;  // with those that a link has in its query
  std::string host_bucket;     // the bucket that the host name names, in small letters; empty when the path names it
  std::string bucket;          // decoded; empty when the request is about no bucket
  std::string key;             // decoded; empty when the request is about no object
  Signed signature;
  S3KeyPointer signer;                            // null: the pair of the configuration
  std::shared_ptr<const ComputedTag> waited_for;  // null unless it has waited for a missing entity tag
};

// Gives 16 capital digits that no other request of this process has, nor, most likely, one of another process.
std::string MakeRequestId();

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REQUEST_H
