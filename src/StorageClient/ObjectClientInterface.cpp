#include <memory>
#include <string>
#include <utility>

#include "Common/Signature.h"
#include "ModuleLog.h"
#include "StorageClient/ClientState.h"
#include "StorageClient/ConfigCheck.h"
#include "StorageClient/HostProgress.h"
#include "StorageClient/HttpExchange.h"
#include "StorageClient/LocalFileErrors.h"
#include "StorageClient/ObjectImpl.h"
#include "StorageClient/ObjectMultipartUpload.h"
#include "StorageClient/ObjectProtoClient.h"
#include "StorageClient/PartUploadRegistry.h"
#include "StorageClient/ServerAddress.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/GuidUtil.h"
#include "TansyBase/StringUtil.h"
#include "TansyCloudStorage/ObjectClient.h"
#include "TansyProto/XmlProto.h"

using TansyBase::CLocalFile;
using TansyBase::StringUtil;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::uint32_t kMultipartFrom = 10485760;
constexpr std::int32_t kAllDone = 100;

// Closes the file on every way out of an upload, because a CLocalFile does not close itself.
class CFileCloser {
 public:
  explicit CFileCloser(CLocalFile& file) : file_(file) {}
  ~CFileCloser() { file_.Close(); }
  CFileCloser(const CFileCloser&) = delete;
  CFileCloser& operator=(const CFileCloser&) = delete;

 private:
  CLocalFile& file_;
};

// Gives the last dot of the file's own name and what follows it; the result is empty when there is no dot.
std::string GetFileExtension(const std::string& path) {
  const std::size_t dot = path.rfind('.');
  const std::size_t separator = path.find_last_of("/\\");
  if (dot == std::string::npos || (separator != std::string::npos && dot < separator)) {
    return {};
  }
  return path.substr(dot);
}

// One upload of one local file.
struct SFileUpload {
  std::shared_ptr<ObjectImpl> conf;
  std::string path;
  std::string local_path;  // for log lines
  std::string key;
  CLocalFile file;
};

bool GetSize(SFileUpload& upload, std::uint32_t& size) {
  std::uint32_t high_size = 0;
  std::uint32_t error = upload.file.GetSize(size, &high_size);
  if (error == 0 && high_size != 0) {
    // A larger file is refused: with the low 32 bits of its size, only its beginning would be stored, as if that were
    // all.
    error = kErrorFileTooLarge;
  }
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]ftell file failed!file[%s],errno[%d][%s(%d)]", upload.local_path.c_str(), error);
    upload.conf->last_error.Set(FailureOfFile("ftell", upload.path, error));
    return false;
  }
  return true;
}

bool UploadWhole(SFileUpload& upload, CObjectProtoClient& client, const std::string& node, std::uint32_t size) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(size + 1);
  const std::uint32_t error = ReadExactly(upload.file, buffer.get(), size);
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]read_elements != 1, error[%d][%s(%d)]", error);
    upload.conf->last_error.Set(FailureOfFile("fread", upload.path, error));
    return false;
  }
  std::string url;
  if (!client.UploadObject(url, node, upload.key, buffer.get(), size)) {
    CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, get best node failed.[%s(%d)]", upload.local_path.c_str());
    return false;
  }
  return true;
}

bool UploadOpenFile(SFileUpload& upload) {
  const CFileCloser closer(upload.file);
  std::uint32_t size = 0;
  if (!GetSize(upload, size)) {
    return false;
  }
  const auto client = std::make_shared<CObjectProtoClient>();
  std::string node;
  if (!client->Init(upload.conf) || !client->GetBestNode(node, upload.key)) {
    CLOUD_LOG(logging::kError, "[%s]upload file[%s] failed, get best node failed.[%s(%d)]", upload.local_path.c_str());
    return false;
  }
  if (size < kMultipartFrom) {
    return UploadWhole(upload, *client, node, size);
  }
  return CObjectMultipartUpload(upload.conf, client, upload.path, upload.local_path, upload.key, node)
      .Run(upload.file, size);
}

bool UploadBuffer(const std::shared_ptr<ObjectImpl>& conf, std::string& out_url, const char* data, unsigned int size) {
  CObjectProtoClient client;
  const std::string key = TansyBase::GuidUtil::CreateGuid() + ".pfile";
  std::string node;
  if (!client.Init(conf) || !client.GetBestNode(node, key)) {
    CLOUD_LOG(logging::kError, "[%s]upload file failed, object key[%s] get best node failed.[%s(%d)]", key.c_str());
    return false;
  }
  if (!client.UploadObject(out_url, node, key, data, size)) {
    CLOUD_LOG(logging::kError, "[%s]upload file failed, object key[%s] upload failed.[%s(%d)]", key.c_str());
    return false;
  }
  return true;
}

}  // namespace
}  // namespace details

