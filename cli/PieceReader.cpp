#include "PieceReader.h"

#include <algorithm>
#include <cerrno>

#include "Failure.h"
#include "HostSystem/Files.h"
#include "LocalFile.h"

namespace Tansy::Cli {
namespace details {
namespace {

void CheckReading(std::FILE* file) {
  if (std::ferror(file) != 0) {
    throw CFailure(kExitFailed, "reading failed: " + HostSystem::ErrorText(errno), "");
  }
}

}  // namespace
}  // namespace details

bool CPieceReader::Next(std::vector<char>& piece) {
  if (at_end_) {
    return false;
  }
  const std::uint64_t size = expected_ ? std::min(piece_size_, *expected_ - size_) : piece_size_;
  piece.resize(size);
  piece.resize(std::fread(piece.data(), 1, size, file_));
  if (piece.size() < size) {
    details::CheckReading(file_);
    if (expected_) {
      throw CFailure(kExitFailed, "the file became shorter while it was read", "try again when nobody writes it");
    }
  }
  size_ += piece.size();
  if (size_ > kLargestObject) {
    throw CFailure(kExitFailed, "the input is too large", "objects are smaller than 4 GiB");
  }
  if (digest_) {
    digest_->Add(piece.data(), piece.size());
  }
  at_end_ = expected_ ? size_ == *expected_ : piece.size() < size || !IsFollowed();
  return true;
}

// Says whether there is a byte behind the piece.
bool CPieceReader::IsFollowed() {
  const int next = std::fgetc(file_);
  if (next == EOF) {
    details::CheckReading(file_);
    return false;
  }
  std::ungetc(next, file_);
  return true;
}

}  // namespace Tansy::Cli
