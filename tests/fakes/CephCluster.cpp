#include "fakes/CephCluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "fakes/ChildProcess.h"
#include "fakes/StoppedProcess.h"

namespace Tansy::Tests {
namespace {

constexpr std::chrono::seconds kPatience{90};
constexpr std::chrono::milliseconds kLookAgain{50};
constexpr int kGroups = 8;  // placement groups of the pool

bool IsFree(std::uint16_t port) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool is_free = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(descriptor);
  return is_free;
}

// Below the range that the system gives to outgoing connections.
std::uint16_t FreePort() {
  std::random_device device;
  std::uniform_int_distribution<int> distribution(20000, 31999);
  for (int tries = 0; tries < 1000; ++tries) {
    const auto port = static_cast<std::uint16_t>(distribution(device));
    if (IsFree(port)) {
      return port;
    }
  }
  ADD_FAILURE() << "no free port for Ceph";
  return 0;
}

std::string NewUuid() {
  std::string uuid = ReadFile("/proc/sys/kernel/random/uuid");
  return uuid.substr(0, uuid.find('\n'));
}

std::string LastLines(const std::string& path, std::size_t most) {
  const std::string text = ReadFile(path);
  return text.size() > most ? text.substr(text.size() - most) : text;
}

void EndNow(pid_t& pid) {
  if (pid > 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
  }
}

}  // namespace

CCephCluster& CCephCluster::Shared() {
  static CCephCluster cluster;
  return cluster;
}

CCephCluster::CCephCluster() : port_(FreePort()), cluster_id_(NewUuid()) {
  for (std::string& id : osd_ids_) {
    id = NewUuid();
  }
  WriteSettings();
  StartMonitor();
  std::string commands;
  for (int osd = 0; osd < kOsds; ++osd) {
    commands += "osd new " + osd_ids_.at(osd) + " " + std::to_string(osd) + "\n";
  }
  RunCommands(commands + "osd pool create " + kPool + "\n");
  for (int osd = 0; osd < kOsds; ++osd) {
    MakeOsd(osd);
    StartOsd(osd);
  }
  WaitForOsds();
}

CCephCluster::~CCephCluster() {
  for (pid_t& osd : osds_) {
    EndNow(osd);
  }
  EndNow(monitor_);
}

void CCephCluster::WriteSettings() {
  EXPECT_EQ(Run({"ceph-authtool", "--gen-print-key"}, "key"), 0);
  key_ = temp_.Read("key");
  key_ = key_.substr(0, key_.find('\n'));
  std::ostringstream keys;
  keys << "[mon.]\nkey = " << key_ << "\ncaps mon = \"allow *\"\n"
       << "[client.admin]\nkey = " << key_ << "\ncaps mon = \"allow *\"\ncaps osd = \"allow *\"\n"
       << "[client." << kUser << "]\nkey = " << key_
       << "\ncaps mon = \"allow r\"\ncaps osd = \"allow rwx pool=" << kPool << "\"\n[client.reader]\nkey = " << key_
       << "\ncaps mon = \"allow r\"\ncaps osd = \"allow r pool=" << kPool << "\"\n";
  for (int osd = 0; osd < kOsds; ++osd) {
    keys << "[osd." << osd << "]\nkey = " << key_ << "\ncaps mon = \"allow profile osd\"\ncaps osd = \"allow *\"\n";
  }
  temp_.Write("keyring", keys.str());
  const std::string folder = temp_.GetPath();
  std::ostringstream conf;
  conf << "[global]\nfsid = " << cluster_id_ << "\nmon_host = v2:127.0.0.1:" << port_
       << "\nmon_initial_members = a\npublic_network = 127.0.0.0/8\nms_bind_ipv6 = false\nkeyring = " << folder
       << "/keyring\nrun_dir = " << folder << "\nlog_file = " << folder
       << "/$name.log\nadmin_socket =\ncrash_dir = " << folder << "\nmon_cluster_log_file = " << folder
       << "/cluster.log\nauth_allow_insecure_global_id_reclaim = false\n"
          "osd_pool_default_size = 2\nosd_pool_default_min_size = 1\nosd_crush_chooseleaf_type = 0\n"
          "osd_pool_default_pg_autoscale_mode = off\nosd_pool_default_pg_num = "
       << kGroups << "\nosd_pool_default_pgp_num = " << kGroups
       << "\n"
          // All OSDs are on one machine, and its disk may be rather full.
          "mon_osd_min_down_reporters = 1\nmon_data_avail_warn = 1\nmon_data_avail_crit = 1\n"
          // An OSD that says nothing counts as dead after eight seconds; by default these are twenty.
          "osd_heartbeat_interval = 1\nosd_heartbeat_grace = 8\nmon_osd_adjust_heartbeat_grace = false\n"
          "mon_osd_down_out_interval = 3600\nosd_crush_initial_weight = 1\n"
          "osd_objectstore = memstore\nmemstore_device_bytes = 1073741824\nosd_memory_target = 134217728\n"
       << "[mon.a]\nmon_data = " << folder << "/mon\n[osd]\nosd_data = " << folder
       << "/$name\n"
       // What a client writes to a log is no business of the tests.
       << "[client]\nlog_file =\n";
  temp_.Write("ceph.conf", conf.str());
}

