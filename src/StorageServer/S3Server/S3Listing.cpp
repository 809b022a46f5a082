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

// Walks through the keys of a bucket from where a listing begins.
class CLister {
 public:
  explicit CLister(const ListRequest& request) : request_(request) {
    const bool begins_at_prefix = request.after < request.prefix;
    from_ = begins_at_prefix ? request.prefix : request.after;
    with_key_ = begins_at_prefix;
    // A listing that went on from a common prefix has listed all of it.
    if (request.after.starts_with(request.prefix) && !request.after.empty() &&
        CommonPrefix(request, request.after) == request.after) {
      StepOver(request.after);
    }
  }

  Listing List(const ShowObjects& show) {
    while (has_more_) {
      has_more_ = false;  // unless an object says so
      const std::string begin = from_;
      show(begin, with_key_, [this](ListedObject&& object) { return Take(std::move(object)); });
    }
    return std::move(listing_);
  }

 private:
  // Returns false when the objects that follow are not wanted in this order.
  bool Take(ListedObject&& object) {
    // Names that differ and stand for the same key follow one another; the first of them is listed.
    if (!with_key_ && object.key == from_) {
      return true;
    }
    has_more_ = false;
    if (!object.key.starts_with(request_.prefix)) {
      return false;
    }
    if (listing_.entries.size() >= request_.most) {
      listing_.is_truncated = request_.most > 0;
      return false;
    }
    std::string prefix = CommonPrefix(request_, object.key);
    if (!prefix.empty()) {
      StepOver(prefix);
      listing_.entries.push_back({true, {std::move(prefix), {}, {}, 0}});
      return false;
    }
    has_more_ = true;
    from_ = object.key;
    with_key_ = false;
    listing_.entries.push_back({false, std::move(object)});
    return true;
  }

  void StepOver(const std::string& prefix) {
    const std::optional<std::string> beyond = Beyond(prefix);
    has_more_ = beyond.has_value();
    from_ = beyond.value_or(prefix);
    with_key_ = true;
  }

  const ListRequest& request_;
  Listing listing_;
  std::string from_;
  bool with_key_ = false;
  bool has_more_ = true;
};

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

Listing List(const ListRequest& request, const ShowObjects& show) {
  return CLister(request).List(show);
}

}  // namespace Tansy::CloudStorage::S3
