#include "TansyBase/CodePage.h"

#include <iconv.h>

#include <cstddef>
#include <cstdint>

#include "TansyBase/Utf8.h"

namespace TansyBase::CodePage {
namespace {

// Each thread has a converter of its own, because opening one is expensive and it must be used by one thread at a time.
class CGbkConverter {
 public:
  CGbkConverter() : descriptor_(iconv_open("GBK", "UTF-8")) {}
  ~CGbkConverter() {
    if (IsOpen()) {
      iconv_close(descriptor_);
    }
  }
  CGbkConverter(const CGbkConverter&) = delete;
  CGbkConverter& operator=(const CGbkConverter&) = delete;

  // Appends one character, given as its UTF-8 bytes, or "?" when GBK lacks it.
  void Append(std::string& out, std::string_view character) {
    char bytes[8];
    char* to = bytes;
    std::size_t room = sizeof bytes;
    char* from = const_cast<char*>(character.data());  // the interface is older than const
    std::size_t left = character.size();
    if (!IsOpen() || iconv(descriptor_, &from, &left, &to, &room) != 0 || left != 0) {
      out += '?';
      return;
    }
    out.append(bytes, to);
  }

 private:
  bool IsOpen() const { return reinterpret_cast<std::intptr_t>(descriptor_) != -1; }

  iconv_t descriptor_;
};

}  // namespace

// POSIX systems of today keep file names and terminals in UTF-8, whatever locale a service is started with.
std::string Utf8ToLocal(std::string_view utf8) {
  return std::string(utf8);
}

std::string Utf8ToGbk(std::string_view utf8) {
  thread_local CGbkConverter converter;
  std::string out;
  out.reserve(utf8.size());
  while (!utf8.empty()) {
    const std::string_view before = utf8;
    const char32_t point = TakeUtf8(utf8);
    if (point < 0x80) {
      out += static_cast<char>(point);
    } else {
      converter.Append(out, before.substr(0, before.size() - utf8.size()));
    }
  }
  return out;
}

}  // namespace TansyBase::CodePage
