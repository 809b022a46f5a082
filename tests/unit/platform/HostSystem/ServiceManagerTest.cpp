#include "HostSystem/ServiceManager.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "fakes/TempFolder.h"

namespace {

using HostSystem::EServiceState;
using HostSystem::TellServiceManager;

// The socket that a service manager listens on; the environment names it.
class CManagerSocket {
 public:
  explicit CManagerSocket(const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name.front() == '@') {
      address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), size), 0);
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  ~CManagerSocket() {
    ::close(socket_);
    ::unsetenv("NOTIFY_SOCKET");
  }
  CManagerSocket(const CManagerSocket&) = delete;
  CManagerSocket& operator=(const CManagerSocket&) = delete;

  // What was told and not read yet; empty when there is nothing.
  std::string Read() const {
    char text[512];
    const ssize_t size = ::recv(socket_, text, sizeof text, 0);
    return size <= 0 ? std::string() : std::string(text, static_cast<std::size_t>(size));
  }

 private:
  int socket_ = -1;
};

// Sets a variable as long as it lives.
class CVariable {
 public:
  CVariable(const char* name, const std::string& value) : name_(name) { ::setenv(name, value.c_str(), 1); }
  ~CVariable() { ::unsetenv(name_); }
  CVariable(const CVariable&) = delete;
  CVariable& operator=(const CVariable&) = delete;

 private:
  const char* name_;
};

void ExpectAllStates(const CManagerSocket& manager) {
  TellServiceManager(EServiceState::kReady);
  EXPECT_EQ(manager.Read(), "READY=1");
  TellServiceManager(EServiceState::kReloading);
  const std::string reloading = manager.Read();
  EXPECT_EQ(reloading.rfind("RELOADING=1\nMONOTONIC_USEC=", 0), 0U) << reloading;
  EXPECT_GT(std::stoll(reloading.substr(reloading.rfind('=') + 1)), 0);
  TellServiceManager(EServiceState::kStopping);
  EXPECT_EQ(manager.Read(), "STOPPING=1");
  TellServiceManager(EServiceState::kAlive);
  EXPECT_EQ(manager.Read(), "WATCHDOG=1");
}

TEST(ServiceManagerTest, IsToldThroughASocketInAFolder) {
  const Tansy::Tests::CTempFolder folder;
  ExpectAllStates(CManagerSocket(folder.GetPath() + "/notify"));
}

TEST(ServiceManagerTest, IsToldThroughASocketWithoutAFile) {
  ExpectAllStates(CManagerSocket("@tansy-test-" + std::to_string(::getpid())));
}

TEST(ServiceManagerTest, NobodyIsToldWithoutOne) {
  TellServiceManager(EServiceState::kReady);
  for (const std::string& name :
       {std::string(), std::string("relative"), std::string("/no/such/socket"), "/" + std::string(200, 'x')}) {
    const CVariable variable("NOTIFY_SOCKET", name);
    TellServiceManager(EServiceState::kReady);
  }
}

// A manager that stands still must not make the program stand still.
TEST(ServiceManagerTest, AManagerThatReadsNothingKeepsNobodyWaiting) {
  const Tansy::Tests::CTempFolder folder;
  const CManagerSocket manager(folder.GetPath() + "/notify");
  for (int i = 0; i < 10000; ++i) {
    TellServiceManager(EServiceState::kAlive);
  }
  EXPECT_EQ(manager.Read(), "WATCHDOG=1");
}

TEST(ServiceManagerTest, SaysHowOftenItWantsToHear) {
  EXPECT_FALSE(HostSystem::WatchdogPeriod().has_value());
  const CVariable period("WATCHDOG_USEC", "20000000");
  EXPECT_EQ(HostSystem::WatchdogPeriod(), std::chrono::seconds(20));
  {
    const CVariable process("WATCHDOG_PID", std::to_string(::getpid()));
    EXPECT_EQ(HostSystem::WatchdogPeriod(), std::chrono::seconds(20));
  }
  const CVariable other("WATCHDOG_PID", std::to_string(::getppid()));
  EXPECT_FALSE(HostSystem::WatchdogPeriod().has_value()) << "it waits for another process";
}

TEST(ServiceManagerTest, APeriodThatIsNoneIsNone) {
  for (const char* text : {"0", "-1", "soon", "1e6", ""}) {
    const CVariable period("WATCHDOG_USEC", text);
    EXPECT_FALSE(HostSystem::WatchdogPeriod().has_value()) << text;
  }
}

TEST(ServiceManagerTest, SocketsOfAnotherProcessAreNotTaken) {
  const CVariable process("LISTEN_PID", std::to_string(::getppid()));
  const CVariable count("LISTEN_FDS", "1");
  EXPECT_TRUE(HostSystem::TakeServiceSockets().empty());
  EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr) << "children must not believe that they are theirs";
}

TEST(ServiceManagerTest, ANumberOfSocketsThatMakesNoSenseGivesNone) {
  for (const char* text : {"", "x", "-1"}) {
    const CVariable process("LISTEN_PID", std::to_string(::getpid()));
    const CVariable count("LISTEN_FDS", text);
    EXPECT_TRUE(HostSystem::TakeServiceSockets().empty()) << text;
  }
}

}  // namespace
