#include "StorageClient/ObjectProtoClient.h"

#include <cstdlib>
#include <utility>

#include "Common/HttpDate.h"
#include "Common/Signature.h"
#include "ModuleLog.h"
#include "StorageClient/ContentMd5.h"
#include "StorageClient/ServerAddress.h"
#include "TansyBase/StringUtil.h"
#include "TansyCloudStorage/ObjectClient.h"
#include "TansyProto/XmlProto.h"

using TansyBase::StringUtil;
using TansyNet::CHttpClientRequest;
using TansyNet::CHttpClientResponse;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int32_t kStatusServerError = 500;
constexpr std::uint32_t kFinishTimeoutMs = 60000;  // the server assembles the object before it answers
// Answers that are read as a whole here are a few hundred bytes of XML. A server that sends much more is broken or
// hostile, and its answer must not fill the memory.
constexpr std::uint64_t kMaxAnswerBytes = std::uint64_t{1} << 20;

// Asking for the size of a completed object has no effects, so a lost answer is worth another try.
constexpr int kConfirmAttempts = 3;

// A refusal that does not carry one of the protocol's error codes: whoever answered does not know the request.
bool IsUnknownRequest(const SClientFailure& failure) {
  return failure.http_status >= 400 && failure.http_status < 500 && failure.error_code.empty();
}

constexpr char kBinaryContentType[] = "binary/octet-stream";

std::string CompletionBody(const std::list<SPartInfo>& parts) {
  TansyProto::CXmlProto xml;
  xml.SetInt("/CompleteMultipartUpload/TotalPartNum", static_cast<std::int64_t>(parts.size()));
  int index = 1;
  for (const SPartInfo& part : parts) {
    const std::string path = StringUtil::str_fmt("/CompleteMultipartUpload/Part[%d]", index++);
    xml.SetInt(path + "/PartNumber", part.part_number);
    xml.SetInt(path + "/PartSize", part.part_size);
    xml.SetString(path + "/ETag", part.etag);
  }
  std::string body;
  xml.Serialize(body);
  return body;
}

}  // namespace
}  // namespace details

bool CObjectProtoClient::Init(const std::shared_ptr<ObjectImpl>& conf) {
  if (!conf) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, server_config is nullptr.[%s(%d)]");
    return false;
  }
  conf_ = conf;
  const SStorageServerConfig& config = conf->config;
  host_ = HostAndPort(config.ip, std::to_string(config.upload_port));
  upload_base_ = Scheme(config) + host_;
  download_base_ = Scheme(config) + HostAndPort(config.ip, std::to_string(config.download_port));
  return true;
}

CHttpClientRequest CObjectProtoClient::MakeRequest(const SRequestParts& parts, const std::string& ak,
                                                   const std::string& sk) {
  CHttpClientRequest request;
  request.url = parts.url;
  request.method = parts.method;
  request.content_type = parts.content_type;
  request.body = parts.body;
  request.body_size = parts.body_size;
  request.max_body_bytes = details::kMaxAnswerBytes;
  request.send_host = !parts.host.empty();
  if (request.send_host) {
    // Fixed: docs/compatibility.md, "Requests of the clients".
    request.headers["Host"] = parts.host;
  }
  std::string content_md5;
  if (parts.with_content_md5) {
    content_md5 = ComputeContentMd5(parts.body, static_cast<std::uint32_t>(parts.body_size));
    if (!content_md5.empty()) {
      request.headers["Content-MD5"] = content_md5;
    }
  }
  const std::string date = FormatHttpDate();
  request.headers["Date"] = date;
  request.headers["Authorization"] =
      AuthPrefix() + " " + ak + ":" +
      CObjectClient::GetAuthString(parts.method, content_md5, parts.content_type, date, "", parts.signed_resource, sk);
  return request;
}

// Reads the number at the start of a header's value; it is 0 when there is none or it is negative.
std::uint64_t CObjectProtoClient::HeaderNumber(const CHttpClientResponse& rsp, const std::string& name) {
  const std::string value = rsp.GetHeader(name);
  const long long number = std::strtoll(value.c_str(), nullptr, 10);
  return number > 0 ? static_cast<std::uint64_t>(number) : 0;
}

CHttpClientRequest CObjectProtoClient::SignRequest(SRequestParts parts, const std::string& base,
                                                   const std::string& resource) const {
  parts.url = base + resource;
  parts.signed_resource = resource;
  return MakeRequest(parts, conf_->config.ak, conf_->config.sk);
}

std::string CObjectProtoClient::NodeBase(const std::string& node) const {
  return Scheme(conf_->config) + NodeAddress(node);
}

