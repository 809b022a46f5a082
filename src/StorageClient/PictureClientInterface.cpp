#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "ModuleLog.h"
#include "StorageClient/ClientState.h"
#include "StorageClient/PictureImpl.h"
#include "StorageClient/PictureProtoClient.h"
#include "TansyCloudStorage/PictureClient.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::uint32_t kMaxPictureSize = 33554432;

std::shared_ptr<const SStorageServerConfig> ConfigOf(const std::shared_ptr<PictureImpl>& impl) {
  return {impl, &impl->config};
}

}  // namespace
}  // namespace details

CPictureClient::CPictureClient(const SStorageServerConfig& config) : ptr_conf_(MakeClientState<PictureImpl>(config)) {}

bool CPictureClient::Init() {
  if (!ptr_conf_) {
    CLOUD_LOG(logging::kError, "[%s]config ptr is null.[%s(%d)]");
    return false;
  }
  const SStorageServerConfig& config = ptr_conf_->config;
  if (config.sk.empty() || config.ak.empty() || config.ip.empty() || config.pool_name.empty()) {
    CLOUD_LOG(logging::kError, "[%s]sk[%s] , ak[%s], ip[%s], pool name[%s] is invalid.[%s(%d)]", config.ak.c_str(),
              config.sk.c_str(), config.ip.c_str(), config.pool_name.c_str());
    return false;
  }
  if (config.upload_port == 0 || config.download_port == 0) {
    CLOUD_LOG(logging::kError, "[%s]upload port[%d] , download port[%d] is invalid.[%s(%d)]", config.upload_port,
              config.download_port);
    return false;
  }
  return true;
}

bool CPictureClient::Uninit() {
  return true;
}

bool CPictureClient::UploadPicture(std::string& url, const char* data, std::uint32_t size) {
  if (size > details::kMaxPictureSize) {
    CLOUD_LOG(logging::kError, "[%s]upload picture failed, size[%d] exceed.[%s(%d)]", size);
    return false;
  }
  if (!ptr_conf_) {
    CLOUD_LOG(logging::kError, "[%s]config ptr is null.[%s(%d)]");
    return false;
  }
  if (data == nullptr && size > 0) {
    CLOUD_LOG(logging::kError, "[%s]upload picture failed, no data.[%s(%d)]");
    return false;
  }
  try {
    CPicProtoClient client(details::ConfigOf(ptr_conf_));
    std::string address;
    std::string port;
    std::string token;
    if (!client.GetBestNode(address, port, token)) {
      CLOUD_LOG(logging::kError, "[%s]upload picture failed, get best node failed.[%s(%d)]");
      return false;
    }
    const std::string location = client.GatewayLocation(address, port);
    if (!client.UploadPic(url, location, token, data, size)) {
      CLOUD_LOG(logging::kError, "[%s]upload picture failed, location[%s] upload failed.[%s(%d)]", location.c_str());
      return false;
    }
    return true;
  } catch (const std::exception& exception) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]operation failed, exception[%s][%s(%d)]", exception.what());
  }
  return false;
}

bool CPictureClient::DownloadPicture(char** data, std::uint32_t& size, const std::string& url) {
  if (!ptr_conf_) {
    CLOUD_LOG(logging::kError, "[%s]download pic failed, ptr_conf_ is null, url[%s].[%s(%d)]", url.c_str());
    return false;
  }
  bool done = false;
  try {
    done = data != nullptr && CPicProtoClient(details::ConfigOf(ptr_conf_)).DownloadPic(data, size, url);
  } catch (const std::exception& exception) {
    CLOUD_LOG(logging::kError, "[%s][PicClient]operation failed, exception[%s][%s(%d)]", exception.what());
  }
  if (!done) {
    CLOUD_LOG(logging::kError, "[%s]download file failed, url[%s].[%s(%d)]", url.c_str());
  }
  return done;
}

bool CPictureClient::RemoveFileByUrl(const std::string&) {
  return true;
}

SClientFailure CPictureClient::GetLastFailure() const noexcept {
  return LastFailureOf(ptr_conf_);
}

}  // namespace Tansy::CloudStorage
