#include <cstdint>
#include <memory>
#include <string>

#include "ModuleLog.h"
#include "StorageClient/ClientState.h"
#include "StorageClient/ConfigCheck.h"
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

bool DownloadPicture(const std::shared_ptr<PictureImpl>& impl, char** data, std::uint32_t& size,
                     const std::string& url) {
  if (data == nullptr) {
    impl->last_error.Set(ClientError::kBadArgument, "no place for the picture.");
    return false;
  }
  CPicProtoClient client(ConfigOf(impl));
  if (!client.DownloadPic(data, size, url)) {
    impl->last_error.Set(client.Failure());
    return false;
  }
  return true;
}

}  // namespace
}  // namespace details

CPictureClient::CPictureClient(const SStorageServerConfig& config) : ptr_conf_(MakeClientState<PictureImpl>(config)) {}

bool CPictureClient::Init() {
  return RunGuarded(ptr_conf_, [this] {
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]config ptr is null.[%s(%d)]");
      return false;
    }
    return CheckConfig(CLOUD_LOG_CALLER, ptr_conf_->config, ptr_conf_->last_error);
  });
}

// Fixed: docs/compatibility.md, "Success that does nothing".
bool CPictureClient::Uninit() {
  return true;
}

bool CPictureClient::UploadPicture(std::string& url, const char* data, std::uint32_t size) {
  return RunGuarded(ptr_conf_, [&] {
    if (size > details::kMaxPictureSize) {
      CLOUD_LOG(logging::kError, "[%s]upload picture failed, size[%d] exceed.[%s(%d)]", size);
      if (ptr_conf_) {
        ptr_conf_->last_error.Set(ClientError::kBadArgument, "picture size exceed 32M.");
      }
      return false;
    }
    if (!ptr_conf_) {
      CLOUD_LOG(logging::kError, "[%s]config ptr is null.[%s(%d)]");
      return false;
    }
    if (data == nullptr && size > 0) {
      CLOUD_LOG(logging::kError, "[%s]upload picture failed, no data.[%s(%d)]");
      ptr_conf_->last_error.Set(ClientError::kBadArgument, "no data.");
      return false;
    }
    CPicProtoClient client(details::ConfigOf(ptr_conf_));
    std::string address;
    std::string port;
    std::string token;
    if (!client.GetBestNode(address, port, token)) {
      CLOUD_LOG(logging::kError, "[%s]upload picture failed, get best node failed.[%s(%d)]");
      ptr_conf_->last_error.Set(client.Failure());
      return false;
    }
    const std::string location = client.GatewayLocation(address, port);
    if (!client.UploadPic(url, location, token, data, size)) {
      CLOUD_LOG(logging::kError, "[%s]upload picture failed, location[%s] upload failed.[%s(%d)]", location.c_str());
      ptr_conf_->last_error.Set(client.Failure());
      return false;
    }
    return true;
  });
}

bool CPictureClient::DownloadPicture(char** data, std::uint32_t& size, const std::string& url) {
  if (!ptr_conf_) {
    CLOUD_LOG(logging::kError, "[%s]download pic failed, ptr_conf_ is null, url[%s].[%s(%d)]", url.c_str());
    return false;
  }
  const bool done = RunGuarded(ptr_conf_, [&] { return details::DownloadPicture(ptr_conf_, data, size, url); });
  if (!done) {
    CLOUD_LOG(logging::kError, "[%s]download file failed, url[%s].[%s(%d)]", url.c_str());
  }
  return done;
}

// Fixed: docs/compatibility.md, "Success that does nothing".
bool CPictureClient::RemoveFileByUrl(const std::string&) {
  return true;
}

SClientFailure CPictureClient::GetLastFailure() const noexcept {
  return LastFailureOf(ptr_conf_);
}

}  // namespace Tansy::CloudStorage
