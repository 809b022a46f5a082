#include "TansyNet/wire/ServerMessages.h"

#include <memory>
#include <string>

namespace TansyNet {

std::string* HttpServerRecv::OwnBody() {
  if (body != nullptr && body.use_count() != 1) {
    body = std::make_shared<std::string>(*body);
  }
  // Bodies are constant because they are shared: whoever has one alone may change it.
  return const_cast<std::string*>(body.get());
}

std::vector<FormPart> HttpServerRecv::FormParts() const {
  std::vector<FormPart> parts;
  const auto type = headers.find("Content-Type");
  if (body != nullptr && type != headers.end()) {
    ParseMultipartForm(type->second, *body, parts);
  }
  return parts;
}

}  // namespace TansyNet
