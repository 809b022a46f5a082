#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_TAG_WAITERS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_TAG_WAITERS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Singleton.h"
#include "TansyBase/Noncopyable.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// The requests that wait until an entity tag is computed, by the location of the bytes that it is of. So each tag is
// computed once, however many ask for it. Threads: any.
class CTagWaiters : private TansyBase::CNoncopyable {
 public:
  struct Waiter {
    std::int32_t handle = 0;
    std::string id;
    TansyNet::HttpServerRecv msg;
  };
  using Waiters = std::vector<Waiter>;

  static CTagWaiters& Instance();

  // Returns true when the request is the first: then its caller has to see that the tag is computed, and that all who
  // wait are taken at the end. Throws std::bad_alloc, and has then changed nothing.
  bool Add(const std::string& location, Waiter waiter);
  // Says whether the client of one of them at least is still there.
  bool IsWanted(const std::string& location) const;
  // Gives all who wait. Whoever comes later is a first one again. Needs no memory.
  Waiters Take(const std::string& location) noexcept;
  std::size_t Size() const;  // of the tags that are being computed

 private:
  friend class CSingleton<CTagWaiters>;
  CTagWaiters() = default;
  ~CTagWaiters() = default;

  mutable std::mutex mutex_;
  std::map<std::string, Waiters> waiters_;  // guarded by mutex_
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_TAG_WAITERS_H
