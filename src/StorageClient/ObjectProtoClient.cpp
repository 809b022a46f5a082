#include "StorageClient/ObjectProtoClient.h"

#include <utility>

#include "ModuleLog.h"
#include "StorageClient/ContentMd5.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/StringUtil.h"
#include "TansyCloudStorage/ObjectClient.h"
#include "TansyProto/XmlProto.h"

using TansyBase::StringUtil;
using TansyNet::CHttpClientRequest;
using TansyNet::CHttpClientResponse;
using TansyNet::HttpClient;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int32_t kStatusServerError = 500;
constexpr std::uint32_t kFinishTimeoutMs = 60000;  // the server assembles the object before it answers
// Answers that are read as a whole here are a few hundred bytes of XML. A server that sends much more is broken or
// hostile, and its answer must not fill the memory.
constexpr std::uint64_t kMaxAnswerBytes = std::uint64_t{1} << 20;

constexpr char kBinaryContentType[] = "binary/octet-stream";

const char* Scheme(const SStorageServerConfig& config) {
  return config.is_https ? "https://" : "http://";
}

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
  host_ = config.ip + ":" + std::to_string(config.upload_port);
  upload_base_ = details::Scheme(config) + host_;
  download_base_ = details::Scheme(config) + config.ip + ":" + std::to_string(config.download_port);
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

CHttpClientRequest CObjectProtoClient::SignRequest(SRequestParts parts, const std::string& base,
                                                   const std::string& resource) const {
  parts.url = base + resource;
  parts.signed_resource = resource;
  return MakeRequest(parts, conf_->config.ak, conf_->config.sk);
}

bool CObjectProtoClient::GetBestNode(std::string& location, const std::string& key) {
  SRequestParts parts;
  parts.method = "GET";
  parts.host = host_;
  parts.content_type = kXmlContentType;
  const CHttpClientRequest request =
      SignRequest(std::move(parts), upload_base_, ObjectPath(conf_->config, key) + "?bestnode");
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send get best node failed, error[%d:%d][%s(%d)]", error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("Send get best node msg failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]get best node failed, error[%d:%s][%s(%d)]", rsp.status, rsp.body.c_str());
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("get best node rsp status code[%d].", rsp.status));
    return false;
  }
  TansyProto::CXmlProto xml;
  if (!xml.Parse(rsp.body)) {
    CLOUD_LOG(logging::kError, "[%s][Client]get best node failed, invalid xml[%s][%s(%d)]", rsp.body.c_str());
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("get best node rsp msg invalid[%s].", rsp.body.c_str()));
    return false;
  }
  location = xml.GetString("/BestNodeInfo/Location");
  CLOUD_LOG(logging::kNotable, "[%s][Client]get best node success, location[%s][%s(%d)]", location.c_str());
  return true;
}

void CObjectProtoClient::SetUploadError(const CHttpClientResponse& rsp, const std::string& message) {
  conf_->last_error.Set(ClientError::kUnexpectedAnswer, message);
  if (rsp.status == details::kStatusServerError && rsp.body.find("NotEnoughSpace") != std::string::npos) {
    conf_->last_error.Set(ClientError::kNoSpace, StringUtil::str_fmt("upload object rsp status code[%d].", rsp.status));
  }
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
  const CHttpClientRequest request = SignRequest(std::move(parts), details::Scheme(conf_->config) + node, path);
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send upload object failed, error[%d:%d][%s(%d)]", error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("Send upload object msg failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]upload object failed, error[%d:%s][%s(%d)]", rsp.status, rsp.body.c_str());
    SetUploadError(rsp, StringUtil::str_fmt("upload object rsp status code[%d].", rsp.status));
    return false;
  }
  CLOUD_LOG(logging::kNotable, "[%s][Client]upload object success, url[%s][%s(%d)]", request.url.c_str());
  out_url = path;
  return true;
}

