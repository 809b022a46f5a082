#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H

#include <string>

#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// What the host wants to be told of downloads that are sent in chunks; both null: nothing. Any thread.
void SetReadLeaseCallbacks(ReadBeginCallback begin, ReadEndCallback end);

// Keeps the bytes of one location readable, as far as the host has agreed to that, for as long as it lives.
class CReadLease : private TansyBase::CNoncopyable {
 public:
  explicit CReadLease(std::string location);
  ~CReadLease();

  // False when the host says that the bytes are gone. True too when it wants to be told nothing.
  bool IsHeld() const { return held_; }
  const std::string& Location() const { return location_; }

 private:
  const std::string location_;
  ReadEndCallback end_ = nullptr;
  bool held_ = true;
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_READ_LEASE_H
