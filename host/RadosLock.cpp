#include "RadosLock.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "HostLog.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kLockObject = "store.lock";
constexpr int kSeconds = 60;
constexpr std::uint32_t kRenewMs = 15000;

}  // namespace
}  // namespace details

CRadosLock::CRadosLock(std::shared_ptr<CRadosPool> pool, std::string owner)
    : CSingleBaseThread("tansyd-lock"), pool_(std::move(pool)), owner_(std::move(owner)) {}

CRadosLock::~CRadosLock() {
  Stop();
  if (is_taken_ && !pool_->IsReadOnly()) {
    pool_->Unlock(details::kLockObject, owner_);
  }
}

int CRadosLock::Look(std::string& holder) const {
  std::vector<CRadosPool::Holder> holders;
  if (const int error = pool_->GetHolders(details::kLockObject, holders)) {
    return error;
  }
  for (const CRadosPool::Holder& other : holders) {
    if (other.cookie != owner_) {
      holder = other.cookie;
      return EBUSY;
    }
  }
  return 0;
}

int CRadosLock::Take(CRadosPool::ELock kind, std::string& holder) {
  kind_ = kind;
  // Whoever shares the lock finds out below whether somebody has it alone.
  int error = kind == CRadosPool::ELock::kAlone ? Look(holder) : 0;
  std::vector<CRadosPool::Holder> mine;  // of an earlier run, which is over
  if (error == 0) {
    error = pool_->GetHolders(details::kLockObject, mine);
  }
  for (const CRadosPool::Holder& earlier : mine) {
    if (error == 0 && earlier.cookie == owner_) {
      error = pool_->BreakLock(details::kLockObject, earlier);
    }
  }
  if (error == 0) {
    error = pool_->Lock(details::kLockObject, kind_, owner_, details::kSeconds);
  }
  if (error == EBUSY) {
    Look(holder);
  }
  is_taken_ = error == 0;
  if (is_taken_) {
    Start(details::kRenewMs);
  }
  return error;
}

void CRadosLock::OnTimer() {
  const int error = pool_->Lock(details::kLockObject, kind_, owner_, details::kSeconds);
  if (error == EBUSY && !pool_->IsReadOnly()) {
    pool_->SetReadOnly();
    HOST_LOG(logging::kError, "[%s]another tansyd has taken %s: nothing is written there any more.[%s(%d)]",
             pool_->Describe().c_str());
  }
}

}  // namespace Tansy::Host
