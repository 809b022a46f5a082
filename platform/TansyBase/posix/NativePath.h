// Converts the base library's paths to the operating system's. Internal to the base library.
#ifndef TANSY_BASE_POSIX_NATIVE_PATH_H
#define TANSY_BASE_POSIX_NATIVE_PATH_H

#include <algorithm>
#include <string>

namespace TansyBase {

// Refuses a path with a NUL byte inside, because it would name another file than the caller means.
inline bool IsPlainPath(const std::string& path) {
  return !path.empty() && path.find('\0') == std::string::npos;
}

inline std::string NativePath(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

}  // namespace TansyBase

#endif  // TANSY_BASE_POSIX_NATIVE_PATH_H
