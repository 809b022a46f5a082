#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StorageServer/HostBuffer.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// Frames the reads of one download that is sent in chunks. It keeps the bytes readable, if the host supports that, and
// ensures that no callback of the host is called once the servers are down. Threads: any.
class CReadLease : private TansyBase::CNoncopyable {
 public:
  // Sets what the host wants to be told about such downloads; null for both means nothing.
  static void SetCallbacks(ReadBeginCallback begin, ReadEndCallback end);

  // Returns null when the host says that the bytes at this location, or some of them, are gone.
  static std::shared_ptr<CReadLease> Begin(const std::string& location);
  ~CReadLease();

  // Reads like ReadRange of ObjectServerStorage.h; it returns an error of the protocol once the lease has ended.
  int Read(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset);

  // Makes a call that belongs to what is read, such as the writing of a copy. Returns false, and does not make it, once
  // the lease has ended.
  bool Run(const std::function<void()>& call);

  // Ends all leases and waits for their calls. Afterwards, nothing that has begun calls the host again.
  static void EndAll();

 private:
  class CRegistry;

  explicit CReadLease(std::string location);
  bool BeginAt(std::vector<std::string> locations, ReadBeginCallback begin, ReadEndCallback end);
  void End();

  const std::string location_;
  std::mutex mutex_;  // held during a callback; guards everything below
  ReadEndCallback end_ = nullptr;
  std::vector<std::string> begun_;  // what the host has been told: one location, or those of all pieces
  bool ended_ = false;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
