#include "TansyBase/CodePage.h"

#include <windows.h>

#include "TansyBase/Utf8.h"

namespace TansyBase::CodePage {
namespace {

constexpr UINT kGbkCodePage = 936;

// Puts one value that no code page has in the place of each pair of values that stands for one character. The system's
// call would give a substitute for either of them.
void JoinPairs(std::wstring& wide) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < wide.size(); ++i) {
    const bool is_pair = IS_HIGH_SURROGATE(wide[i]) && i + 1 < wide.size() && IS_LOW_SURROGATE(wide[i + 1]);
    wide[kept++] = is_pair ? L'\xFFFF' : wide[i];
    i += is_pair ? 1 : 0;
  }
  wide.resize(kept);
}

std::string FromUtf8(std::string_view utf8, UINT code_page) {
  std::wstring wide = Utf8ToWide(utf8);
  // When the target is UTF-8, the system's call allows neither a substitute character nor flags.
  const bool to_utf8 = code_page == CP_UTF8 || (code_page == CP_ACP && GetACP() == CP_UTF8);
  if (!to_utf8) {
    JoinPairs(wide);
  }
  const int length = static_cast<int>(wide.size());
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
