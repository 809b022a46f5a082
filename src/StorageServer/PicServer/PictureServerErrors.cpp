#include "StorageServer/PicServer/PictureServerErrors.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "StorageServer/ServerComm.h"
#include "TansyBase/StringUtil.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

struct PictureErrorRow {
  int code;
  std::int32_t status;
  const char* message;  // UTF-8 here, GBK on the wire
};

constexpr std::array kPictureErrors = {
    PictureErrorRow{kPicHttpProtocol, 400, "解析数据错误,HTTP协议存在问题"},
    PictureErrorRow{kPicStorageResource, 500, "向云存储申请资源出错"},
    PictureErrorRow{kPicBadParameter, 400, "输入的参数错误"},
    PictureErrorRow{kPicServerInternal, 500, "服务器内部异常"},
    PictureErrorRow{kPicTooManyClients, 500, "超过最大接入限制"},
    PictureErrorRow{kPicNoRight, 403, "用户无权读写该资源"},
    PictureErrorRow{kPicAccessDenied, 403, "访问被拒绝，摘要验证不通过"},
    PictureErrorRow{kPicAccount, 401, "账号异常"},
    PictureErrorRow{kPicToken, 400, "存储Token错误"},
    PictureErrorRow{kPicTimeSkewed, 403, "请求的时间戳与服务器时间戳偏差超过阈值"},
    PictureErrorRow{kPicNodeExpired, 500, "需要重新申请最优节点（Token超时等）"},
    PictureErrorRow{kPicSizeMismatch, 400, "数据大小与Content-Length不对应"},
    PictureErrorRow{kPicSegmentQuery, 500, "HTTP段查询异常"},
    PictureErrorRow{kPicNoFreeSpace, 500, "Not enough free space."},
    PictureErrorRow{kPicNoSuchPoolName, 500, "Pool Name is Not Exist."},
    PictureErrorRow{kPicClusterFull, 500, "集群容量不足"},
    PictureErrorRow{kPicNoSuchPool, 404, "该存储资源池不存在"},
};

}  // namespace
}  // namespace details

void BuildPicErrorRsp(TansyNet::HttpResponse& response, std::string& body, int code) {
  std::string message;
  const auto row = std::find_if(details::kPictureErrors.begin(), details::kPictureErrors.end(),
                                [code](const details::PictureErrorRow& error) { return error.code == code; });
  if (row != details::kPictureErrors.end()) {
    response.status = row->status;
    message = TansyBase::StringUtil::UTF8ToGBK(row->message);
  }
  // The body is written as text, because a JSON document would take the GBK bytes for broken UTF-8.
  body = R"({"ErrorCode": )" + std::to_string(code) + R"(, "Message": ")" + message + R"("})";
  SetRspHeaders(response, kJsonContentType);
}

}  // namespace Tansy::CloudStorage
