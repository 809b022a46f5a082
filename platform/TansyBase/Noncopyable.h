#ifndef TANSY_BASE_NONCOPYABLE_H
#define TANSY_BASE_NONCOPYABLE_H

namespace TansyBase {

// Base of objects that have an identity: managers, loops, servers.
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
