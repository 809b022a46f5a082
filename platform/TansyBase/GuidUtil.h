#ifndef TANSY_BASE_GUID_UTIL_H
#define TANSY_BASE_GUID_UTIL_H

#include <string>

namespace TansyBase {

class GuidUtil {
 public:
  // A new random GUID (RFC 4122 version 4) as 36 lower-case characters: "xxxxxxxx-xxxx-4xxx-xxxx-xxxxxxxxxxxx". Random
  // bits come from the operating system's generator. Any thread.
  static std::string CreateGuid();
};

}  // namespace TansyBase

#endif  // TANSY_BASE_GUID_UTIL_H
