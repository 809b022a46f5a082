#include "StorageClient/PictureProtoClient.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "Common/HttpDate.h"
#include "Common/Signature.h"
#include "ModuleLog.h"
#include "StorageClient/ServerAddress.h"
#include "TansyBase/GuidUtil.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"
#include "TansyProto/RapidJsonProto.h"

using TansyBase::StringUtil;
using TansyNet::CHttpClientRequest;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int32_t kStatusOk = 200;
constexpr std::int32_t kFirstRedirect = 300;
constexpr std::int32_t kLastRedirect = 309;

constexpr char kWritePath[] = "/Quorvane/Picture/Write";
constexpr char kFormType[] = "multipart/form-data";
// Fixed: docs/compatibility.md, "The form of a picture upload".
constexpr char kBoundary[] = "------7e02362550dc4";

constexpr std::uint32_t kConnectTimeoutMs = 5000;
constexpr std::uint32_t kSendTimeoutMs = 15000;
// The time is long, because the server answers an upload only when its host has the picture on disk.
constexpr std::uint32_t kReceiveTimeoutMs = 30000;

// JSON answers are a few hundred bytes; a server that sends much more is broken or hostile.
constexpr std::uint64_t kMaxJsonBytes = std::uint64_t{1024} * 1024;
constexpr std::uint64_t kMaxPictureBytes = std::numeric_limits<std::uint32_t>::max();
// A log line keeps only this much of an unexpected answer, because the answer could be a whole picture.
constexpr std::size_t kMaxLoggedBytes = 4096;

std::string Logged(const std::string& body) {
  return body.substr(0, kMaxLoggedBytes);
}

// Gives the part of a resource that the server signs: it sees no query when "?" is the last character.
std::string SignedResource(const std::string& resource) {
  const bool empty_query = !resource.empty() && resource.find('?') == resource.size() - 1;
  return empty_query ? resource.substr(0, resource.size() - 1) : resource;
}

std::string SignRequest(const SPictureRequest& parts, const std::string& date, const std::string& sk) {
  const std::string text =
      parts.method + "\n\n" + parts.signed_type + "\n" + date + "\n\n" + SignedResource(parts.resource);
  return SignHmacSha1(text, sk);
}

void AddField(std::string& body, const std::string& name, const std::string& value) {
  body.append("--").append(kBoundary).append("\r\nContent-Disposition: form-data; name=\"").append(name);
  body.append("\"\r\n\r\n").append(value).append("\r\n");
}

bool IsRedirect(std::int32_t status) {
  return status >= kFirstRedirect && status <= kLastRedirect;
}

// Gives the path of a Location header that names an address of this scheme, or "" when it names another.
std::string PathOfLocation(const std::string& location, const std::string& scheme) {
  const std::size_t begin = location.find(scheme);
  if (begin == std::string::npos) {
    return {};
  }
  const std::size_t slash = location.find('/', begin + scheme.size());
  return slash == std::string::npos ? std::string() : location.substr(slash);
}

}  // namespace
}  // namespace details

CPicProtoClient::CPicProtoClient(std::shared_ptr<const SStorageServerConfig> conf)
    : conf_(std::move(conf)),
      upload_host_(HostAndPort(conf_->ip, std::to_string(conf_->upload_port))),
      download_host_(HostAndPort(conf_->ip, std::to_string(conf_->download_port))) {}

bool CPicProtoClient::SendObjectMsg(SHttpExchange& exchange, const SPictureRequest& parts) {
  exchange = {};
  CHttpClientRequest& request = exchange.request;
  request.method = parts.method;
  request.url = parts.base + parts.resource;
  request.content_type = parts.form_type;
  request.body = parts.body.data();
  request.body_size = parts.body.size();
  request.connect_timeout_ms = details::kConnectTimeoutMs;
  request.send_timeout_ms = details::kSendTimeoutMs;
  request.receive_timeout_ms = details::kReceiveTimeoutMs;
  request.max_body_bytes = parts.max_answer_bytes;
  if (!parts.host.empty()) {
    request.headers["Host"] = parts.host;
  }
  const std::string date = FormatHttpDate();
  request.headers["Date"] = date;
  request.headers["Authorization"] =
      AuthPrefix() + " " + conf_->ak + ":" + details::SignRequest(parts, date, conf_->sk);
  CLOUD_LOG(logging::kTrace, "[%s][PicClient]send url[%s][%s(%d)]", request.url.c_str());
  return exchange.Send();
}

