#include "support/OwnNetwork.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace system_tests {
namespace {

ifreq RequestFor(const std::string& name) {
  ifreq request = {};
  std::strncpy(request.ifr_name, name.c_str(), sizeof request.ifr_name - 1);
  return request;
}

// One setting of an adapter; any socket does to ask for it.
bool Apply(unsigned long what, ifreq& request) {
  const int any = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool done = any >= 0 && ::ioctl(any, what, &request) == 0;
  ::close(any);
  return done;
}

bool SwitchOn(const std::string& name) {
  ifreq request = RequestFor(name);
  request.ifr_flags = IFF_UP;
  return Apply(SIOCSIFFLAGS, request);
}

}  // namespace

std::unique_ptr<CAdapter> CAdapter::Make(const std::string& name) {
  const int device = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  ifreq request = RequestFor(name);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (device < 0 || ::ioctl(device, TUNSETIFF, &request) != 0) {
    ::close(device);
    return nullptr;
  }
  return std::unique_ptr<CAdapter>(new CAdapter(name, device));
}

CAdapter::~CAdapter() {
  ::close(device_);
}

bool CAdapter::SetAddress(const std::string& address) {
  ifreq request = RequestFor(name_);
  sockaddr_in ipv4 = {};
  ipv4.sin_family = AF_INET;
  ipv4.sin_addr.s_addr = ::inet_addr(address.c_str());
  std::memcpy(&request.ifr_addr, &ipv4, sizeof ipv4);
  return Apply(SIOCSIFADDR, request) && SwitchOn(name_);
}

bool RunInOwnNetwork(const std::function<void()>& test) {
  bool is_possible = false;
  std::thread([&] {
    is_possible = ::unshare(CLONE_NEWNET) == 0 && SwitchOn("lo");
    if (is_possible) {
      test();
    }
  }).join();
  return is_possible;
}

}  // namespace system_tests
