// The errors of the picture protocol and the answer for each of them.
#ifndef TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_SERVER_ERRORS_H
#define TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_SERVER_ERRORS_H

#include <string>

namespace TansyNet {
struct HttpResponse;
}

namespace Tansy::CloudStorage {

// These are all codes of the protocol; clients know them by number. The codes that this server uses have a remark.
enum PictureError : int {
  kPicHttpProtocol = -50001,     // no such route, no usable Host header, a form without its picture
  kPicStorageResource = -50002,  // a storage callback failed
  kPicBadParameter = -50003,     // the Host header names a port that is not the server's
  kPicServerInternal = -50004,   // no callback configured, too many requests waiting
  kPicTooManyClients = -50007,
  kPicNoRight = -58001,
  kPicAccessDenied = -58002,  // signature missing, malformed or wrong
  kPicAccount = -58003,       // another access key than the server's
  kPicToken = -58005,
  kPicTimeSkewed = -58006,
  kPicNodeExpired = -58007,
  kPicSizeMismatch = -58008,
  kPicSegmentQuery = -58009,
  kPicNoFreeSpace = -58010,
  kPicNoSuchPoolName = -58011,
  kPicClusterFull = -58100,
  kPicNoSuchPool = -58102,
};

// The content type of every JSON answer. Errors have it too, although their messages are GBK.
inline constexpr const char* kJsonContentType = "text/json; charset=utf-8";

// Makes `response` and `body` the answer for an error. A code without a row in the table leaves the status as it is and
// has no message.
void BuildPicErrorRsp(TansyNet::HttpResponse& response, std::string& body, int code);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_PIC_SERVER_PICTURE_SERVER_ERRORS_H