void CCephCluster::StartMonitor() {
  const std::string map = temp_.Path("monmap");
  EXPECT_EQ(Run({"monmaptool", "--create", "--addv", "a", "[v2:127.0.0.1:" + std::to_string(port_) + "]", "--fsid",
                 cluster_id_, map}),
            0)
      << GetLog();
  EXPECT_EQ(Run({"ceph-mon", "-c", Conf(), "-i", "a", "--mkfs", "--monmap", map, "--keyring", temp_.Path("keyring")}),
            0)
      << GetLog();
  monitor_ = Begin({"ceph-mon", "-c", Conf(), "-i", "a", "-f"}, "mon.out");
}

void CCephCluster::MakeOsd(int osd) const {
  const std::string name = "osd." + std::to_string(osd);
  std::filesystem::create_directory(temp_.Path(name));
  EXPECT_EQ(Run({"ceph-osd", "-c", Conf(), "-i", std::to_string(osd), "--mkfs", "--osd-uuid", osd_ids_.at(osd)}), 0)
      << GetLog();
}

void CCephCluster::StartOsd(int osd) {
  osds_.at(osd) = Begin({"ceph-osd", "-c", Conf(), "-i", std::to_string(osd), "-f"}, "osd.out");
}

void CCephCluster::WaitForOsds() const {
  const std::string all = std::to_string(kOsds) + " up";
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (Ceph({"osd", "stat"}).find(all) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "the OSDs do not start: " << GetLog();
      return;
    }
    std::this_thread::sleep_for(kLookAgain);
  }
}

std::string CCephCluster::Url(const std::string& name_space) const {
  return std::string("rados://") + kPool + "?conf=" + Conf() + "&id=" + kUser + "&namespace=" + name_space;
}

std::string CCephCluster::Conf(const std::string& name, const std::string& lines) const {
  return temp_.Write(name, temp_.Read("ceph.conf") + lines + "\n");
}

std::string CCephCluster::NewNamespace() {
  return "ns" + std::to_string(++namespaces_);
}

// One program for all of these commands, because each of its starts takes a second.
void CCephCluster::RunCommands(const std::string& commands) const {
  const std::string file = temp_.Write("commands", commands);
  EXPECT_EQ(Run({"/bin/sh", "-c", "exec ceph -c " + Conf() + " <" + file}), 0) << GetLog();
}

std::string CCephCluster::Ceph(const std::vector<std::string>& arguments) const {
  std::vector<std::string> words = {"ceph", "-c", Conf(), "--connect-timeout", "20"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  const int result = Run(words, "ceph.out");
  const std::string output = temp_.Read("ceph.out");
  EXPECT_EQ(result, 0) << output;
  return output;
}

bool CCephCluster::Rados(const std::string& name_space, const std::vector<std::string>& arguments) const {
  std::vector<std::string> words = {"rados", "-c", Conf(), "-p", kPool, "-N", name_space};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return Run(words, "rados.out") == 0;
}

void CCephCluster::SignalMonitor(int signal) const {
  ASSERT_TRUE(signal == SIGSTOP ? StopProcess(monitor_) : ::kill(monitor_, signal) == 0);
}

void CCephCluster::SignalOsd(int osd, int signal) const {
  ASSERT_TRUE(signal == SIGSTOP ? StopProcess(osds_.at(osd)) : ::kill(osds_.at(osd), signal) == 0);
}

void CCephCluster::KillOsd(int osd) {
  EndNow(osds_.at(osd));
}

void CCephCluster::SetFull(bool is_full) const {
  // The ratios have to stay in this order.
  const std::vector<std::pair<std::string, std::string>> ratios = {{"nearfull", is_full ? "0.00001" : "0.85"},
                                                                   {"backfillfull", is_full ? "0.00002" : "0.90"},
                                                                   {"full", is_full ? "0.00003" : "0.95"}};
  std::string commands;
  for (std::size_t i = 0; i < ratios.size(); ++i) {
    const auto& [name, ratio] = ratios[is_full ? i : ratios.size() - 1 - i];
    commands += "osd set-" + name + "-ratio " + ratio + "\n";
  }
  RunCommands(commands);
}

std::string CCephCluster::GetLog() const {
  std::string log;
  for (const char* name : {"tool.out", "mon.out", "osd.out"}) {
    log += "\n" + std::string(name) + ": " + LastLines(temp_.Path(name), 2000);
  }
  return log;
}

pid_t CCephCluster::Begin(const std::vector<std::string>& arguments, const std::string& output) const {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  const std::string path = temp_.Path(output);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    EndWithParent(parent);
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    const int nothing = ::open("/dev/null", O_RDONLY);
    ::dup2(nothing, STDIN_FILENO);
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
      ::close(descriptor);
    }
    ::execvp(pointers[0], pointers.data());
    ::_exit(97);
  }
  return pid;
}

int CCephCluster::Run(const std::vector<std::string>& arguments, const std::string& output) const {
  std::error_code ignored;
  std::filesystem::remove(temp_.Path(output), ignored);
  const pid_t pid = Begin(arguments, output);
  int status = -1;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace Tansy::Tests
