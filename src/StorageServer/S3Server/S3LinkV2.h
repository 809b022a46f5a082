// Links of signature version 2, which some clients still make. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_LINK_V2_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_LINK_V2_H

#include <ctime>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Signature.h"
#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

// Says whether a query is signed by version 2.
bool IsLinkV2(const Query& query);

// Gives the text that is signed. `host_bucket` is the bucket that the host name of the request names; it is empty when
// the path names it.
std::string LinkTextV2(const RequestToSign& request, std::string_view host_bucket);

// Gives the access key that the link names.
std::string AccessKeyOfLinkV2(const Query& query);

// Checks the link. Its body is taken as it is: nothing vouches for it.
Failure CheckLinkV2(const RequestToSign& request, std::string_view host_bucket, const Identity& identity,
                    std::time_t now);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_LINK_V2_H
