#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "StorageServer/HostBuffer.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// The reads of one download that is sent in chunks: keeps the bytes readable, as far as the host has agreed to that,
// and sees to it that no callback of the host's is called once the servers are down. Any thread.
class CReadLease : private TansyBase::CNoncopyable {
 public:
  // What the host wants to be told of such downloads; both null: nothing.
  static void SetCallbacks(ReadBeginCallback begin, ReadEndCallback end);

  // Null when the host says that the bytes at this location are gone.
  static std::shared_ptr<CReadLease> Begin(const std::string& location);
  ~CReadLease();

  // As ReadRange of ObjectServerStorage.h; an error of the protocol once the lease has ended.
  int Read(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset);

  // Ends all leases and waits for their reads: afterwards none of the downloads that have begun calls the host again.
  static void EndAll();

 private:
  class CRegistry;

  explicit CReadLease(std::string location);
  void End();

  const std::string location_;
  std::mutex mutex_;  // held during a callback; guards both below
  ReadEndCallback end_ = nullptr;
  bool ended_ = false;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
