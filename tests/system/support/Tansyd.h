// A tansyd of this build as a process of its own.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_TANSYD_H
#define TANSY_TESTS_SYSTEM_SUPPORT_TANSYD_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace system_tests {

// This is long enough for a sanitizer on a loaded machine; whatever takes longer hangs.
inline constexpr std::chrono::seconds kPatience{60};

struct Keys {
  std::string access_key = "system-test-access";
  std::string secret_key = "system-test-secret-4711";
};

// How one run is started.
struct Launch {
  std::vector<std::string> arguments;  // besides --data and the ports
  bool with_data = true;
  bool with_ports = true;
  bool with_https = false;
  bool with_s3 = false;
  bool with_admin = false;
  bool with_keys = true;  // in the environment
  std::map<std::string, std::string> environment;
  std::string program;     // empty: tansyd
  std::string folder;      // that it is started in; empty: the data folder's parent
  std::string small_disk;  // below the data folder: a file system of its own, in memory
  std::uint64_t small_disk_bytes = 0;
  bool without_ipv6 = false;     // as on a machine whose kernel has none
  bool with_local_ip = true;     // best-node answers name 127.0.0.1
  std::uint64_t open_files = 0;  // hard limit of open files and connections; 0: that of the tests
  bool stuck_errors = false;     // standard error is a full pipe that nobody reads
};

struct Ended {
  bool exited = false;  // by itself, in time
  int code = -1;        // exit code, or 128 + signal
  std::string out;
  std::string err;
};

// One data folder below `folder`, and the runs on it, one after another. A run ends with the thread that starts it at
// the latest, so that tests that are killed leave none behind.
class CTansyd {
 public:
  explicit CTansyd(const std::string& folder, const std::string& name = "data");
  ~CTansyd();  // kills what runs
  CTansyd(const CTansyd&) = delete;
  CTansyd& operator=(const CTansyd&) = delete;

  // Starts and waits for the ready line; failures are reported to the running test. Ports are chosen at the first start
  // and kept, so that clients find a restarted server; when somebody has taken one meanwhile, others are chosen.
  bool Start(const Launch& launch = {});
  // Starts and waits for its end, for runs that are meant to fail or to be short.
  Ended RunToEnd(const Launch& launch);
  // Starts without waiting, for runs that are meant to be disturbed before they are ready.
  void Begin(const Launch& launch) { Spawn(launch); }
  // Waits until one that was begun is ready; false when it ended before that.
  bool WaitForReadyOrEnd() { return WaitForReadyLine(); }

  // Stop signal, then the end, which must be exit code 0 within `patience`.
  bool Stop(int signal = 15, std::chrono::seconds patience = kPatience);
  void Kill();  // like a crash
  void Signal(int signal) const;
  bool IsRunning();
  // Waits for the end of a running one.
  Ended WaitForEnd(std::chrono::seconds patience = kPatience);

  // Says that this machine does not let a test mount the small disk of a Launch.
  bool IsSmallDiskMissing() const { return is_small_disk_missing_; }
  // Says that this machine does not let a test play a kernel without IPv6.
  bool IsFilterMissing() const { return is_filter_missing_; }

  const std::string& GetReadyLine() const { return ready_line_; }
  std::string GetLog() const;     // of all runs, as far as written
  std::string GetErrors() const;  // standard error of all runs
  std::string Data(const std::string& name = "") const;
  std::uint16_t GetObjectPort() const { return ports_[0]; }
  std::uint16_t GetPicturePort() const { return ports_[1]; }
  std::uint16_t GetObjectHttpsPort() const { return ports_[2]; }
  std::uint16_t GetPictureHttpsPort() const { return ports_[3]; }
  pid_t GetPid() const { return pid_; }
  std::uint16_t GetS3Port() const { return ports_[4]; }
  std::uint16_t GetS3HttpsPort() const { return ports_[5]; }
  std::uint16_t GetAdminPort() const { return ports_[6]; }
  // Resident memory in bytes.
  std::uint64_t GetMemory() const;

 private:
  std::vector<std::string> Arguments(const Launch& launch) const;
  void Spawn(const Launch& launch);
  bool WaitForReadyLine();
  bool ReadOutput(std::chrono::milliseconds patience);
  void CheckSanitizers() const;

  std::string folder_;
  std::string name_;
  std::vector<std::uint16_t> ports_;
  pid_t pid_ = -1;
  int output_ = -1;
  int stuck_ = -1;  // the reading end of a full pipe
  std::string out_;
  std::string ready_line_;
  bool is_small_disk_missing_ = false;
  bool is_filter_missing_ = false;
};

// The tansyd of this build.
std::string TansydPath();
// The folder of this project's sources.
std::string SourceFolder();
// A script of the project's scripts folder.
std::string ScriptPath(const std::string& name);
// A script of tests/system/clients, which does what people do with a client.
std::string ClientScript(const std::string& name);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_TANSYD_H
