// Conversions that use the operating system's tables. Internal to the base library.
#ifndef TANSY_BASE_CODE_PAGE_H
#define TANSY_BASE_CODE_PAGE_H

#include <string>
#include <string_view>

namespace TansyBase::CodePage {

// These do what StringUtil::UTF8ToLocal and StringUtil::UTF8ToGBK promise.
std::string Utf8ToLocal(std::string_view utf8);
std::string Utf8ToGbk(std::string_view utf8);

}  // namespace TansyBase::CodePage

#endif  // TANSY_BASE_CODE_PAGE_H
