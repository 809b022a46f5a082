#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_UPLOADS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_UPLOADS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Singleton.h"
#include "StorageServer/S3Server/S3Body.h"
#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage::S3 {

// An upload whose body arrives in pieces. Its pieces come one after another, so nobody else uses the body meanwhile.
struct Upload {
  CBody body;
  std::string request_id;
};

// The uploads under way, by the handles of their requests. How many bytes of them are stored, and where, is known to
// the same class that knows it for the object protocol. Threads: any.
class CUploads : private TansyBase::CNoncopyable {
 public:
  static CUploads& Instance();

  // Forgets uploads whose clients went away, when there are many.
  void Add(std::int32_t handle, std::shared_ptr<Upload> upload);
  // Gives null when there is no such upload.
  std::shared_ptr<Upload> Find(std::int32_t handle) const;
  void Remove(std::int32_t handle);
  std::size_t Size() const;

 private:
  friend class CSingleton<CUploads>;
  CUploads() = default;
  ~CUploads() = default;

  static constexpr std::size_t kMany = 64;

  mutable std::mutex mutex_;
  std::map<std::int32_t, std::shared_ptr<Upload>> uploads_;  // guarded by mutex_
  std::size_t look_at_ = kMany;  // guarded by mutex_; at this number they are looked through
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_UPLOADS_H
