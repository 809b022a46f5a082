// Calls the host's storage callbacks: makes location texts, maps results, and answers for callbacks that are missing.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_STORAGE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_STORAGE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/HostBuffer.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// These results of a storage callback are not errors of the protocol.
inline constexpr int kStorageOk = 0;
inline constexpr int kStorageFull = 3;

// Gives the text by which the host finds bytes: "pool_name:" + bucket + ";" + what the host left when it stored them.
std::string LocationText(std::string_view bucket, std::string_view url = {});

// Bytes that lie together at one location of the host.
struct HostRange {
  std::string location;
  std::uint32_t offset = 0;  // of the first of them, at that location
  std::uint32_t begin = 0;   // of the first of them, in the whole
  std::uint32_t size = 0;
};

// Gives where the host has some of the bytes at a location: in some of the pieces when they are stored in pieces, else
// at the location itself. Empty for a damaged list of pieces.
std::vector<HostRange> HostRanges(const std::string& location, std::uint32_t size, std::uint32_t offset);

// Each calls the callback of its name; a host that did not supply it gets kServerInternalError as the result.
int SaveObject(const StorageServerConfig& config, std::string& location, std::string_view data);
int StreamSave(StreamSaveCallback callback, std::string_view data, std::uint32_t offset, std::string& location);
int ReadObject(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, const std::string& location);
// Reads bytes that are stored in pieces too: the host is then asked for each piece by its own location.
int ReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
              const std::string& location);
// The same for who knows already where the bytes are: `ranges` are those that HostRanges gave for them or for more.
int ReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
              const std::vector<HostRange>& ranges);
int RemoveStored(const StorageServerConfig& config, const std::string& location);

// Gives the protocol's error for a write callback that failed.
int WriteError(int storage_result);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_STORAGE_H
