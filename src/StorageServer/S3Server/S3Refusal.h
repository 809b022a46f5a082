// What clients of the S3 protocol are told when the HTTP library refuses their request, so that no handler sees it.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REFUSAL_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REFUSAL_H

#include "TansyCloudStorage/S3Server.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// Makes the answer with the document that S3 clients read. `status` is the library's; a body that is too long is an
// EntityTooLarge, whose status is another one. Threads: any; it does not wait.
TansyNet::Refusal MakeRefusal(int status, const TansyNet::HttpServerRecv& msg, const S3ServerConfig& config);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_REFUSAL_H
