// A Ceph cluster of the tests' own: a monitor and three OSDs on loopback, which keep everything in memory and in a
// temporary folder, gone with the object or with the process, however that ends.
#ifndef TANSY_TESTS_FAKES_CEPH_CLUSTER_H
#define TANSY_TESTS_FAKES_CEPH_CLUSTER_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "fakes/TempFolder.h"

namespace Tansy::Tests {

// Errors fail the running test. Threads: one at a time.
class CCephCluster {
 public:
  static constexpr const char* kPool = "tansy";  // two replicas, and one is enough to go on
  static constexpr const char* kUser = "tansy";  // may use that pool and nothing else
  static constexpr int kOsds = 3;

  // The one of this program, started when it is first asked for.
  static CCephCluster& Shared();

  CCephCluster();
  ~CCephCluster();
  CCephCluster(const CCephCluster&) = delete;
  CCephCluster& operator=(const CCephCluster&) = delete;

  // The address as an option of tansyd, with a namespace of the pool.
  std::string Url(const std::string& name_space) const;
  // Ceph's settings file.
  std::string Conf() const { return temp_.Path("ceph.conf"); }
  // The same with other lines for clients, such as "rados_osd_op_timeout = 3".
  std::string Conf(const std::string& name, const std::string& lines) const;
  // A namespace that no other test has.
  std::string NewNamespace();

  // Runs Ceph's command line as its administrator, and gives what it prints.
  std::string Ceph(const std::vector<std::string>& arguments) const;
  // Runs its tool for objects of the pool; false when that fails.
  bool Rados(const std::string& name_space, const std::vector<std::string>& arguments) const;

  void SignalMonitor(int signal) const;
  void SignalOsd(int osd, int signal) const;
  // It does not come back: what it held has only one replica left, so the next failure would be one too many.
  void KillOsd(int osd);
  // Waits until all OSDs take part, those that were frozen too.
  void WaitForOsds() const;
  // Makes the cluster count as full, or not any more; it takes a moment.
  void SetFull(bool is_full) const;
  // The end of what the programs have written.
  std::string GetLog() const;

 private:
  void WriteSettings();
  void RunCommands(const std::string& commands) const;
  void StartMonitor();
  void MakeOsd(int osd) const;
  void StartOsd(int osd);
  pid_t Begin(const std::vector<std::string>& arguments, const std::string& output) const;
  int Run(const std::vector<std::string>& arguments, const std::string& output = "tool.out") const;

  CTempFolder temp_;
  std::uint16_t port_ = 0;
  std::string key_;
  std::string cluster_id_;
  std::array<std::string, kOsds> osd_ids_;
  pid_t monitor_ = -1;
  std::array<pid_t, kOsds> osds_ = {-1, -1, -1};
  int namespaces_ = 0;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_CEPH_CLUSTER_H
