#include "StorageClient/PictureProtoClient.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/GuidUtil.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"
#include "TansyProto/RapidJsonProto.h"

using TansyBase::StringUtil;
using TansyNet::CHttpClientRequest;
using TansyNet::CHttpClientResponse;
using TansyNet::HttpClient;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int32_t kStatusOk = 200;
constexpr std::int32_t kFirstRedirect = 300;
constexpr std::int32_t kLastRedirect = 309;

constexpr char kWritePath[] = "/Quorvane/Picture/Write";
constexpr char kFormType[] = "multipart/form-data";
constexpr char kBoundary[] = "------7e02362550dc4";

constexpr std::uint32_t kConnectTimeoutMs = 5000;
constexpr std::uint32_t kSendTimeoutMs = 15000;
// The server answers an upload when its host has the picture on disk.
constexpr std::uint32_t kReceiveTimeoutMs = 30000;

// JSON answers are a few hundred bytes; a server that sends much more is broken or hostile.
constexpr std::uint64_t kMaxJsonBytes = std::uint64_t{1024} * 1024;
constexpr std::uint64_t kMaxPictureBytes = std::numeric_limits<std::uint32_t>::max();
// A log line keeps the start of an answer that was not expected; all of it could be a picture.
constexpr std::size_t kMaxLoggedBytes = 4096;

const char* Scheme(const SStorageServerConfig& config) {
  return config.is_https ? "https://" : "http://";
}

// "address:port", an IPv6 address in brackets.
std::string HostAndPort(const std::string& address, const std::string& port) {
  const bool bare_ipv6 = address.find(':') != std::string::npos && address.front() != '[';
  return (bare_ipv6 ? "[" + address + "]" : address) + ":" + port;
}

std::string Logged(const std::string& body) {
  return body.substr(0, kMaxLoggedBytes);
}

// What the server signs of a resource: it sees no query behind a "?" that ends the text.
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

// The path of a Location that names an address of this scheme; "" when it does not.
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
      upload_host_(details::HostAndPort(conf_->ip, std::to_string(conf_->upload_port))),
      download_host_(details::HostAndPort(conf_->ip, std::to_string(conf_->download_port))) {}

bool CPicProtoClient::SendObjectMsg(CHttpClientResponse& rsp, HttpClient::Error& error, const SPictureRequest& parts) {
  CHttpClientRequest request;
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
  return HttpClient().Send(request, &rsp, &error);
}

bool CPicProtoClient::GetBestNode(std::string& address, std::string& port, std::string& token) {
  serial_id_ = TansyBase::GuidUtil::CreateGuid();
  SPictureRequest parts;
  parts.base = details::Scheme(*conf_) + upload_host_;
  parts.resource = StringUtil::str_fmt("/Quorvane/BestNode?SerialID=%s&PoolID=%s&Replication=0", serial_id_.c_str(),
                                       conf_->pool_name.c_str());
  parts.host = upload_host_;
  parts.max_answer_bytes = details::kMaxJsonBytes;

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!SendObjectMsg(rsp, error, parts)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send get best node failed, error[%d:%d][%s(%d)]", error.kind,
              error.detail);
    return false;
  }
  if (rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]get best node failed, error[%d:%s][%s(%d)]", rsp.status,
              details::Logged(rsp.body).c_str());
    return false;
  }
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(rsp.body)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]get best node failed, invalid xml[%s][%s(%d)]",
              details::Logged(rsp.body).c_str());
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
  return details::Scheme(*conf_) + details::HostAndPort(address, port);
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

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!SendObjectMsg(rsp, error, parts)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send upload picture failed, error[%d:%d][%s(%d)]", error.kind,
              error.detail);
    return false;
  }
  if (rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]upload picture failed, error[%d:%s][%s(%d)]", rsp.status,
              details::Logged(rsp.body).c_str());
    return false;
  }
  TansyProto::CRapidJsonProto json;
  if (!json.Parse(rsp.body) || !json.Has("/PictureUrl")) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]get best node failed, invalid xml[%s][%s(%d)]",
              details::Logged(rsp.body).c_str());
    return false;
  }
  url = json.GetString("/PictureUrl");
  CLOUD_LOG(logging::kNotable, "[%s][PicClient]upload picture success, url[%s][%s(%d)]", url.c_str());
  return true;
}

bool CPicProtoClient::DownloadPic(char** data, std::uint32_t& size, const std::string& url) {
  SPictureRequest parts;
  parts.max_answer_bytes = details::kMaxPictureBytes;
  TansyNet::URL address;
  if (TansyNet::URL::Parse(url, address)) {
    parts.base = address.scheme + "://" + details::HostAndPort(address.host, std::to_string(address.port));
    parts.resource = address.target;
  } else {
    // Pictures are addressed by paths of the server that stores them.
    parts.base = details::Scheme(*conf_) + download_host_;
    parts.resource = url;
    parts.host = download_host_;
  }
  CHttpClientResponse rsp;
  HttpClient::Error error;
  // A text that is no path must not become a part of the server's address.
  const bool has_path = parts.resource.starts_with('/');
  if (!has_path || !SendObjectMsg(rsp, error, parts)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, url:%s[%s(%d)]", url.c_str());
    return false;
  }
  if (details::IsRedirect(rsp.status)) {
    if (!FollowRedirect(rsp, parts)) {
      return false;
    }
  } else if (rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, url:%s, status code:%d, body:%s[%s(%d)]",
              url.c_str(), rsp.status, details::Logged(rsp.body).c_str());
    return false;
  }
  auto picture = std::make_unique_for_overwrite<char[]>(rsp.body.size());
  std::copy(rsp.body.begin(), rsp.body.end(), picture.get());
  *data = picture.release();
  size = static_cast<std::uint32_t>(rsp.body.size());
  return true;
}

// Asks the same server for the path that its answer names; `rsp` becomes the second answer.
bool CPicProtoClient::FollowRedirect(CHttpClientResponse& rsp, const SPictureRequest& first) {
  const std::string location = rsp.GetHeader("Location");
  SPictureRequest second = first;
  second.resource = details::PathOfLocation(location, details::Scheme(*conf_));
  if (second.resource.empty()) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, invalid new Location:%s[%s(%d)]",
              location.c_str());
    return false;
  }
  const std::string redirect_url = second.base + second.resource;
  HttpClient::Error error;
  if (!SendObjectMsg(rsp, error, second)) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]send download picture failed, redirect url:%s[%s(%d)]",
              redirect_url.c_str());
    return false;
  }
  if (rsp.status != details::kStatusOk) {
    CLOUD_LOG(logging::kError,
              "[%s][PicClient]send download picture failed, redirect url:%s, status code:%d, body:%s[%s(%d)]",
              redirect_url.c_str(), rsp.status, details::Logged(rsp.body).c_str());
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
