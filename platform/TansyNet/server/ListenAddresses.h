// What a start on "all addresses" means, and which listeners belong to one handle because of that.
#ifndef TANSY_NET_SERVER_LISTEN_ADDRESSES_H
#define TANSY_NET_SERVER_LISTEN_ADDRESSES_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace TansyNet {

// Any thread may call any member.
class CListenAddresses {
 public:
  void Set(std::vector<std::string> addresses);
  // Where a start on this address listens: for "0.0.0.0" and "::" those of the set ones that are of the same family
  // (the address itself when none are set), for any other address that one.
  std::vector<std::string> Of(const std::string& address) const;

  // Makes one handle of several. 0 for none.
  std::int32_t Join(const std::vector<std::int32_t>& handles);
  // The handles that were joined into this one, this one included, and forgets them.
  std::vector<std::int32_t> Part(std::int32_t handle);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> addresses_;                            // guarded by mutex_
  std::map<std::int32_t, std::vector<std::int32_t>> companions_;  // guarded by mutex_; of a handle that has some
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LISTEN_ADDRESSES_H
