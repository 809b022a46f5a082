#include "TansyBase/CodePage.h"

#include <windows.h>

#include "TansyBase/Utf8.h"

namespace TansyBase::CodePage {
namespace {

constexpr UINT kGbkCodePage = 936;

std::string FromUtf8(std::string_view utf8, UINT code_page) {
  const std::wstring wide = Utf8ToWide(utf8);
  const int length = static_cast<int>(wide.size());
  // When the target is UTF-8, the system's call allows neither a substitute character nor flags.
  const bool to_utf8 = code_page == CP_UTF8 || (code_page == CP_ACP && GetACP() == CP_UTF8);
  const DWORD flags = to_utf8 ? 0 : WC_NO_BEST_FIT_CHARS;
  const char* const substitute = to_utf8 ? nullptr : "?";
  const int size = WideCharToMultiByte(code_page, flags, wide.data(), length, nullptr, 0, substitute, nullptr);
  std::string out(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(code_page, flags, wide.data(), length, out.data(), size, substitute, nullptr);
  return out;
}

}  // namespace

std::string Utf8ToLocal(std::string_view utf8) {
  return FromUtf8(utf8, CP_ACP);
}

std::string Utf8ToGbk(std::string_view utf8) {
  return FromUtf8(utf8, kGbkCodePage);
}

}  // namespace TansyBase::CodePage
