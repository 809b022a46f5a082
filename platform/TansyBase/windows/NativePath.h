#ifndef TANSY_BASE_WINDOWS_NATIVE_PATH_H
#define TANSY_BASE_WINDOWS_NATIVE_PATH_H

#include <string>

#include "TansyBase/StringUtil.h"

namespace TansyBase {

// Gives the path as the system's calls take it. It is empty, which names nothing, when it holds a NUL, because the
// calls would read no further than that.
inline std::wstring NativePath(const std::string& utf8_path) {
  std::wstring path = StringUtil::UTF8ToWide(utf8_path);
  return path.find(L'\0') == std::wstring::npos ? path : std::wstring();
}

}  // namespace TansyBase

#endif  // TANSY_BASE_WINDOWS_NATIVE_PATH_H
