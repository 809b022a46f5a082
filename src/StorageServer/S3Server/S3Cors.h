// Which web pages of other servers may use this one (cross-origin resource sharing). Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CORS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CORS_H

#include <string>
#include <vector>

#include "StorageServer/S3Server/S3Text.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// Gives the value of Access-Control-Allow-Origin for a page of `origin`; it is empty when that is none of `origins`, of
// which "*" stands for all.
std::string AllowedOrigin(const std::vector<std::string>& origins, const std::string& origin);

// Adds what lets pages read an answer, headers included.
void AddCorsHeaders(TansyNet::Headers& headers, const std::string& readers);

// Gives the headers that tell a browser what a page may ask for. `request` has the headers of its question.
TansyNet::Headers PreflightHeaders(const LowerHeaders& request);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CORS_H