// From here on, each request writes its failures to the log in words of its own, under its function's name. People
// search logs for these texts, so they stand whole in each function, although the functions look alike.
bool CObjectProtoClient::GetBestNode(std::string& location, const std::string& key) {
  SRequestParts parts;
  parts.method = "GET";
  parts.host = host_;
  parts.content_type = kXmlContentType;
  SHttpExchange exchange{SignRequest(std::move(parts), upload_base_, ObjectPath(conf_->config, key) + "?bestnode")};
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send get best node failed, error[%d:%d][%s(%d)]", exchange.error.kind,
              exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "Send get best node msg failed"));
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]get best node failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
              exchange.rsp.body.c_str());
    conf_->last_error.Set(FailureOfStatus(exchange, "get best node rsp status code"));
    return false;
  }
  TansyProto::CXmlProto xml;
  if (!xml.Parse(exchange.rsp.body)) {
    CLOUD_LOG(logging::kError, "[%s][Client]get best node failed, invalid xml[%s][%s(%d)]", exchange.rsp.body.c_str());
    conf_->last_error.Set(FailureOfBody(exchange, "get best node rsp msg invalid"));
    return false;
  }
  location = xml.GetString("/BestNodeInfo/Location");
  CLOUD_LOG(logging::kNotable, "[%s][Client]get best node success, location[%s][%s(%d)]", location.c_str());
  return true;
}

void CObjectProtoClient::SetUploadError(const SHttpExchange& exchange, const char* what) {
  if (exchange.rsp.status == details::kStatusServerError &&
      exchange.rsp.body.find("NotEnoughSpace") != std::string::npos) {
    // The text is the same whichever request it was.
    conf_->last_error.Set(
        FailureOfAnswer(exchange, ClientError::kNoSpace,
                        StringUtil::str_fmt("upload object rsp status code[%d].", exchange.rsp.status)));
    return;
  }
  conf_->last_error.Set(FailureOfStatus(exchange, what));
}

bool CObjectProtoClient::UploadObject(std::string& out_url, const std::string& node, const std::string& key,
                                      const char* data, unsigned int size) {
  const std::string path = ObjectPath(conf_->config, key);
  SRequestParts parts;
  parts.method = "PUT";
  parts.host = host_;
  parts.content_type = details::kBinaryContentType;
  parts.body = data;
  parts.body_size = size;
  parts.with_content_md5 = true;
  SHttpExchange exchange{SignRequest(std::move(parts), NodeBase(node), path)};
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send upload object failed, error[%d:%d][%s(%d)]", exchange.error.kind,
              exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "Send upload object msg failed"));
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]upload object failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
              exchange.rsp.body.c_str());
    SetUploadError(exchange, "upload object rsp status code");
    return false;
  }
  CLOUD_LOG(logging::kNotable, "[%s][Client]upload object success, url[%s][%s(%d)]", exchange.request.url.c_str());
  out_url = path;
  return true;
}

bool CObjectProtoClient::CreatePartTask(std::string& upload_id, const std::string& key) {
  const char* const bucket = conf_->config.pool_name.c_str();
  SRequestParts parts;
  parts.method = "POST";
  parts.host = host_;
  SHttpExchange exchange{SignRequest(std::move(parts), upload_base_, ObjectPath(conf_->config, key) + "?uploads")};
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send create part task failed, bucket[%s], object[%s], error[%d:%d][%s(%d)]",
              bucket, key.c_str(), exchange.error.kind, exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "Send CreatePartTask msg failed"));
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]create part task failed, bucket[%s], object[%s], error[%d:%s][%s(%d)]",
              bucket, key.c_str(), exchange.rsp.status, exchange.rsp.body.c_str());
    SetUploadError(exchange, "CreatePartTask rsp status code");
    return false;
  }
  TansyProto::CXmlProto xml;
  if (!xml.Parse(exchange.rsp.body)) {
    CLOUD_LOG(logging::kError, "[%s][Client]create part task failed, invalid xml[%s][%s(%d)]",
              exchange.rsp.body.c_str());
    conf_->last_error.Set(FailureOfBody(exchange, "CreatePartTask rsp msg invalid"));
    return false;
  }
  upload_id = xml.GetString("/InitiateMultipartUploadResult/UploadId");
  CLOUD_LOG(logging::kNotable, "[%s][Client]create part task success, bucket[%s], object[%s], task_id[%s][%s(%d)]",
            bucket, key.c_str(), upload_id.c_str());
  return true;
}

