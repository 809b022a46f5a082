#include "StorageServer/S3Server/S3Listing.h"

#include <utility>

namespace Tansy::CloudStorage::S3 {

namespace {

// Gives the common prefix that a key belongs to; it is empty when the key stands for itself.
std::string CommonPrefix(const ListRequest& request, const std::string& key) {
  if (request.delimiter.empty()) {
    return {};
  }
  const std::size_t end = key.find(request.delimiter, request.prefix.size());
  return end == std::string::npos ? std::string() : key.substr(0, end + request.delimiter.size());
}

}  // namespace

std::optional<std::string> Beyond(std::string_view beginning) {
  std::string text(beginning);
  while (!text.empty() && text.back() == '\xff') {
    text.pop_back();
  }
  if (text.empty()) {
    return std::nullopt;
  }
  text.back() = static_cast<char>(static_cast<unsigned char>(text.back()) + 1);
  return text;
}

Listing List(const ListRequest& request, const NextObject& next) {
  Listing listing;
  const bool begins_at_prefix = request.after < request.prefix;
  std::string from = begins_at_prefix ? request.prefix : request.after;
  bool with_key = begins_at_prefix;
  // A listing that went on from a common prefix has listed all of it.
  if (request.after.starts_with(request.prefix) && !request.after.empty() &&
      CommonPrefix(request, request.after) == request.after) {
    const std::optional<std::string> beyond = Beyond(request.after);
    if (!beyond) {
      return listing;
    }
    from = *beyond;
    with_key = true;
  }
  for (;;) {
    std::optional<ListedObject> object = next(from, with_key);
    if (!object || !object->key.starts_with(request.prefix)) {
      return listing;
    }
    if (listing.entries.size() >= request.most) {
      listing.is_truncated = request.most > 0;
      return listing;
    }
    std::string prefix = CommonPrefix(request, object->key);
    if (prefix.empty()) {
      from = object->key;
      with_key = false;
      listing.entries.push_back({false, std::move(*object)});
      continue;
    }
    const std::optional<std::string> beyond = Beyond(prefix);
    listing.entries.push_back({true, {std::move(prefix), {}, {}, 0}});
    if (!beyond) {
      return listing;
    }
    from = *beyond;
    with_key = true;
  }
}

}  // namespace Tansy::CloudStorage::S3
