// A few threads for callbacks that may take long.
#ifndef TANSY_NET_SERVER_DELIVERY_POOL_H
#define TANSY_NET_SERVER_DELIVERY_POOL_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace TansyNet {

// Delivers pieces of streamed bodies: the receiver of a piece may wait for its storage, and the I/O threads must not
// wait. The queue holds at most one piece per connection, because the next piece is posted only after the last one was
// processed.
class CDeliveryPool {
 public:
  CDeliveryPool() = default;
  ~CDeliveryPool();
  CDeliveryPool(const CDeliveryPool&) = delete;
  CDeliveryPool& operator=(const CDeliveryPool&) = delete;

  void Start(unsigned threads);
  // Waits for the tasks that run, and drops those that wait.
  void Stop();
  void Post(std::function<void()> task);

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
  std::vector<std::thread> threads_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_DELIVERY_POOL_H
