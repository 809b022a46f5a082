#include "ObjectUrl.h"

#include "Failure.h"
#include "Output.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {
namespace details {
namespace {

// What would end the path of a request, or break out of its line.
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

ObjectUrl ParseObjectUrl(const std::string& text, Settings& settings) {
  std::string path = text;
  if (TansyNet::URL url; TansyNet::URL::Parse(text, url)) {
    settings.object_server = {url.scheme == "https", url.host, url.port};
    path = url.target.substr(0, url.target.find('?'));
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
