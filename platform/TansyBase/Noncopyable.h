#ifndef TANSY_BASE_NONCOPYABLE_H
#define TANSY_BASE_NONCOPYABLE_H

namespace TansyBase {

// A base class for objects that must not be copied because each exists for itself: managers, loops, servers.
class CNoncopyable {
 public:
  CNoncopyable(const CNoncopyable&) = delete;
  CNoncopyable& operator=(const CNoncopyable&) = delete;

 protected:
  CNoncopyable() = default;
  ~CNoncopyable() = default;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_NONCOPYABLE_H
