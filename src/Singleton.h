#ifndef TANSY_SRC_SINGLETON_H
#define TANSY_SRC_SINGLETON_H

#include <atomic>
#include <mutex>

namespace Tansy::CloudStorage {

// Holds the only object of a class. The first caller makes it, and it is never destroyed, because threads of the host
// may still call in while the process ends. The atomic pointer lets every later call do without the mutex.
//
// A class with a private constructor names this template its friend:
//   static CThing& Instance() { return CSingleton<CThing>::Instance(); }
//   friend class CSingleton<CThing>;
//
// Threads: any. Whatever the constructor throws reaches the caller, and the next call tries again.
template <class Object>
class CSingleton {
 public:
  static Object& Instance() {
    Object* object = object_.load(std::memory_order_acquire);
    if (object == nullptr) {
      const std::lock_guard<std::mutex> lock(mutex_);
      object = object_.load(std::memory_order_relaxed);
      if (object == nullptr) {
        object = new Object();
        object_.store(object, std::memory_order_release);
      }
    }
    return *object;
  }

 private:
  static inline std::atomic<Object*> object_{nullptr};
  static inline std::mutex mutex_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_SINGLETON_H
