// Buckets, and the address that a client should use for its transfers.
#include "OSAL/Osal.h"
#include "StorageServer/HostField.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "TansyBase/GuidUtil.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

using TansyProto::CXmlProto;

constexpr const char* kOwner = "admin";
constexpr const char* kDefaultLocation = "local";

std::string WithoutSlash(const std::string& path) {
  return path.substr(1);
}

bool ParseAddBucketMsg(BucketInfo& bucket, const std::string& body, const Caller& caller) {
  CXmlProto xml;
  if (!xml.Parse(body)) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]parse add bucket msg error[%s][%s(%d)]", body.c_str());
    return false;
  }
  bucket.acl = 0;  // whatever "/CreateBucketConfiguration/Acl" says
  bucket.location = xml.GetString("/CreateBucketConfiguration/LocationConstraint", kDefaultLocation);
  bucket.cycle = static_cast<std::uint32_t>(xml.GetInt("/CreateBucketConfiguration/Cycle"));
  bucket.size = static_cast<std::uint32_t>(xml.GetInt("/CreateBucketConfiguration/Size"));
  return true;
}

// A bucket without a size of its own has the size -1, kept in 32 bits.
std::int64_t SizeOf(const BucketInfo& bucket) {
  constexpr std::uint32_t kNone = 0xFFFFFFFF;
  return bucket.size == kNone ? -1 : std::int64_t{bucket.size};
}

// The elements stand in this order. The creation date has always been the name, so that clients do not see the time.
bool BuildBucketRsp(std::string& text, const BucketInfo& bucket) {
  CXmlProto xml;
  // Fixed: docs/compatibility.md, "Values that say less than their names".
  return xml.SetString("/Bucket/Owner", kOwner) && xml.SetString("/Bucket/Name", bucket.name) &&
         xml.SetString("/Bucket/CreateDate", bucket.name) && xml.SetString("/Bucket/Location", bucket.location) &&
         xml.SetInt("/Bucket/Acl", bucket.acl) && xml.SetInt("/Bucket/VersionPolicy", 0) &&
         xml.SetInt("/Bucket/LifeCycle", -1) && xml.Serialize(text);
}

bool AddBucketToList(CXmlProto& xml, const std::string& path, const BucketInfo& bucket) {
  // Fixed: docs/compatibility.md, "Values that say less than their names".
  return xml.SetString(path + "/Name", bucket.name) && xml.SetString(path + "/CreateDate", bucket.name) &&
         xml.SetString(path + "/Location", bucket.location) && xml.SetInt(path + "/Acl", bucket.acl) &&
         xml.SetInt(path + "/VersionPolicy", 0) && xml.SetInt(path + "/LifeCycle", -1) &&
         xml.SetInt(path + "/Size", SizeOf(bucket)) && xml.SetInt(path + "/FreeSize", SizeOf(bucket));
}

bool BuildBucketListRsp(std::string& text, const std::map<std::string, BucketInfo>& buckets) {
  CXmlProto xml;
  if (!xml.SetInt("/ListAllMyBucketsResult/TotalNum", static_cast<std::int64_t>(buckets.size())) ||
      !xml.SetString("/ListAllMyBucketsResult/Owner", kOwner) || !xml.SetEmpty("/ListAllMyBucketsResult/Buckets")) {
    return false;
  }
  int i = 0;
  for (const auto& [name, bucket] : buckets) {
    if (!AddBucketToList(xml, "/ListAllMyBucketsResult/Buckets/Bucket[" + std::to_string(++i) + "]", bucket)) {
      return false;
    }
  }
  return xml.Serialize(text);
}

bool BuildBestNodeRsp(std::string& text, const std::string& host, std::uint32_t port) {
  CXmlProto xml;
  return xml.SetString("/BestNodeInfo/Location", InBrackets(host) + ":" + std::to_string(port)) && xml.Serialize(text);
}

// The address at which a client says it reached the server.
struct Asked {
  std::string value;      // the Host header
  std::string host;       // its host, without the brackets of an IPv6 address
  std::string port_text;  // the port in that header, else the ServerPort header
  std::int32_t port = 0;
};

// Returns false when the request does not say it.
bool ReadHostField(Asked& asked, const TansyNet::Headers& headers) {
  asked.value = HeaderOrEmpty(headers, "Host");
  const HostField field = ParseHostField(asked.value);
  asked.host = field.host;
  asked.port_text = field.port_text ? *field.port_text : HeaderOrEmpty(headers, "ServerPort");
  asked.port = OSAL_StrToi32(asked.port_text.c_str());
  return !asked.host.empty() && (field.port_text || !asked.port_text.empty());
}

struct Node {
  std::string host;
  std::uint32_t port = 0;
};

// Gives the first of two ports that equals the client's port; 0 when neither does. A port of 0 is not configured and
// matches nothing.
std::uint32_t MatchPort(std::int32_t port, std::uint32_t http_port, std::uint32_t https_port) {
  const auto wanted = static_cast<std::uint32_t>(port);
  return port > 0 && (wanted == http_port || wanted == https_port) ? wanted : 0;
}

