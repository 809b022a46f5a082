#ifndef TANSY_CLI_PIECE_READER_H
#define TANSY_CLI_PIECE_READER_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Digest.h"

namespace Tansy::Cli {

// Cuts a file or standard input into pieces of one size; only the last may be smaller. Threads: one at a time.
class CPieceReader {
 public:
  // `expected` is the size of a file, of which exactly that many bytes are read; without it, everything is read. `file`
  // stays the caller's and is read from its current position. The digest costs more time than anything else that a
  // client does with a large file, so it is computed only for those who will ask for it.
  CPieceReader(std::FILE* file, std::uint64_t piece_size, std::optional<std::uint64_t> expected, bool with_digest)
      : file_(file), piece_size_(piece_size), expected_(expected) {
    if (with_digest) {
      digest_.emplace();
    }
  }

  // Gives the next piece; the first piece of an empty input is empty. Returns false when the last one has been read.
  // Throws CFailure when the file cannot be read, has become shorter, or is too large for an object.
  bool Next(std::vector<char>& piece);
  // Says that no piece follows the last one that was read.
  bool IsAtEnd() const { return at_end_; }
  // Counts the bytes read so far.
  std::uint64_t Size() const { return size_; }
  // Gives the digest of all bytes; it may be called once, at the end. The text is empty when none was computed.
  std::string Digest() { return digest_ ? digest_->Finish() : std::string(); }

 private:
  bool IsFollowed();

  std::FILE* const file_;
  const std::uint64_t piece_size_;
  const std::optional<std::uint64_t> expected_;
  std::optional<CDigest> digest_;
  std::uint64_t size_ = 0;
  bool at_end_ = false;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PIECE_READER_H
