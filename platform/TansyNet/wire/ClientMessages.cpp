#include "TansyNet/wire/ClientMessages.h"

#include "TansyNet/wire/HeaderNames.h"

namespace TansyNet {

std::string CHttpClientResponse::GetHeader(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (EqualNoCase(key, name)) {
      return value;
    }
  }
  return {};
}

}  // namespace TansyNet
