// What tansyd and the service manager that has started it tell each other.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

// The manager's end: what was told so far, in order, each message in a line of its own.
class CManager {
 public:
  explicit CManager(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~CManager() { ::close(socket_); }
  CManager(const CManager&) = delete;
  CManager& operator=(const CManager&) = delete;

  const std::string& Heard() {
    char text[512];
    ssize_t size = 0;
    while ((size = ::recv(socket_, text, sizeof text, 0)) > 0) {
      heard_ += std::string(text, static_cast<std::size_t>(size)) + "\n";
    }
    return heard_;
  }
  bool Hears(const std::string& text) {
    return WaitUntil([&] { return Heard().find(text) != std::string::npos; });
  }
  void Forget() {
    Heard();
    heard_.clear();
  }

 private:
  int socket_ = -1;
  std::string heard_;
};

class ServiceManagerTest : public TansydTest {
 protected:
  // A program that starts tansyd with this socket, as a manager does.
  std::string StarterWith(int listener) const {
    const std::string path = temp_.GetPath() + "/starter";
    std::ofstream(path) << "#!/bin/bash\nexec 3<&" << listener << "\nexport LISTEN_PID=$$ LISTEN_FDS=1\nexec "
                        << TansydPath() << " \"$@\"\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
  }

  const std::string socket_path_ = temp_.GetPath() + "/notify";
};

TEST_F(ServiceManagerTest, HearsOfStartReloadAndStop) {
  CManager manager(socket_path_);
  Launch launch;
  launch.environment["NOTIFY_SOCKET"] = socket_path_;
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(manager.Hears("READY=1"));
  manager.Forget();
  server_.Signal(SIGHUP);
  EXPECT_TRUE(manager.Hears("READY=1")) << manager.Heard();
  EXPECT_EQ(manager.Heard().rfind("RELOADING=1\nMONOTONIC_USEC=", 0), 0U) << manager.Heard();
  manager.Forget();
  ASSERT_TRUE(server_.Stop());
  EXPECT_EQ(manager.Heard(), "STOPPING=1\n");
}

TEST_F(ServiceManagerTest, HearsNothingOfAStartThatFails) {
  CManager manager(socket_path_);
  Launch launch;
  launch.environment["NOTIFY_SOCKET"] = socket_path_;
  launch.arguments = {"--storage", "nowhere:"};
  EXPECT_NE(server_.RunToEnd(launch).code, 0);
  EXPECT_EQ(manager.Heard(), "");
}

TEST_F(ServiceManagerTest, HearsThatClientsAreServed) {
  CManager manager(socket_path_);
  Launch launch;
  launch.environment = {{"NOTIFY_SOCKET", socket_path_}, {"WATCHDOG_USEC", "200000"}};
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(manager.Hears("WATCHDOG=1"));
  manager.Forget();
  EXPECT_TRUE(manager.Hears("WATCHDOG=1")) << "again";
}

// Who starts it anew opens the port before, and clients wait meanwhile.
TEST_F(ServiceManagerTest, ServesAPortThatItsManagerHasOpened) {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);  // children inherit it
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(server_.GetObjectPort());
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 10), 0);

  Launch launch;
  launch.program = StarterWith(listener);
  launch.arguments = {"--listen", "127.0.0.1"};
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  EXPECT_EQ(Outcome(Send("PUT", "/b/k", "text")), "200");
  ASSERT_TRUE(server_.Stop());
  EXPECT_NE(CConnection::Open(server_.GetObjectPort()), nullptr) << "the port is still open";
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_EQ(Get("/b/k"), "text");
  ::close(listener);
}

TEST_F(ServiceManagerTest, SaysWhichPortOfItsManagerNobodyServes) {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(::listen(listener, 10), 0);  // at a port of the system's choice
  Launch launch;
  launch.program = StarterWith(listener);
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(WaitUntil([&] {
    return server_.GetLog().find("the service manager's socket of 0.0.0.0 port ") != std::string::npos;
  })) << server_.GetLog();
  ::close(listener);
}

}  // namespace
}  // namespace system_tests
