#ifndef TANSY_HOST_NODE_LEASE_H
#define TANSY_HOST_NODE_LEASE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TansyBase/SingleBaseThread.h"
#include "db_layer/SharedDatabase.h"

namespace Tansy::Host {

// Who this process is among those that share a catalogue.
struct NodeIdentity {
  std::string name;
  std::string owner;          // machine and data folder, which only one process has at a time
  std::string machine_start;  // tells the machine from its copies; may be "" where the system does not say
  std::string address;        // "host:port"
};

// The entry of this process in platform.nodes. It is renewed every second and counts for ten, by the clock of the
// database's server alone. As long as it has ended, because the process stood still or could not reach the database,
// nothing is written. Then it goes on, unless another process has taken the name over: a name that was lost is not
// taken back, except from a process that ran on the same data folder and is over, as in a catalogue that was set back.
// Threads: any.
class CNodeLease final : public TansyBase::CSingleBaseThread {
 public:
  CNodeLease(const db_layer::DBParam& database, NodeIdentity identity);
  ~CNodeLease() override;
  CNodeLease(const CNodeLease&) = delete;
  CNodeLease& operator=(const CNodeLease&) = delete;

  // Throws CStartFailure with kExitFailed when another process has the name.
  void Begin();
  // Gives the name back, so that another process may take it at once.
  void End();

  // The statement with which each transaction of this process begins.
  std::string Prelude() const;
  // Says whether no other process can have taken the name over, as far as this machine's clock can tell.
  bool IsHeld() const;
  // Says whether this node does what has to be done once. Two may do so for a moment.
  bool IsFirst() const;
  const std::string& Name() const { return identity_.name; }

 protected:
  void OnTimer() override;

 private:
  enum class ETaken { kYes, kNo, kUnknown };
  ETaken Take(const std::string& may_follow, std::string& error);
  ETaken Renew(std::string& error);
  ETaken LookAtOthers(std::string& error);
  void Note(ETaken taken, const std::string& error);
  std::string HolderOfTheName();
  std::string IsMine() const;
  void SetLease(std::int64_t epoch, std::int64_t asked_at);

  const NodeIdentity identity_;
  const std::string process_;                          // no other process has this text
  const std::unique_ptr<db_layer::IDatabaseEar> ear_;  // the own thread's, once it runs
  bool is_running_ = false;
  bool is_lost_ = false;    // the log says so
  std::int64_t epoch_ = 0;  // counts the leases of this name

  mutable std::mutex mutex_;  // guards what follows
  bool has_lease_ = false;
  std::int64_t asked_at_ = 0;      // value of TimeUtil::Uptime before the lease was asked for
  std::vector<std::string> live_;  // names of all nodes that live, in order
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_NODE_LEASE_H
