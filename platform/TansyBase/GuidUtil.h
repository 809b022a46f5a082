#ifndef TANSY_BASE_GUID_UTIL_H
#define TANSY_BASE_GUID_UTIL_H

#include <string>

namespace TansyBase {

class GuidUtil {
 public:
  // Makes a new random GUID (RFC 4122 version 4) of 36 lower-case characters: "xxxxxxxx-xxxx-4xxx-xxxx-xxxxxxxxxxxx".
  // The random bits come from the operating system's generator. Threads: any.
  static std::string CreateGuid();
};

}  // namespace TansyBase

#endif  // TANSY_BASE_GUID_UTIL_H