CObjectClient::CObjectClient(const SStorageServerConfig& config) : ptr_conf_(MakeClientState<ObjectImpl>(config)) {}
CObjectClient::CObjectClient(const CObjectClient& other) = default;
CObjectClient& CObjectClient::operator=(const CObjectClient& other) = default;
CObjectClient::~CObjectClient() = default;

bool CObjectClient::Init() {
  return RunGuarded(ptr_conf_, [this] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]config ptr is null.[%s(%d)]");
      return false;
    }
    if (!CheckConfig(CLOUD_LOG_CALLER, ptr_conf_->config, ptr_conf_->last_error)) {
      return false;
    }
    CPartUploadRegistry::Instance();
    return true;
  });
}

bool CObjectClient::Uninit() {
  return RunGuarded(ptr_conf_, [] {
    CPartUploadRegistry::Instance();
    return true;
  });
}

bool CObjectClient::UploadFile(std::string& out_url, const std::string& path) {
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]upload file failed, ptr_conf_ is null.[%s(%d)]");
      return false;
    }
    if (path.empty()) {
      CLOUD_LOG(logging::kError, "[%s]path is empty.[%s(%d)]");
      ptr_conf_->last_error.Set(ClientError::kBadArgument, "file path is empty.");
      return false;
    }
    details::SFileUpload upload;
    upload.conf = ptr_conf_;
    upload.path = path;
    upload.local_path = StringUtil::UTF8ToLocal(path);
    const std::uint32_t error = upload.file.OpenAlways(path);
    if (error != 0) {
      CLOUD_LOG(logging::kError, "[%s]open file failed[%s], error[%d].[%s(%d)]", upload.local_path.c_str(), error);
      ptr_conf_->last_error.Set(FailureOfFile("open", path, error));
      return false;
    }
    upload.key = TansyBase::GuidUtil::CreateGuid() + details::GetFileExtension(path);
    const bool uploaded = details::UploadOpenFile(upload);
    if (uploaded) {
      out_url = ObjectPath(ptr_conf_->config, upload.key);
    }
    ReportProgress(ptr_conf_->config, details::kAllDone);
    return uploaded;
  });
}

bool CObjectClient::UploadFile(std::string& out_url, const char* data, unsigned int size) {
  return RunGuarded(ptr_conf_, [&] {
    if (size > kMaxBufferUploadBytes) {
      CLOUD_LOG(logging::kError, "[%s]upload file failed, size[%d] exceed.[%s(%d)]", size);
      if (ptr_conf_) {
        ptr_conf_->last_error.Set(ClientError::kBadArgument, "file size exceed 32M.");
      }
      return false;
    }
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]upload file failed, ptr_conf_ is null.[%s(%d)]");
      return false;
    }
    if (data == nullptr && size > 0) {
      CLOUD_LOG(logging::kError, "[%s]upload file failed, no data.[%s(%d)]");
      ptr_conf_->last_error.Set(ClientError::kBadArgument, "no data.");
      return false;
    }
    return details::UploadBuffer(ptr_conf_, out_url, data, size);
  });
}

// The functions below look alike, but each logs failures in words of its own, under its own name.
bool CObjectClient::DownloadFile(const std::string& url, const std::string& local_path) {
  return RunGuarded(ptr_conf_, [&] {
    CObjectProtoClient client;
    if (!client.Init(ptr_conf_) || !client.DownloadObject(local_path, url)) {
      CLOUD_LOG(logging::kError, "[%s]download file failed, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    return true;
  });
}

bool CObjectClient::DownloadFile(char** data, unsigned int& size, const std::string& url) {
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]download file failed, ptr_conf_ is null, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    CObjectProtoClient client;
    if (!client.Init(ptr_conf_) || !client.DownloadObject(data, &size, "", url)) {
      CLOUD_LOG(logging::kError, "[%s]download file failed, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    return true;
  });
}

bool CObjectClient::DownloadFile(char** data, unsigned int& size, std::string& range, const std::string& url) {
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]download file failed, ptr_conf_ is null, url[%s], range[%s].[%s(%d)]",
                url.c_str(), range.c_str());
      return false;
    }
    CObjectProtoClient client;
    if (!client.Init(ptr_conf_) || !client.DownloadObject(data, &size, range, url)) {
      CLOUD_LOG(logging::kError, "[%s]download file failed, url[%s], range[%s].[%s(%d)]", url.c_str(), range.c_str());
      return false;
    }
    return true;
  });
}

