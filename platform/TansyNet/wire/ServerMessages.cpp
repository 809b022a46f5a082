#include "TansyNet/wire/ServerMessages.h"

namespace TansyNet {

std::vector<FormPart> HttpServerRecv::FormParts() const {
  std::vector<FormPart> parts;
  const auto type = headers.find("Content-Type");
  if (body != nullptr && type != headers.end()) {
    ParseMultipartForm(type->second, *body, parts);
  }
  return parts;
}

}  // namespace TansyNet