// Each request logs its failures in words of its own, so the functions look alike; see ObjectProtoClient.cpp.
bool CPicProtoClient::GetBestNode(std::string& address, std::string& port, std::string& token) {
  serial_id_ = TansyBase::GuidUtil::CreateGuid();
  SPictureRequest parts;
  parts.base = Scheme(*conf_) + upload_host_;
  parts.resource = StringUtil::str_fmt("/Quorvane/BestNode?SerialID=%s&PoolID=%s&Replication=0", serial_id_.c_str(),
                                       conf_->pool_name.c_str());
  parts.host = upload_host_;
  parts.max_answer_bytes = details::kMaxJsonBytes;

  SHttpExchange exchange;
  if (!SendObjectMsg(exchange, parts)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send get best node failed, error[%d:%d][%s(%d)]", exchange.error.kind,
              exchange.error.detail);
    failure_ = FailureOfSend(exchange, "Send get best node msg failed");
    return false;
  }
  if (exchange.rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]get best node failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
              details::Logged(exchange.rsp.body).c_str());
    failure_ = FailureOfStatus(exchange, "get best node rsp status code");
    return false;
  }
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(exchange.rsp.body)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]get best node failed, invalid xml[%s][%s(%d)]",
              details::Logged(exchange.rsp.body).c_str());
    failure_ = FailureOfAnswer(exchange, ClientError::kUnexpectedAnswer, "get best node rsp msg is no JSON.");
    return false;
  }
  address = json.GetString("/GatewayIP");
  port = json.GetString("/GatewayPort");
  token = json.GetString("/Token");
  CLOUD_LOG(logging::kNotable, "[%s][PicClient]get best node success, location[%s][%s(%d)]",
            GatewayLocation(address, port).c_str());
  return true;
}

std::string CPicProtoClient::GatewayLocation(const std::string& address, const std::string& port) const {
  return Scheme(*conf_) + HostAndPort(address, port);
}

std::string CPicProtoClient::UploadBody(const std::string& token, const char* data, std::uint32_t size) const {
  std::string body;
  body.reserve(std::size_t{size} + 2048);
  details::AddField(body, "SerialID", serial_id_);
  details::AddField(body, "PoolID", conf_->pool_name);
  details::AddField(body, "TimeStamp", std::to_string(TansyBase::TimeUtil::Now()) + "000");
  details::AddField(body, "PictureType", "1");
  details::AddField(body, "Token", token);
  details::AddField(body, "PictureLength", std::to_string(size));
  body.append("--").append(details::kBoundary);
  body.append("\r\nContent-Disposition: form-data; name=\"Picture\"\r\nContent-Type: image/jpeg\r\n\r\n");
  body.append(data, size);
  body.append("\r\n--").append(details::kBoundary).append("--\r\n\r\n");
  return body;
}

bool CPicProtoClient::UploadPic(std::string& url, const std::string& location, const std::string& token,
                                const char* data, std::uint32_t size) {
  SPictureRequest parts;
  parts.method = "POST";
  parts.base = location;
  parts.resource = details::kWritePath;
  parts.host = upload_host_;
  parts.signed_type = details::kFormType;
  parts.form_type = std::string(details::kFormType) + "; boundary=" + details::kBoundary;
  parts.body = UploadBody(token, data, size);
  parts.max_answer_bytes = details::kMaxJsonBytes;

  SHttpExchange exchange;
  if (!SendObjectMsg(exchange, parts)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send upload picture failed, error[%d:%d][%s(%d)]", exchange.error.kind,
              exchange.error.detail);
    failure_ = FailureOfSend(exchange, "Send upload picture msg failed");
    return false;
  }
  if (exchange.rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]upload picture failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
              details::Logged(exchange.rsp.body).c_str());
    failure_ = FailureOfStatus(exchange, "upload picture rsp status code");
    return false;
  }
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(exchange.rsp.body) || !json.Has("/PictureUrl")) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]get best node failed, invalid xml[%s][%s(%d)]",
              details::Logged(exchange.rsp.body).c_str());
    failure_ = FailureOfAnswer(exchange, ClientError::kUnexpectedAnswer, "upload picture rsp msg names no picture.");
    return false;
  }
  url = json.GetString("/PictureUrl");
  CLOUD_LOG(logging::kNotable, "[%s][PicClient]upload picture success, url[%s][%s(%d)]", url.c_str());
  return true;
}

