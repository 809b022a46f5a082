// Answers what a client asks before it sends pictures: the best node, the pools, the version.
#include <array>
#include <string_view>

#include "ModuleLog.h"
#include "OSAL/Osal.h"
#include "StorageServer/HostField.h"
#include "StorageServer/PicServer/PictureServer.h"
#include "StorageServer/PicServer/PictureServerErrors.h"
#include "StorageServer/RequestSignature.h"
#include "TansyBase/GuidUtil.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// An address of the server: the one that a client used, or the one that it should use.
struct Gateway {
  std::string ip;
  std::uint32_t port = 0;
};

// Chooses the answer for a client that asked at `asked`; the port of the result is 0 when no port of the server fits. A
// client that came from outside gets the address for outside clients; a client on the machine itself stays there.
Gateway ChooseGateway(const Gateway& asked, const StorageServerConfig_V1& config) {
  const bool from_outside = !IsLoopback(asked.ip) && asked.ip != config.ip && config.wan_enable;
  const std::uint32_t port = from_outside ? config.wan_port : config.upload_port;
  const std::uint32_t https_port = from_outside ? config.https_wan_port : config.https_port;
  if (asked.port == 0 || (asked.port != port && asked.port != https_port)) {
    return {};
  }
  if (IsLoopback(asked.ip)) {
    return asked;
  }
  return {from_outside ? config.wan_ip : config.ip, asked.port};
}

struct TextMember {
  const char* path;
  const char* value;
};

// There is only this one pool.
constexpr std::array kPool = {
    TextMember{"/List[1]/PoolID", "1"},      TextMember{"/List[1]/PoolName", "kiv_local_pool"},
    TextMember{"/List[1]/PoolType", "3"},    TextMember{"/List[1]/CoverType", "1"},
    TextMember{"/List[1]/LockLimit", "10"},  TextMember{"/List[1]/Size", "1000"},
    TextMember{"/List[1]/FreeSize", "1000"}, TextMember{"/List[1]/PoolStatus", "1"},
    TextMember{"/List[1]/BeginTime", "1"},   TextMember{"/List[1]/CoverTime", "1"},
    TextMember{"/List[1]/DomainID", "1"},
};
constexpr int kMaxKeys = 3000;

constexpr std::array kVersion = {
    TextMember{"/MajorVersion", "2"},
    TextMember{"/MinorVersion", "0"},
    TextMember{"/RevisionVersion", "0"},
};

}  // namespace
}  // namespace details

int CPictureServer::HandleGetBestNode(std::int32_t handle, const HttpServerRecv& request) {
  const auto config = conf_.Load();
  if (const int error = CheckAuth(request, *config); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetBestNode, auth failed.[%s(%d)]");
    return AnswerError(handle, error);
  }
  const std::string& host = HeaderOrEmpty(request.headers, "Host");
  if (host.empty()) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetBestNode, host field not exist.[%s(%d)]");
    return AnswerError(handle, kPicHttpProtocol);
  }
  const details::HostField field = details::ParseHostField(host);
  if (!field.port_text) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetBestNode, host field[%s] invalid.[%s(%d)]", host.c_str());
    return AnswerError(handle, kPicHttpProtocol);
  }
  const details::Gateway asked{field.host, static_cast<std::uint32_t>(OSAL_StrToi32(field.port_text->c_str()))};
  const details::Gateway gateway = details::ChooseGateway(asked, *config);
  if (gateway.port == 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetBestNode, host field[%s] port[%s] invalid.[%s(%d)]", asked.ip.c_str(),
              field.port_text->c_str());
    return AnswerError(handle, kPicBadParameter);
  }
  TansyProto::CRapidJsonProto json;
  // Clients put the address in front of ":" and the port.
  json.SetString("/GatewayIP", details::InBrackets(gateway.ip));
  json.SetString("/GatewayPort", std::to_string(gateway.port));
  json.SetString("/Token", TansyBase::GuidUtil::CreateGuid());
  return AnswerJson(handle, json.Serialize());
}

int CPictureServer::HandleGetPoolList(std::int32_t handle, const HttpServerRecv& request) {
  if (const int error = CheckAuth(request, *conf_.Load()); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetPoolList, auth failed.[%s(%d)]");
    return AnswerError(handle, error);
  }
  TansyProto::CRapidJsonProto json;
  json.SetString("/Marker", "");
  json.SetInt("/MaxKeys", details::kMaxKeys);
  json.SetBool("/IsTruncated", false);
  json.SetInt("/PoolCount", 1);
  for (const details::TextMember& member : details::kPool) {
    json.SetString(member.path, member.value);
  }
  return AnswerJson(handle, json.Serialize());
}

int CPictureServer::HandleGetVersion(std::int32_t handle, const HttpServerRecv& request) {
  if (const int error = CheckAuth(request, *conf_.Load()); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetVersion, auth failed.[%s(%d)]");
    return AnswerError(handle, error);
  }
  TansyProto::CRapidJsonProto json;
  for (const details::TextMember& member : details::kVersion) {
    json.SetString(member.path, member.value);
  }
  return AnswerJson(handle, json.Serialize());
}

}  // namespace Tansy::CloudStorage