bool CObjectProtoClient::CreatePartTask(std::string& upload_id, const std::string& key) {
  const char* const bucket = conf_->config.pool_name.c_str();
  SRequestParts parts;
  parts.method = "POST";
  parts.host = host_;
  const CHttpClientRequest request =
      SignRequest(std::move(parts), upload_base_, ObjectPath(conf_->config, key) + "?uploads");
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send create part task failed, bucket[%s], object[%s], error[%d:%d][%s(%d)]",
              bucket, key.c_str(), error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("Send CreatePartTask msg failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]create part task failed, bucket[%s], object[%s], error[%d:%s][%s(%d)]",
              bucket, key.c_str(), rsp.status, rsp.body.c_str());
    SetUploadError(rsp, StringUtil::str_fmt("CreatePartTask rsp status code[%d].", rsp.status));
    return false;
  }
  TansyProto::CXmlProto xml;
  if (!xml.Parse(rsp.body)) {
    CLOUD_LOG(logging::kError, "[%s][Client]create part task failed, invalid xml[%s][%s(%d)]", rsp.body.c_str());
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("CreatePartTask rsp msg invalid[%s].", rsp.body.c_str()));
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
  const CHttpClientRequest request =
      SignRequest(std::move(parts), details::Scheme(conf_->config) + node, ObjectPath(conf_->config, key) + query);
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]send upload part object[bucket:%s object:%s][taskid:%s:%d] failed, error[%d:%d][%s(%d)]",
              bucket, key.c_str(), upload_id.c_str(), part_number, error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("Send UploadPartObject msg failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]upload part object[bucket:%s object:%s][taskid:%s:%d] failed, error[%d:%s][%s(%d)]", bucket,
              key.c_str(), upload_id.c_str(), part_number, rsp.status, rsp.body.c_str());
    SetUploadError(rsp, StringUtil::str_fmt("UploadPartObject rsp status code[%d].", rsp.status));
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
  CHttpClientRequest request =
      SignRequest(std::move(request_parts), upload_base_, ObjectPath(conf_->config, key) + "?upload_id=" + upload_id);
  request.receive_timeout_ms = details::kFinishTimeoutMs;
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]send finish part task[bucket:%s object:%s][taskid:%s] failed, error[%d:%d][%s(%d)]", bucket,
              key.c_str(), upload_id.c_str(), error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("Send FinishPartTask msg failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]finish part task[bucket:%s object:%s][taskid:%s] failed, error[%d:%s][%s(%d)]", bucket,
              key.c_str(), upload_id.c_str(), rsp.status, rsp.body.c_str());
    SetUploadError(rsp, StringUtil::str_fmt("FinishPartTask rsp status code[%d].", rsp.status));
    return false;
  }
  return true;
}

bool CObjectProtoClient::RemoveFile(const std::string& url) {
  return Remove(url, url);
}

bool CObjectProtoClient::RemoveObjectFile(const std::string& url) {
  return Remove(url, url + "?deletefile");
}

bool CObjectProtoClient::Remove(const std::string& url, const std::string& resource) {
  SRequestParts parts;  // without a Host header
  parts.method = "DELETE";
  parts.content_type = kXmlContentType;
  const CHttpClientRequest request = SignRequest(std::move(parts), upload_base_, resource);
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send remove object[%s] failed, error[%d:%d][%s(%d)]", url.c_str(),
              error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("send remove object failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]remove object failed, error[%d:%s][%s(%d)]", rsp.status, rsp.body.c_str());
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("remove object rsp status code[%d].", rsp.status));
    return false;
  }
  CLOUD_LOG(logging::kNotable, "[%s][Client]remove object success, url[%s][%s(%d)]", url.c_str());
  return true;
}

bool CObjectProtoClient::SendObjectMsg(CHttpClientResponse& rsp, const std::string& base, const std::string& url,
                                       const std::string& method, const std::string& body, const std::string& range,
                                       std::uint64_t max_answer_bytes) {
  SRequestParts parts;
  parts.method = method;
  parts.host = host_;
  parts.body = body.empty() ? nullptr : body.data();
  parts.body_size = body.size();
  CHttpClientRequest request = SignRequest(std::move(parts), base, url);
  request.receive_timeout_ms = conf_->receive_timeout_ms;
  request.send_timeout_ms = conf_->send_timeout_ms;
  request.max_body_bytes = max_answer_bytes;
  if (!range.empty()) {
    request.headers["Range"] = "bytes=" + range;
    CLOUD_LOG(logging::kTrace, "[%s][Client]send object msg, url:%s%s, range[%s][%s(%d)]", base.c_str(), url.c_str(),
              range.c_str());
  }
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send object msg failed, url:%s%s, error[%d:%d][%s(%d)]", base.c_str(),
              url.c_str(), error.kind, error.detail);
    conf_->last_error.Set(ClientError::kNotSent,
                          StringUtil::str_fmt("SendObjectMsg msg failed[%d:%d].", error.kind, error.detail));
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