bool CObjectClient::RemoveFileByUrl(const std::string& url) {
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]Remove file failed, ptr_conf_ is null, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    CObjectProtoClient client;
    if (!client.Init(ptr_conf_) || !client.RemoveFile(url)) {
      CLOUD_LOG(logging::kError, "[%s]Remove file failed, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    return true;
  });
}

bool CObjectClient::RemoveObjectFileByUrl(const std::string& url) {
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]Remove file failed, ptr_conf_ is null, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    CObjectProtoClient client;
    if (!client.Init(ptr_conf_) || !client.RemoveObjectFile(url)) {
      CLOUD_LOG(logging::kError, "[%s]Remove file failed, url[%s].[%s(%d)]", url.c_str());
      return false;
    }
    return true;
  });
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
bool CObjectClient::GetStorageVersion(std::string& version, SStorageServerInfo server) {
  return RunGuarded(ptr_conf_, [&] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]config ptr is null.[%s(%d)]");
      return false;
    }
    SRequestParts parts;
    parts.method = "GET";
    parts.host = HostAndPort(server.ip, std::to_string(server.port));
    parts.url = "http://" + parts.host + "/?version";
    parts.signed_resource = "?version";  // without the path, unlike every other request
    parts.content_type = kXmlContentType;
    SHttpExchange exchange{CObjectProtoClient::MakeRequest(parts, server.ak, server.sk)};
    CLOUD_LOG(logging::kNotable, "[%s][Client]send url[%s][%s(%d)]", exchange.request.url.c_str());
    if (!exchange.Send()) {
      CLOUD_LOG(logging::kError, "[%s][Client]send get storage version failed, error[%d:%d][%s(%d)]",
                exchange.error.kind, exchange.error.detail);
      ptr_conf_->last_error.Set(FailureOfSend(exchange, "Send get storage version msg failed"));
      return false;
    }
    if (exchange.rsp.status != kHttpOk) {
      CLOUD_LOG(logging::kError, "[%s][Client]get storage version failed, error[%d:%s][%s(%d)]", exchange.rsp.status,
                exchange.rsp.body.c_str());
      ptr_conf_->last_error.Set(FailureOfStatus(exchange, "get storage version rsp status code"));
      return false;
    }
    TansyProto::CXmlProto xml;
    if (!xml.Parse(exchange.rsp.body)) {
      CLOUD_LOG(logging::kError, "[%s][Client]get storage version failed, invalid xml[%s][%s(%d)]",
                exchange.rsp.body.c_str());
      ptr_conf_->last_error.Set(FailureOfBody(exchange, "get storage version rsp msg invalid"));
      return false;
    }
    version = xml.GetString("/CloudVersion/version");
    CLOUD_LOG(logging::kNotable, "[%s][Client]get storage version success, version[%s][%s(%d)]", version.c_str());
    return true;
  });
}

void CObjectClient::GetLastError(int& code, std::string& message) {
  int second = 0;
  GetLastError(code, second, message);
}

void CObjectClient::GetLastError(int& code, int& second, std::string& message) {
  code = static_cast<int>(ClientError::kOutOfResources);
  if (!ptr_conf_) {
    return;
  }
  RunGuarded(static_cast<SLastError*>(nullptr), [&] {
    SLastErrorTexts texts = ptr_conf_->last_error.GetTexts();
    code = static_cast<int>(texts.code);
    second = texts.second;
    message = std::move(texts.message);
    return true;
  });
}

SClientFailure CObjectClient::GetLastFailure() const noexcept {
  return LastFailureOf(ptr_conf_);
}

void CObjectClient::SetTimeoutConfig(unsigned int receive_ms, unsigned int send_ms) {
  if (ptr_conf_) {
    ptr_conf_->receive_timeout_ms = receive_ms;
    ptr_conf_->send_timeout_ms = send_ms;
  }
}

std::string CObjectClient::GetAuthString(const std::string& method, const std::string& content_md5,
                                         const std::string& content_type, const std::string& date,
                                         const std::string& extension_headers, const std::string& resource,
                                         const std::string& sk) {
  return SignHmacSha1(
      method + "\n" + content_md5 + "\n" + content_type + "\n" + date + "\n" + extension_headers + "\n" + resource, sk);
}

}  // namespace Tansy::CloudStorage
