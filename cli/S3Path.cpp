#include "S3Path.h"

#include <string_view>

#include "Failure.h"
#include "Output.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::string_view kScheme = "s3://";
constexpr std::size_t kLongestKey = 1024;

}  // namespace
}  // namespace details

std::string S3Path::Name() const {
  const std::string url = Url();
  return url == Printable(url) ? url : "/" + bucket + "/" + TansyNet::S3Signing::PercentEncode(key);
}

S3Path S3Path::Below(const std::string& relative) const {
  return {bucket, FolderPrefix(key) + relative};
}

bool IsS3Url(const std::string& text) {
  return text.starts_with(details::kScheme);
}

S3Path ParseS3Path(const std::string& text) {
  std::string rest = text;
  if (IsS3Url(rest)) {
    rest.erase(0, details::kScheme.size());
  } else if (rest.starts_with('/')) {
    rest.erase(0, 1);
  }
  const std::size_t slash = rest.find('/');
  S3Path path;
  path.bucket = rest.substr(0, slash);
  path.key = slash == std::string::npos ? "" : rest.substr(slash + 1);
  if (text.starts_with('/')) {
    path.key = TansyNet::S3Signing::PercentDecode(path.key);
  }
  if (path.bucket.empty() || path.bucket != Printable(path.bucket) ||
      path.bucket.find_first_of(" ?#:\\") != std::string::npos) {
    throw CFailure(kExitUsage, "\"" + Printable(text) + "\" names no bucket", "give BUCKET or s3://BUCKET/KEY");
  }
  if (path.key.size() > details::kLongestKey) {
    throw CFailure(kExitUsage, "the key has " + std::to_string(path.key.size()) + " bytes",
                   "keys have at most " + std::to_string(details::kLongestKey));
  }
  return path;
}

std::string FolderPrefix(const std::string& key) {
  return key.empty() || key.ends_with('/') ? key : key + "/";
}

std::string FolderOfKey(const std::string& key) {
  return key.substr(0, key.rfind('/') + 1);
}

std::string LastName(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) {
    return "";
  }
  const std::string trimmed = path.substr(0, end + 1);
  return trimmed.substr(trimmed.rfind('/') + 1);
}

}  // namespace Tansy::Cli
