#include "ObjectUrl.h"

#include <algorithm>

#include "Failure.h"
#include "Output.h"
#include "S3Path.h"
#include "TansyNet/S3Signing.h"

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

// A key of the S3 door is the percent-encoded name of the object.
ObjectUrl FromS3Url(const std::string& text) {
  const S3Path path = ParseS3Path(text);
  if (path.key.empty()) {
    throw CFailure(kExitUsage, "\"" + Printable(text) + "\" is no object URL", "give s3://BUCKET/KEY");
  }
  return {path.bucket, TansyNet::S3Signing::PercentEncode(path.key), path.key.substr(FolderOfKey(path.key).size())};
}

}  // namespace
}  // namespace details

ObjectUrl ParseObjectUrl(const std::string& text, const Settings& settings) {
  if (IsS3Url(text)) {
    return details::FromS3Url(text);
  }
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
                   "give /BUCKET/KEY as 'tansy put' prints it, or s3://BUCKET/KEY");
  }
  return object;
}

}  // namespace Tansy::Cli