bool CPicProtoClient::LocatePicture(SPictureRequest& parts, const std::string& url) {
  TansyNet::URL address;
  const bool absolute = TansyNet::URL::Parse(url, address);
  // A signature counts for the configured server, so no other server may see it.
  if (absolute && !IsConfiguredServer(*conf_, url)) {
    failure_.code = ClientError::kForeignAddress;
    failure_.text = StringUtil::str_fmt("url[%s] names another server.", url.c_str());
    failure_.address = AddressOfUrl(url);
    return false;
  }
  if (absolute) {
    parts.base = address.scheme + "://" + HostAndPort(address.host, std::to_string(address.port));
    parts.resource = address.target;
    return true;
  }
  // Pictures are addressed by paths of the server that stores them. Any other text could change the address that the
  // request goes to.
  if (!url.starts_with('/')) {
    failure_.code = ClientError::kBadArgument;
    failure_.text = StringUtil::str_fmt("url[%s] is no address of a picture.", url.c_str());
    return false;
  }
  parts.base = Scheme(*conf_) + download_host_;
  parts.resource = url;
  parts.host = download_host_;
  return true;
}

bool CPicProtoClient::DownloadPic(char** data, std::uint32_t& size, const std::string& url) {
  SPictureRequest parts;
  parts.max_answer_bytes = details::kMaxPictureBytes;
  if (!LocatePicture(parts, url)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, url:%s[%s(%d)]", url.c_str());
    return false;
  }
  SHttpExchange exchange;
  if (!SendObjectMsg(exchange, parts)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, url:%s[%s(%d)]", url.c_str());
    failure_ = FailureOfSend(exchange, "Send download picture msg failed");
    return false;
  }
  if (details::IsRedirect(exchange.rsp.status)) {
    if (!FollowRedirect(exchange, parts)) {
      return false;
    }
  } else if (exchange.rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, url:%s, status code:%d, body:%s[%s(%d)]",
              url.c_str(), exchange.rsp.status, details::Logged(exchange.rsp.body).c_str());
    failure_ = FailureOfStatus(exchange, "download picture rsp status code");
    return false;
  }
  auto picture = std::make_unique_for_overwrite<char[]>(exchange.rsp.body.size());
  std::copy(exchange.rsp.body.begin(), exchange.rsp.body.end(), picture.get());
  *data = picture.release();
  size = static_cast<std::uint32_t>(exchange.rsp.body.size());
  return true;
}

// Asks the same server for the path that its answer names; `exchange` becomes the second exchange.
bool CPicProtoClient::FollowRedirect(SHttpExchange& exchange, const SPictureRequest& first) {
  const std::string location = exchange.rsp.GetHeader("Location");
  SPictureRequest second = first;
  second.resource = details::PathOfLocation(location, Scheme(*conf_));
  if (second.resource.empty()) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, invalid new Location:%s[%s(%d)]",
              location.c_str());
    failure_ = FailureOfAnswer(exchange, ClientError::kBadRedirect,
                               StringUtil::str_fmt("redirect url error[%s].", location.c_str()));
    return false;
  }
  const std::string redirect_url = second.base + second.resource;
  if (!SendObjectMsg(exchange, second)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, redirect url:%s[%s(%d)]",
              redirect_url.c_str());
    failure_ = FailureOfSend(exchange, "Send download picture msg failed");
    return false;
  }
  if (exchange.rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError,
              "[%s][PicClient]send download picture failed, redirect url:%s, status code:%d, body:%s[%s(%d)]",
              redirect_url.c_str(), exchange.rsp.status, details::Logged(exchange.rsp.body).c_str());
    failure_ = FailureOfStatus(exchange, "download picture rsp status code");
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
