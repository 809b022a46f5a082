// Which web pages of other servers may use this one (cross-origin resource sharing). Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CORS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CORS_H

#include <string>

#include "StorageServer/S3Server/S3Text.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// Gives the value of Access-Control-Allow-Origin for the page that sends a request with these headers; it is empty when
// the configuration names its origin neither itself nor by `page_port`.
std::string AllowedOrigin(const S3ServerConfig& config, const LowerHeaders& headers);

// Adds what lets pages read an answer, headers included.
void AddCorsHeaders(TansyNet::Headers& headers, const std::string& readers);

// Gives the headers that tell a browser what a page may ask for. `request` has the headers of its question.
TansyNet::Headers PreflightHeaders(const LowerHeaders& request);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CORS_H
