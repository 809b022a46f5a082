#include "TansyNet/client/Resolver.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "OSAL/Osal.h"

namespace TansyNet::details {

namespace {

constexpr int kMaxAbandoned = 16;

struct Lookup {
  std::mutex mutex;  // guards the members below
  std::condition_variable finished;
  bool done = false;
  bool abandoned = false;  // the caller has stopped waiting
  int result = 0;
  std::vector<SocketAddress> addresses;
};

// Counts look-ups that continue although nobody waits for them.
std::atomic<int>& AbandonedLookups() {
  static std::atomic<int> count{0};
  return count;
}

// When memory runs out on a thread of its own, the look-up has failed, but the process goes on.
int Resolve(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses) noexcept {
  try {
    return ResolveAddresses(host, port, addresses);
  } catch (const std::exception&) {
    return static_cast<int>(std::errc::not_enough_memory);
  }
}

void RunLookup(const std::shared_ptr<Lookup>& lookup, const std::string& host, std::uint16_t port) noexcept {
  OSAL_SetThreadName("tansy-resolve");
  std::vector<SocketAddress> addresses;
  const int result = Resolve(host, port, addresses);
  const std::lock_guard<std::mutex> lock(lookup->mutex);
  lookup->result = result;
  lookup->addresses = std::move(addresses);
  lookup->done = true;
  if (lookup->abandoned) {
    --AbandonedLookups();
  }
  lookup->finished.notify_all();
}

// Threads that hang in a resolver which does not answer must not pile up, so their number is limited.
bool StartLookup(const std::shared_ptr<Lookup>& lookup, const std::string& host, std::uint16_t port) {
  if (AbandonedLookups() >= kMaxAbandoned) {
    return false;
  }
  try {
    std::thread(RunLookup, lookup, host, port).detach();
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

}  // namespace

bool ResolveWithin(const std::string& host, std::uint16_t port, int timeout_ms, std::vector<SocketAddress>& addresses,
                   ClientError& error) {
  if (IsNumericAddress(host) || timeout_ms < 0) {
    const int result = ResolveAddresses(host, port, addresses);
    error = result == 0 ? ClientError{} : ClientError{ClientError::kResolve, result};
    return result == 0;
  }
  const auto lookup = std::make_shared<Lookup>();
  if (!StartLookup(lookup, host, port)) {
    error = {ClientError::kResolve, static_cast<std::int32_t>(std::errc::resource_unavailable_try_again)};
    return false;
  }
  std::unique_lock<std::mutex> lock(lookup->mutex);
  if (!lookup->finished.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return lookup->done; })) {
    lookup->abandoned = true;
    ++AbandonedLookups();
    error = {ClientError::kTimeout, TimedOutError()};
    return false;
  }
  if (lookup->result != 0) {
    error = {ClientError::kResolve, lookup->result};
    return false;
  }
  addresses = std::move(lookup->addresses);
  return true;
}

}  // namespace TansyNet::details
