#ifndef TANSY_CLI_PIECE_READER_H
#define TANSY_CLI_PIECE_READER_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Digest.h"

namespace Tansy::Cli {

// Cuts a file or standard input into pieces of one size; only the last may be smaller. One thread at a time.
class CPieceReader {
 public:
  // `expected` is the size of a file, of which exactly that many bytes are read; without it all there is. `file` stays
  // the caller's and is read from where it stands.
  CPieceReader(std::FILE* file, std::uint64_t piece_size, std::optional<std::uint64_t> expected)
      : file_(file), piece_size_(piece_size), expected_(expected) {}

  // The next piece; the first of an empty input is empty. False when the last one has been read. Throws CFailure: the
  // file cannot be read, has become shorter, or is too large for an object.
  bool Next(std::vector<char>& piece);
  // No piece follows the last one that was read.
  bool IsAtEnd() const { return at_end_; }
  // Bytes read so far.
  std::uint64_t Size() const { return size_; }
  // The digest of all bytes; asked for once, at the end.
  std::string Digest() { return digest_.Finish(); }

 private:
  bool IsFollowed();

  std::FILE* const file_;
  const std::uint64_t piece_size_;
  const std::optional<std::uint64_t> expected_;
  CDigest digest_;
  std::uint64_t size_ = 0;
  bool at_end_ = false;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PIECE_READER_H
