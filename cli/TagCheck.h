#ifndef TANSY_CLI_TAG_CHECK_H
#define TANSY_CLI_TAG_CHECK_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tansy::Cli {

// Finds out whether bytes are those of an object, by its ETag: the MD5 digest of the bytes, or, for an object that was
// sent in N parts, "DIGEST-N", where DIGEST is that of the digests of the parts. The size of the parts is not told; the
// sizes that clients use are tried, those that make N parts.
class CTagCheck {
 public:
  CTagCheck(const std::string& tag, std::uint64_t size);
  ~CTagCheck();
  CTagCheck(const CTagCheck&) = delete;
  CTagCheck& operator=(const CTagCheck&) = delete;

  // Takes the next bytes.
  void Add(const char* data, std::size_t size);
  // Says whether all bytes together have the tag. It is called once, at the end.
  bool Fits();

 private:
  class CCandidate;

  const std::string tag_;
  std::vector<CCandidate> candidates_;
};

// Gives the part sizes, in bytes, in which clients may have cut an object of this size into so many parts.
std::vector<std::uint64_t> LikelyPartSizes(std::uint64_t size, std::uint64_t parts);

// Says whether a local file has the size and the tag. Throws CFailure when it cannot be read.
bool IsFileOfTag(const std::string& path, std::uint64_t size, const std::string& tag);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TAG_CHECK_H
