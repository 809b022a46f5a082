#include "StorageServer/ObjectServer/ReadLease.h"

#include <list>
#include <utility>
#include <vector>

#include "Singleton.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"

namespace Tansy::CloudStorage::details {

// Holds the host's two callbacks, which are changed and read together, and the list of leases.
class CReadLease::CRegistry : private TansyBase::CNoncopyable {
 public:
  static CRegistry& Instance() { return CSingleton<CRegistry>::Instance(); }

  void SetCallbacks(ReadBeginCallback begin, ReadEndCallback end) {
    const std::lock_guard<std::mutex> lock(mutex_);
    begin_ = begin;
    end_ = end;
  }
  std::pair<ReadBeginCallback, ReadEndCallback> Callbacks() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {begin_, end_};
  }
  void Add(const std::shared_ptr<CReadLease>& lease) {
    const std::lock_guard<std::mutex> lock(mutex_);
    leases_.remove_if([](const std::weak_ptr<CReadLease>& other) { return other.expired(); });
    leases_.push_back(lease);
  }
  std::vector<std::shared_ptr<CReadLease>> Leases() const {
    std::vector<std::shared_ptr<CReadLease>> leases;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const std::weak_ptr<CReadLease>& lease : leases_) {
      leases.push_back(lease.lock());
    }
    return leases;
  }

 private:
  friend class CSingleton<CRegistry>;
  CRegistry() = default;
  ~CRegistry() = default;

  mutable std::mutex mutex_;  // guards everything below
  ReadBeginCallback begin_ = nullptr;
  ReadEndCallback end_ = nullptr;
  std::list<std::weak_ptr<CReadLease>> leases_;
};

void CReadLease::SetCallbacks(ReadBeginCallback begin, ReadEndCallback end) {
  CRegistry::Instance().SetCallbacks(begin, end);
}

std::shared_ptr<CReadLease> CReadLease::Begin(const std::string& location, std::uint32_t size, std::uint32_t offset) {
  CRegistry& registry = CRegistry::Instance();
  const auto [begin, end] = registry.Callbacks();
  // The lease is made first, because what the host has begun must be ended, even when there is no memory left for the
  // registry.
  std::shared_ptr<CReadLease> lease(new CReadLease(HostRanges(location, size, offset)));
  if (begin != nullptr && !lease->BeginAll(begin, end)) {
    return nullptr;
  }
  registry.Add(lease);
  return lease;
}

CReadLease::CReadLease(std::vector<HostRange> ranges) : ranges_(std::move(ranges)) {}

CReadLease::~CReadLease() {
  End();
}

// Nobody else has the lease yet. When a piece is gone, the lease ends those that were begun.
bool CReadLease::BeginAll(ReadBeginCallback begin, ReadEndCallback end) {
  end_ = end;
  while (begun_ < ranges_.size() && begin(ranges_[begun_].location) == 0) {
    ++begun_;
  }
  return begun_ == ranges_.size();
}

int CReadLease::Read(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ended_ ? kServerInternalError : ReadRange(config, buffer, size, offset, ranges_);
}

bool CReadLease::Run(const std::function<void()>& call) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!ended_) {
    call();
  }
  return !ended_;
}

void CReadLease::End() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!ended_ && end_ != nullptr) {
    for (std::size_t i = 0; i < begun_; ++i) {
      end_(ranges_[i].location);
    }
  }
  ended_ = true;
}

void CReadLease::EndAll() {
  for (const std::shared_ptr<CReadLease>& lease : CRegistry::Instance().Leases()) {
    if (lease) {
      lease->End();
    }
  }
}

}  // namespace Tansy::CloudStorage::details