bool CObjectProtoClient::UploadPartObject(const std::string& key, const std::string& node, int part_number,
                                          const std::string& upload_id, const char* data, unsigned int size) {
  const char* const bucket = conf_->config.pool_name.c_str();
  SRequestParts parts;
  parts.method = "POST";
  parts.host = host_;
  parts.content_type = details::kBinaryContentType;
  parts.body = data;
  parts.body_size = size;
  parts.with_content_md5 = true;
  const std::string query = "?upload_id=" + upload_id + "&part_number=" + std::to_string(part_number);
  SHttpExchange exchange{SignRequest(std::move(parts), NodeBase(node), ObjectPath(conf_->config, key) + query)};
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]send upload part object[bucket:%s object:%s][taskid:%s:%d] failed, error[%d:%d][%s(%d)]",
              bucket, key.c_str(), upload_id.c_str(), part_number, exchange.error.kind, exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "Send UploadPartObject msg failed"));
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]upload part object[bucket:%s object:%s][taskid:%s:%d] failed, error[%d:%s][%s(%d)]", bucket,
              key.c_str(), upload_id.c_str(), part_number, exchange.rsp.status, exchange.rsp.body.c_str());
    SetUploadError(exchange, "UploadPartObject rsp status code");
    return false;
  }
  return true;
}

bool CObjectProtoClient::FinishPartTask(const std::string& upload_id, const std::string& key,
                                        // NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
                                        std::list<SPartInfo> parts) {
  const char* const bucket = conf_->config.pool_name.c_str();
  const std::string body = details::CompletionBody(parts);
  SRequestParts request_parts;
  request_parts.method = "POST";
  request_parts.host = host_;
  request_parts.body = body.data();
  request_parts.body_size = body.size();
  request_parts.with_content_md5 = true;
  SHttpExchange exchange{
      SignRequest(std::move(request_parts), upload_base_, ObjectPath(conf_->config, key) + "?upload_id=" + upload_id)};
  exchange.request.receive_timeout_ms = details::kFinishTimeoutMs;
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]send finish part task[bucket:%s object:%s][taskid:%s] failed, error[%d:%d][%s(%d)]", bucket,
              key.c_str(), upload_id.c_str(), exchange.error.kind, exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "Send FinishPartTask msg failed"));
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]finish part task[bucket:%s object:%s][taskid:%s] failed, error[%d:%s][%s(%d)]", bucket,
              key.c_str(), upload_id.c_str(), exchange.rsp.status, exchange.rsp.body.c_str());
    SetUploadError(exchange, "FinishPartTask rsp status code");
    return false;
  }
  return ConfirmSize(exchange, key, parts);
}

bool CObjectProtoClient::ConfirmSize(const SHttpExchange& completion, const std::string& key,
                                     const std::list<SPartInfo>& parts) {
  std::uint64_t expected_size = 0;
  for (const SPartInfo& part : parts) {
    expected_size += part.part_size;
  }
  std::optional<std::uint64_t> size;
  if (!AskStoredSize(size, key)) {
    return false;
  }
  if (!size) {
    CLOUD_LOG(logging::kNotable, "[%s][Client]object[%s] completed, the server does not tell its size[%s(%d)]",
              key.c_str());
    return true;
  }
  if (*size != expected_size) {
    const auto actual = static_cast<unsigned long long>(*size);
    const auto expected = static_cast<unsigned long long>(expected_size);
    CLOUD_LOG(logging::kError, "[%s][Client]object[%s] has [%llu] bytes after its completion instead of [%llu][%s(%d)]",
              key.c_str(), actual, expected);
    conf_->last_error.Set(
        FailureOfAnswer(completion, ClientError::kWrongContent,
                        StringUtil::str_fmt("object size[%llu] instead of [%llu].", actual, expected)));
    return false;
  }
  return true;
}

// Either port may be closed to a client that only uploads or only downloads, so both are asked.
bool CObjectProtoClient::AskStoredSize(std::optional<std::uint64_t>& size, const std::string& key) {
  const std::string url = ObjectPath(conf_->config, key);
  bool is_known_request = true;
  SClientFailure failure;
  for (int attempt = 0; attempt < details::kConfirmAttempts; ++attempt) {
    SObjectVersion version;
    SClientFailure failed;
    if (!GetObjectSize(version, failed, attempt % 2 == 0 ? upload_base_ : download_base_, url)) {
      if (details::IsUnknownRequest(failed)) {
        is_known_request = false;
      } else {
        failure = std::move(failed);
      }
    } else if (version.has_size) {
      size = version.size;
      return true;
    } else {
      is_known_request = false;
    }
  }
  if (!is_known_request && failure.error_code.empty()) {
    return true;
  }
  conf_->last_error.Set(std::move(failure));
  return false;
}

bool CObjectProtoClient::ConfirmVersion(SObjectVersion& version, const std::string& base, const std::string& url) {
  SClientFailure failure;
  for (int attempt = 1; !GetObjectSize(version, failure, base, url); ++attempt) {
    if (attempt == details::kConfirmAttempts) {
      conf_->last_error.Set(std::move(failure));
      return false;
    }
  }
  return true;
}

