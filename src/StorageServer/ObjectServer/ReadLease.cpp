#include "StorageServer/ObjectServer/ReadLease.h"

#include <list>
#include <utility>
#include <vector>

#include "Singleton.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/ObjectServerStorage.h"

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

std::shared_ptr<CReadLease> CReadLease::Begin(const std::string& location) {
  CRegistry& registry = CRegistry::Instance();
  const auto [begin, end] = registry.Callbacks();
  // The lease is made first, because what the host has begun must be ended, even when there is no memory left for the
  // registry.
  std::shared_ptr<CReadLease> lease(new CReadLease(location));
  if (begin != nullptr && !lease->BeginAt(HostLocations(location), begin, end)) {
    return nullptr;
  }
  registry.Add(lease);
  return lease;
}

CReadLease::CReadLease(std::string location) : location_(std::move(location)) {}

CReadLease::~CReadLease() {
  End();
}

// Nobody else has the lease yet. When a piece is gone, the lease ends those that were begun.
bool CReadLease::BeginAt(std::vector<std::string> locations, ReadBeginCallback begin, ReadEndCallback end) {
  end_ = end;
  begun_.reserve(locations.size());
  for (std::string& location : locations) {
    if (begin(location) != 0) {
      return false;
    }
    begun_.push_back(std::move(location));
  }
  return true;
}

int CReadLease::Read(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ended_ ? kServerInternalError : ReadRange(config, buffer, size, offset, location_);
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
    for (const std::string& location : begun_) {
      end_(location);
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
