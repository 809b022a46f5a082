// Which bytes of an object a request asks for, and whether it wants them at all. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CONDITIONS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CONDITIONS_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

enum class ERange {
  kWhole,        // no range, or one that means nothing: all bytes are sent
  kPart,         // `begin` and `length` say which bytes are sent
  kUnsatisfied,  // none of the bytes exists
};

struct AskedRange {
  ERange kind = ERange::kWhole;
  std::uint64_t begin = 0;
  std::uint64_t length = 0;
  std::size_t parts = 0;  // of the object; 0 unless one of several was asked for by its number
};

// Reads a Range header for an object of `size` bytes. A list of several ranges, another unit and a malformed text are
// answered with the whole object, which RFC 9110 leaves to the server.
AskedRange ReadRange(std::string_view header, std::uint64_t size);

enum class ECondition { kMet, kNotModified, kFailed };

// What a client may call one version of an object: its entity tag, and the one that listings show until that is known.
// Both are without quotes.
struct VersionTags {
  std::string etag;
  std::string stand_in;  // may be empty

  bool Has(std::string_view tag) const { return tag == etag || (!stand_in.empty() && tag == stand_in); }
};

// Says whether a request has any If- header. Most have none, and then nobody needs the tags, which take a digest.
bool HasConditions(const LowerHeaders& headers);

// Compares the If- headers of a read with the object, in the order of RFC 9110.
ECondition CheckConditions(const LowerHeaders& headers, const VersionTags& tags, std::time_t modified);

// Says whether the If- headers of a write let it take place. `tags` are those of the object that is there; null when
// there is none.
bool MayWrite(const LowerHeaders& headers, const VersionTags* tags);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CONDITIONS_H
