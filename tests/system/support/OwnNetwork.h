// A network of a test's own, in which adapters come and go without anybody else noticing.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_OWN_NETWORK_H
#define TANSY_TESTS_SYSTEM_SUPPORT_OWN_NETWORK_H

#include <functional>
#include <memory>
#include <string>

namespace system_tests {

// An adapter of that network, which goes with this object. It carries no data; only its address counts.
class CAdapter {
 public:
  // Gives null when this machine does not let a test have one.
  static std::unique_ptr<CAdapter> Make(const std::string& name);
  ~CAdapter();
  CAdapter(const CAdapter&) = delete;
  CAdapter& operator=(const CAdapter&) = delete;

  // Replaces the adapter's IPv4 address and switches the adapter on.
  bool SetAddress(const std::string& address);

 private:
  CAdapter(std::string name, int device) : name_(std::move(name)), device_(device) {}

  std::string name_;
  int device_;
};

// Runs `test` on a thread that sees a new network with nothing but loopback in it, as do the programs that it starts.
// False, and nothing run, when this machine does not let a test have one.
bool RunInOwnNetwork(const std::function<void()>& test);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_OWN_NETWORK_H
