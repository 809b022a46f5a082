#include "StorageServer/ObjectServer/ReadLease.h"

#include <mutex>
#include <utility>

#include "Singleton.h"

namespace Tansy::CloudStorage::details {

namespace {

struct LeaseCallbacks {
  ReadBeginCallback begin = nullptr;
  ReadEndCallback end = nullptr;
};

// The two callbacks belong together, so they are changed and read together.
class CLeaseCallbacks : private TansyBase::CNoncopyable {
 public:
  static CLeaseCallbacks& Instance() { return CSingleton<CLeaseCallbacks>::Instance(); }

  void Set(LeaseCallbacks callbacks) {
    const std::lock_guard<std::mutex> lock(mutex_);
    callbacks_ = callbacks;
  }
  LeaseCallbacks Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_;
  }

 private:
  friend class CSingleton<CLeaseCallbacks>;
  CLeaseCallbacks() = default;
  ~CLeaseCallbacks() = default;

  mutable std::mutex mutex_;  // guards callbacks_
  LeaseCallbacks callbacks_;
};

}  // namespace

void SetReadLeaseCallbacks(ReadBeginCallback begin, ReadEndCallback end) {
  CLeaseCallbacks::Instance().Set({begin, end});
}

CReadLease::CReadLease(std::string location) : location_(std::move(location)) {
  const LeaseCallbacks callbacks = CLeaseCallbacks::Instance().Get();
  if (callbacks.begin == nullptr) {
    return;
  }
  held_ = callbacks.begin(location_) == 0;
  if (held_) {
    end_ = callbacks.end;
  }
}

CReadLease::~CReadLease() {
  if (end_ != nullptr) {
    end_(location_);
  }
}

}  // namespace Tansy::CloudStorage::details
