// Lists the keys of a bucket. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_LISTING_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_LISTING_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tansy::CloudStorage::S3 {

// An object as a listing shows it.
struct ListedObject {
  std::string key;
  std::string etag;      // without quotes
  std::string modified;  // "2026-11-03T08:05:09.000Z"
  std::uint64_t size = 0;
};

// Shows the objects whose keys are not less than `from`, or, without `with_key`, greater than it, in the order of their
// keys, until `take` returns false.
using TakeObject = std::function<bool(ListedObject&& object)>;
using ShowObjects = std::function<void(const std::string& from, bool with_key, const TakeObject& take)>;

struct ListRequest {
  std::string prefix = {};
  std::string delimiter = {};  // empty: nothing is grouped
  std::string after = {};      // only keys and common prefixes beyond this are listed
  std::size_t most = 1000;
};

struct Listing {
  // An object, or a common prefix.
  struct Entry {
    bool is_prefix = false;
    ListedObject object;  // of a prefix, only the key counts
  };

  std::vector<Entry> entries;  // in the order of their keys
  bool is_truncated = false;   // there is more beyond the last entry
};

// Keys that begin alike up to the first delimiter behind the prefix are one entry, which is stepped over and not walked
// through.
Listing List(const ListRequest& request, const ShowObjects& show);

// Gives the least text that is greater than every text with this beginning; nothing when there is none.
std::optional<std::string> Beyond(std::string_view beginning);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_LISTING_H
