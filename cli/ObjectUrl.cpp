#include "ObjectUrl.h"

#include <algorithm>

#include "Failure.h"
#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Refuses characters that would end the path of a request or break out of its line.
bool IsPlain(const std::string& path) {
  for (const char c : path) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '?' || c == '#') {
      return false;
    }
  }
  return true;
}

}  // namespace
}  // namespace details

ObjectUrl ParseObjectUrl(const std::string& text, const Settings& settings) {
  std::string path = TargetOnServer(text, settings.object_server, "name it with --server");
  if (path.size() < text.size()) {
    path.resize(std::min(path.size(), path.find('?')));
  }
  if (path.starts_with("/")) {
    path.erase(0, 1);
  }
  ObjectUrl object;
  const std::size_t slash = path.find('/');
  if (slash == std::string::npos) {
    object = {settings.pool, path};
  } else {
    object = {path.substr(0, slash), path.substr(slash + 1)};
  }
  if (object.bucket.empty() || object.key.empty() || object.key.find('/') != std::string::npos ||
      !details::IsPlain(path)) {
    throw CFailure(kExitUsage, "\"" + Printable(text) + "\" is no object URL",
                   "give /BUCKET/KEY as 'tansy put' prints it");
  }
  return object;
}

}  // namespace Tansy::Cli
