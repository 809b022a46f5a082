#ifndef TANSY_HOST_TRY_LIMIT_H
#define TANSY_HOST_TRY_LIMIT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace Tansy::Host {

// Limits how often strangers may try something, by address and in all. An address of IPv6 counts as its network of 64
// bits, because one machine has as many addresses there as it likes. Memory is bounded however many addresses come.
// Time is that of TimeUtil::Uptime. Threads: any.
class CTryLimit {
 public:
  // `burst` tries at once, then one for each `pause_ms`.
  struct Rule {
    std::int64_t burst;
    std::int64_t pause_ms;
  };

  CTryLimit(Rule each, Rule all) : each_(each), all_(all) {}

  // Counts a try. Returns 0, or, when there were too many, for how many seconds to wait; that try does not count.
  std::int64_t Take(std::string_view address);
  // Takes a try back that was no harm.
  void GiveBack(std::string_view address);

  static constexpr std::size_t kMostAddresses = 4096;
  std::size_t AddressCount() const;

 private:
  std::int64_t& OfAddress(std::string_view address, std::int64_t now);

  const Rule each_;
  const Rule all_;
  mutable std::mutex mutex_;
  // Guarded by mutex_: the times, in milliseconds, at which nothing is left to be waited for.
  std::map<std::string, std::int64_t, std::less<>> addresses_;
  std::int64_t others_ = 0;  // of all addresses for which there is no room
  std::int64_t together_ = 0;
  std::int64_t tidied_at_ = -1;  // once in a second is often enough to look for those who wait for nothing
};

// Gives what an address is counted as: an IPv4 address itself, of an IPv6 address its first four groups.
std::string NetworkOf(std::string_view address);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_TRY_LIMIT_H