bool IsOwnAddress(const std::string& host) {
  AdapterAddresses addresses;
  CObjectServer::GetAdapterInfo(addresses);
  return addresses.ipv4.contains(host) || addresses.ipv6.contains(host);
}

// Returns false when the client asks at a port that the server does not serve there.
bool ChooseNode(Node& node, const Asked& field, const StorageServerConfig_V1& config) {
  if (IsLoopback(field.host) || field.host == config.ip) {
    node.host = field.host;
    node.port = MatchPort(field.port, config.upload_port, config.https_port);
  } else if (config.wan_enable) {
    node.host = config.wan_ip;
    node.port = MatchPort(field.port, config.wan_port, config.https_wan_port);
  } else {
    node.host = IsOwnAddress(field.host) ? field.host : config.ip;
    node.port = MatchPort(field.port, config.upload_port, config.https_port);
  }
  return node.port != 0;
}

}  // namespace
}  // namespace details

// Fixed: docs/compatibility.md, "The order of checks".
int CObjectServer::HandleCreateBucket(std::int32_t session_id, const ObjectRequest& request) {
  auto& manager = CObjectStorageManager::Instance();
  BucketInfo bucket;
  bucket.name = details::WithoutSlash(request.msg.url);
  manager.CatchUp();  // a bucket that another node has just removed is not there any more
  if (manager.IsBucketExist(bucket.name)) {
    CLOUD_LOG(logging::kError, "[%s]bucket already exist[%s].[%s(%d)]", bucket.name.c_str());
    return AnswerError(session_id, kBucketAlreadyExists);
  }
  const std::string body(request.Body());
  if (!details::ParseAddBucketMsg(bucket, body, request.caller)) {
    CLOUD_LOG(logging::kError, "[%s]invalid xml content[%s].[%s(%d)]", body.c_str());
    return AnswerError(session_id, kInvalidXmlContent);
  }
  bucket.guid = TansyBase::GuidUtil::CreateGuid();
  if (!manager.AddBucket(bucket)) {
    CLOUD_LOG(logging::kError, "[%s]add bucket failed.[%s(%d)]");
    // Another node may have made it meanwhile.
    const bool is_there = manager.IsShared() && manager.IsBucketExist(bucket.name);
    return AnswerError(session_id, is_there ? kBucketAlreadyExists : kServerInternalError);
  }
  return AnswerXml(session_id, {});
}

int CObjectServer::HandleGetBucketProperty(std::int32_t session_id, const ObjectRequest& request) {
  BucketInfo bucket;
  if (!CObjectStorageManager::Instance().GetBucketByName(bucket, details::WithoutSlash(request.msg.url))) {
    return AnswerError(session_id, kNoSuchBucket);
  }
  std::string body;
  if (!details::BuildBucketRsp(body, bucket)) {
    return AnswerError(session_id, kServerInternalError);
  }
  return AnswerXml(session_id, body);
}

int CObjectServer::HandleListBuckets(std::int32_t session_id, const ObjectRequest& /*request*/) {
  std::map<std::string, BucketInfo> buckets;
  CObjectStorageManager::Instance().GetBucketList(buckets);
  std::string body;
  if (!details::BuildBucketListRsp(body, buckets)) {
    return AnswerError(session_id, kServerInternalError);
  }
  return AnswerXml(session_id, body);
}

int CObjectServer::HandleGetBestNode(std::int32_t session_id, const ObjectRequest& request) {
  details::Asked field;
  if (!details::ReadHostField(field, request.msg.headers)) {
    CLOUD_LOG(logging::kError, "[%s]no host.[%s(%d)]");
    return AnswerError(session_id, kInvalidHttpContent);
  }
  details::Node node;
  if (!details::ChooseNode(node, field, request.config)) {
    CLOUD_LOG(logging::kError, "[%s]HandleGetBestNode, host field[%s] invalid.[%s(%d)]", field.value.c_str());
    return AnswerError(session_id, kInvalidHttpContent);
  }
  std::string body;
  if (!details::BuildBestNodeRsp(body, node.host, node.port)) {
    return AnswerError(session_id, kServerInternalError);
  }
  const StorageServerConfig_V1& config = request.config;
  CLOUD_LOG(logging::kTrace,
            "[%s]HandleGetBestNode, host field[%s] host[%s] server_ip[%s]ip[%s] wan_ip[%s] upload_port[%d] "
            "wan_port[%d] https_port[%d] https_wan_port[%d]invalid.[%s(%d)]",
            field.value.c_str(), field.host.c_str(), field.port_text.c_str(), config.ip.c_str(), config.wan_ip.c_str(),
            config.upload_port, config.wan_port, config.https_port, config.https_wan_port);
  return AnswerXml(session_id, body);
}

}  // namespace Tansy::CloudStorage
