// Bodies that say which version they belong to, at every place of theirs.
//
// A body is a row of records of 16 bytes: the version together with the number of the sending, and a number that is
// made from this and from the record's offset. So any piece of 31 bytes names its version, and bytes of another
// version, of a sending that was replaced, or of another place are seen.
#ifndef TANSY_TESTS_PROVE_MODEL_BODY_H
#define TANSY_TESTS_PROVE_MODEL_BODY_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Operation.h"

namespace prove {

inline constexpr std::size_t kRecordBytes = 16;
inline constexpr std::size_t kSmallestPiece = 2 * kRecordBytes;
// The low bits of a version are free for the number of the sending.
inline constexpr Version kSendingMask = 0xff;

// How the bytes of a version were sent.
struct Recipe {
  Version version = kAbsent;  // its low bits are 0
  std::uint64_t size = 0;
  std::uint64_t part_size = 0;         // a multiple of kRecordBytes; 0: sent in one request
  std::vector<std::uint8_t> sendings;  // for each part the number of the sending that counts
};

// The bytes [begin, begin + size) of a version; `begin` is any number.
std::string MakeBody(const Recipe& recipe, std::uint64_t begin, std::uint64_t size);
std::string MakeBody(const Recipe& recipe);

// All versions that were ever sent. Any thread may use it.
class CRecipes {
 public:
  // To be called before the version can be there.
  void Add(const Recipe& recipe);
  std::optional<Recipe> Find(Version version) const;

 private:
  mutable std::mutex mutex_;
  std::map<Version, Recipe> recipes_;
};

struct Recognised {
  Version version = kAbsent;
  std::uint64_t size = 0;  // of the whole version
  std::string fault;       // what is wrong with the bytes; empty: they are those of the version
};

// Says which version the bytes belong to that an answer gave for the offsets from `begin` on.
Recognised Recognise(const CRecipes& recipes, std::string_view bytes, std::uint64_t begin);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_BODY_H
