// Says what a start on "all addresses" means, and which listeners share one handle because of that.
#ifndef TANSY_NET_SERVER_LISTEN_ADDRESSES_H
#define TANSY_NET_SERVER_LISTEN_ADDRESSES_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace TansyNet {

// Threads: any thread may call any member.
class CListenAddresses {
 public:
  void Set(std::vector<std::string> addresses);
  // Gives the addresses on which a start on `address` listens. "0.0.0.0" and "::" stand for the configured addresses of
  // the same family, or for themselves when none are configured; any other address stands for itself.
  std::vector<std::string> Of(const std::string& address) const;

  // Makes one handle of several. The handle is 0 when there are none.
  std::int32_t Join(const std::vector<std::int32_t>& handles);
  // Gives the handles that were joined into this one, itself included, and forgets that they were joined.
  std::vector<std::int32_t> Part(std::int32_t handle);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> addresses_;                            // guarded by mutex_
  std::map<std::int32_t, std::vector<std::int32_t>> companions_;  // guarded by mutex_; key: the joint handle
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LISTEN_ADDRESSES_H
