#include "StorageServer/ObjectServer/ObjectServerStorage.h"

#include "StorageServer/ObjectServer/ObjectServerErrors.h"

namespace Tansy::CloudStorage::details {

namespace {

// Tells the host that a whole object is meant, not a picture.
constexpr int kObjectFlag = 1;

}  // namespace

std::string LocationText(std::string_view bucket, std::string_view url) {
  constexpr std::string_view kPrefix = "pool_name:";
  std::string text;
  text.reserve(kPrefix.size() + bucket.size() + 1 + url.size());
  text.append(kPrefix).append(bucket).append(";").append(url);
  return text;
}

int SaveObject(const StorageServerConfig& config, std::string& location, std::string_view data) {
  if (config.save_object == nullptr) {
    return kServerInternalError;
  }
  return config.save_object(location, data.data(), static_cast<std::uint32_t>(data.size()), kObjectFlag);
}

int StreamSave(StreamSaveCallback callback, std::string_view data, std::uint32_t offset, std::string& location) {
  if (callback == nullptr) {
    return kServerInternalError;
  }
  return callback(data.data(), static_cast<std::uint32_t>(data.size()), offset, location);
}

// The host's two callbacks for reading take different arguments, so the two functions look alike.
int ReadObject(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, const std::string& location) {
  if (config.read_object == nullptr) {
    return kServerInternalError;
  }
  char* data = nullptr;
  const int result = config.read_object(data, size, location, kObjectFlag);
  buffer.Take(result, data, size);
  return result;
}

int ReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
              const std::string& location) {
  if (config.read_range == nullptr) {
    return kServerInternalError;
  }
  char* data = nullptr;
  const int result = config.read_range(data, size, offset, location);
  buffer.Take(result, data, size);
  return result;
}

int RemoveStored(const StorageServerConfig& config, const std::string& location) {
  return config.remove_object != nullptr ? config.remove_object(location) : kServerInternalError;
}

int WriteError(int storage_result) {
  return storage_result == kStorageFull ? kNotEnoughSpace : kServerInternalError;
}

}  // namespace Tansy::CloudStorage::details
