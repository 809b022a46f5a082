#include "StorageServer/S3Server/S3Uploads.h"

#include <algorithm>
#include <utility>

#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

CUploads& CUploads::Instance() {
  return CSingleton<CUploads>::Instance();
}

void CUploads::Add(std::int32_t handle, std::shared_ptr<Upload> upload) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (uploads_.size() >= look_at_) {
    std::erase_if(uploads_, [](const auto& entry) { return !TansyNet::CHttpServer::IsRequestOpen(entry.first); });
    look_at_ = std::max(kMany, uploads_.size() * 2);
  }
  uploads_[handle] = std::move(upload);
}

std::shared_ptr<Upload> CUploads::Find(std::int32_t handle) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = uploads_.find(handle);
  return found != uploads_.end() ? found->second : nullptr;
}

void CUploads::Remove(std::int32_t handle) {
  const std::lock_guard<std::mutex> lock(mutex_);
  uploads_.erase(handle);
}

std::size_t CUploads::Size() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return uploads_.size();
}

}  // namespace Tansy::CloudStorage::S3
