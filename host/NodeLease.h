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
  std::string owner;    // machine and data folder, which only one process has at a time
  std::string address;  // "host:port"
};

// The entry of this process in platform.nodes. It is renewed every second and counts for ten, by the clock of the
// database's server alone. Whoever has lost the lease, because it stood still or could not reach the database, begins a
// new one; what it had begun to write before is refused. A name that another process has taken over is not taken back.
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
  // Says whether this node does what has to be done once. Two may do so for a moment.
  bool IsFirst() const;
  const std::string& Name() const { return identity_.name; }

 protected:
  void OnTimer() override;

 private:
  enum class ETaken { kYes, kNo, kUnknown };
  ETaken Take(bool is_first_time, std::string& holder, std::string& error);
  ETaken Renew(std::string& error);
  std::string IsMine() const;

  const NodeIdentity identity_;
  const std::unique_ptr<db_layer::IDatabaseEar> ear_;  // the own thread's, once it runs
  bool is_running_ = false;
  bool is_lost_ = false;  // the log says so

  mutable std::mutex mutex_;  // guards what follows
  std::int64_t epoch_ = 0;
  std::vector<std::string> live_;  // names of all nodes that live, in order
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_NODE_LEASE_H
