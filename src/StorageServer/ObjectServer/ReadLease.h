#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StorageServer/HostBuffer.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// Frames the reads of one download that is sent in chunks. It keeps the bytes readable, if the host supports that, and
// ensures that no callback of the host is called once the servers are down. Threads: any.
class CReadLease : private TansyBase::CNoncopyable {
 public:
  // Sets what the host wants to be told about such downloads; null for both means nothing.
  static void SetCallbacks(ReadBeginCallback begin, ReadEndCallback end);

  // Keeps these bytes at a location. Of bytes in pieces it tells the host the pieces that they lie in and no others,
  // because an object may have more of them than the host can keep open. Returns null when the host says that the
  // bytes, or some of them, are gone.
  static std::shared_ptr<CReadLease> Begin(const std::string& location, std::uint32_t size, std::uint32_t offset);
  ~CReadLease();

  // Reads some of the bytes like ReadRange of ObjectServerStorage.h; it returns an error of the protocol once the lease
  // has ended.
  int Read(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset);

  // Makes a call that belongs to what is read, such as the writing of a copy. Returns false, and does not make it, once
  // the lease has ended.
  bool Run(const std::function<void()>& call);

  // Ends all leases and waits for their calls. Afterwards, nothing that has begun calls the host again.
  static void EndAll();

 private:
  class CRegistry;

  explicit CReadLease(std::vector<HostRange> ranges);
  bool BeginAll(ReadBeginCallback begin, ReadEndCallback end);
  void End();

  const std::vector<HostRange> ranges_;
  std::mutex mutex_;  // held during a callback; guards everything below
  ReadEndCallback end_ = nullptr;
  std::size_t begun_ = 0;  // so many of the ranges the host has been told
  bool ended_ = false;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
