#include "ConsoleLink.h"

#include <algorithm>
#include <array>
#include <map>

#include "TansyBase/TimeUtil.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Host {
namespace details {
namespace {

namespace S3Signing = TansyNet::S3Signing;

constexpr std::array<std::string_view, 5> kMethods = {"GET", "HEAD", "PUT", "POST", "DELETE"};
constexpr std::size_t kLongestKey = 1024;
constexpr std::size_t kMostNames = 64;

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

// These belong to the signature itself.
bool IsOfSignature(std::string_view name) {
  constexpr std::array<std::string_view, 7> kNames = {"x-amz-algorithm",     "x-amz-credential",    "x-amz-date",
                                                      "x-amz-expires",       "x-amz-signedheaders", "x-amz-signature",
                                                      "x-amz-security-token"};
  return std::find(kNames.begin(), kNames.end(), Lower(name)) != kNames.end();
}

bool IsHeaderName(std::string_view name) {
  return !name.empty() && name != "host" && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

bool IsHeaderValue(std::string_view value) {
  const bool is_trimmed = value.empty() || (value.front() != ' ' && value.back() != ' ');
  return is_trimmed && value.find("  ") == std::string_view::npos &&
         std::all_of(value.begin(), value.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

// Browsers take "." and ".." out of a path, however they are written.
bool HasDotFolder(std::string_view key) {
  for (;;) {
    const std::size_t slash = key.find('/');
    const std::string_view folder = key.substr(0, slash);
    if (folder == "." || folder == "..") {
      return true;
    }
    if (slash == std::string_view::npos) {
      return false;
    }
    key.remove_prefix(slash + 1);
  }
}

std::string CheckNames(const LinkToSign& link) {
  if (link.query.size() > kMostNames || link.headers.size() > kMostNames) {
    return "give at most 64 parameters and 64 headers";
  }
  for (const auto& [name, value] : link.query) {
    if (name.empty() || IsOfSignature(name)) {
      return "the query may have any names but those of a signature";
    }
  }
  for (const auto& [name, value] : link.headers) {
    if (!IsHeaderName(Lower(name)) || !IsHeaderValue(value)) {
      return "headers need names of letters and dashes, and values of printable ASCII with single blanks";
    }
  }
  return "";
}

std::string CheckRights(const LinkToSign& link, const ConsoleKey& key) {
  if (!key.may_write && link.method != "GET" && link.method != "HEAD") {
    return "this key may only read: sign in with another one";
  }
  const bool is_known = key.buckets.empty() || link.bucket.empty() ||
                        std::find(key.buckets.begin(), key.buckets.end(), link.bucket) != key.buckets.end();
  return is_known ? "" : "this key has no right to that bucket: sign in with another one";
}

// Gives the time as "20130524T000000Z".
std::string Timestamp(std::time_t now) {
  std::string text = TansyBase::TimeUtil::TimeT2StrUTCDatetime(now);
  std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
  std::replace(text.begin(), text.end(), ' ', 'T');
  return text + "Z";
}

std::string PathOf(const LinkToSign& link) {
  return "/" + link.bucket + (link.key.empty() ? "" : "/" + link.key);
}

}  // namespace
}  // namespace details

std::string CheckLink(const LinkToSign& link, const ConsoleKey& key) {
  using namespace details;
  if (std::find(kMethods.begin(), kMethods.end(), link.method) == kMethods.end()) {
    return "the method must be GET, HEAD, PUT, POST or DELETE";
  }
  if (link.seconds < 1 || link.seconds > LinkToSign::kLongest) {
    return "expires must be a number of seconds from 1 to 604800";
  }
  if (link.bucket.empty() && !link.key.empty()) {
    return "a key needs a bucket";
  }
  if (link.bucket.find('/') != std::string::npos || link.bucket == "." || link.bucket == "..") {
    return "there is no bucket of that name";
  }
  if (link.key.size() > kLongestKey) {
    return "a key has at most 1024 bytes";
  }
  if (HasDotFolder(link.key)) {
    return "browsers cannot ask for a name with . or .. between its slashes: use the command line";
  }
  const std::string trouble = CheckNames(link);
  return trouble.empty() ? CheckRights(link, key) : trouble;
}

std::string SignLink(const LinkToSign& link, const ConsoleKey& key, const ConsolePlace& place, std::string_view region,
                     std::time_t now) {
  using namespace details;
  const std::string timestamp = Timestamp(now);
  const std::string date = timestamp.substr(0, 8);
  const std::string scope = S3Signing::Scope(date, region);
  std::map<std::string, std::string> headers = {{"host", place.s3_host}};
  for (const auto& [name, value] : link.headers) {
    headers[Lower(name)] = value;
  }
  std::string names;
  for (const auto& [name, value] : headers) {
    names += (names.empty() ? "" : ";") + name;
  }
  std::vector<LinkToSign::NameValue> query = link.query;
  query.emplace_back("X-Amz-Algorithm", S3Signing::kAlgorithm);
  query.emplace_back("X-Amz-Credential", key.name + "/" + scope);
  query.emplace_back("X-Amz-Date", timestamp);
  query.emplace_back("X-Amz-Expires", std::to_string(link.seconds));
  query.emplace_back("X-Amz-SignedHeaders", names);
  const std::string path = PathOf(link);
  const std::string canonical =
      S3Signing::CanonicalRequest({link.method, path, query, {headers.begin(), headers.end()}, "UNSIGNED-PAYLOAD"});
  const std::string signature = S3Signing::Sign(S3Signing::SigningKey(key.secret, date, region),
                                                S3Signing::StringToSign(timestamp, scope, canonical));
  return place.s3 + S3Signing::PercentEncodePath(path) + "?" + S3Signing::QueryText(query) +
         "&X-Amz-Signature=" + signature;
}

}  // namespace Tansy::Host
