#ifndef TANSY_HOST_RADOS_LOCK_H
#define TANSY_HOST_RADOS_LOCK_H

#include <memory>
#include <string>

#include "RadosPool.h"
#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// Keeps other tansyds away from a pool. The lock is in the cluster, with the name of this machine and of the data
// folder. It ends by itself a minute after its holder has ended without giving it back; who starts on the same data
// folder again, which no other process can have then, takes it over at once. When another tansyd has taken it, because
// this process could not hold it for a minute, nothing is written to the pool any more. Threads: one.
class CRadosLock final : public TansyBase::CSingleBaseThread {
 public:
  // `owner` names who takes the lock. Nothing is taken yet.
  CRadosLock(std::shared_ptr<CRadosPool> pool, std::string owner);
  ~CRadosLock() override;

  // Returns 0, EBUSY when somebody else has the lock, or another errno value. `holder` then names who has it.
  int Look(std::string& holder) const;
  int Take(CRadosPool::ELock kind, std::string& holder);

 protected:
  void OnTimer() override;

 private:
  const std::shared_ptr<CRadosPool> pool_;
  const std::string owner_;
  CRadosPool::ELock kind_ = CRadosPool::ELock::kAlone;
  bool is_taken_ = false;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_LOCK_H