bool CObjectProtoClient::GetObjectSize(SObjectVersion& version, SClientFailure& failure, const std::string& base,
                                       const std::string& url) {
  SRequestParts parts;
  parts.method = "GET";
  parts.host = host_;
  parts.content_type = kXmlContentType;
  SHttpExchange exchange{SignRequest(std::move(parts), base, url + "?metadata")};
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send get metadata failed, error[%d:%d][%s(%d)]", exchange.error.kind,
              exchange.error.detail);
    failure = FailureOfSend(exchange, "Send get metadata msg failed");
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]get best node failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
              exchange.rsp.body.c_str());
    failure = FailureOfAnswer(exchange, ClientError::kUnexpectedAnswer,
                              StringUtil::str_fmt("get metadata rsp status code[%d].", exchange.rsp.status));
    return false;
  }
  version.has_size = !exchange.rsp.GetHeader("Object-Size").empty();
  version.size = HeaderNumber(exchange.rsp, "Object-Size");
  version.etag = exchange.rsp.GetHeader("ETag");
  return true;
}

bool CObjectProtoClient::CheckPath(const std::string& url) {
  if (url.starts_with('/')) {
    return true;
  }
  SClientFailure failure;
  const bool absolute = url.find("://") != std::string::npos;
  const bool foreign = absolute && !IsConfiguredServer(conf_->config, url);
  failure.code = foreign ? ClientError::kForeignAddress : ClientError::kBadArgument;
  failure.text =
      StringUtil::str_fmt(foreign ? "url[%s] names another server." : "url[%s] is no object path.", url.c_str());
  failure.address = absolute ? AddressOfUrl(url) : std::string();
  CLOUD_LOG(logging::kError, "[%s][Client]%s[%s(%d)]", failure.text.c_str());
  conf_->last_error.Set(std::move(failure));
  return false;
}

bool CObjectProtoClient::RemoveFile(const std::string& url) {
  return Remove(url, url);
}

bool CObjectProtoClient::RemoveObjectFile(const std::string& url) {
  return Remove(url, url + "?deletefile");
}

bool CObjectProtoClient::Remove(const std::string& url, const std::string& resource) {
  if (!CheckPath(url)) {
    return false;
  }
  SRequestParts parts;  // without a Host header
  parts.method = "DELETE";
  parts.content_type = kXmlContentType;
  SHttpExchange exchange{SignRequest(std::move(parts), upload_base_, resource)};
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send remove object[%s] failed, error[%d:%d][%s(%d)]", url.c_str(),
              exchange.error.kind, exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "send remove object failed"));
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]remove object failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
              exchange.rsp.body.c_str());
    conf_->last_error.Set(FailureOfStatus(exchange, "remove object rsp status code"));
    return false;
  }
  CLOUD_LOG(logging::kNotable, "[%s][Client]remove object success, url[%s][%s(%d)]", url.c_str());
  return true;
}

bool CObjectProtoClient::SendObjectMsg(CHttpClientResponse& rsp, const std::string& base, const std::string& url,
                                       const std::string& method, const std::string& body, const std::string& range) {
  SHttpExchange exchange;
  const bool sent = SendObjectMsg(exchange, base, url, method, body, range, kMaxDownloadBytes);
  rsp = std::move(exchange.rsp);
  return sent;
}

bool CObjectProtoClient::SendObjectMsg(SHttpExchange& exchange, const std::string& base, const std::string& url,
                                       const std::string& method, const std::string& body, const std::string& range,
                                       std::uint64_t max_answer_bytes) {
  SRequestParts parts;
  parts.method = method;
  parts.host = host_;
  parts.body = body.empty() ? nullptr : body.data();
  parts.body_size = body.size();
  exchange = {SignRequest(std::move(parts), base, url)};
  exchange.request.receive_timeout_ms = conf_->receive_timeout_ms;
  exchange.request.send_timeout_ms = conf_->send_timeout_ms;
  exchange.request.max_body_bytes = max_answer_bytes;
  if (!range.empty()) {
    exchange.request.headers["Range"] = "bytes=" + range;
    CLOUD_LOG(logging::kTrace, "[%s][Client]send object msg, url:%s%s, range[%s][%s(%d)]", base.c_str(), url.c_str(),
              range.c_str());
  }
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
  if (!exchange.Send()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send object msg failed, url:%s%s, error[%d:%d][%s(%d)]", base.c_str(),
              url.c_str(), exchange.error.kind, exchange.error.detail);
    conf_->last_error.Set(FailureOfSend(exchange, "SendObjectMsg msg failed"));
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
