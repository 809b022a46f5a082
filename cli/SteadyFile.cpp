#include "SteadyFile.h"

#include <system_error>

#include "Failure.h"
#include "LocalFile.h"
#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

CFailure Changed(const std::string& path) {
  return {kExitFailed, Printable(path) + ": changed while it was read", "put it again when nobody writes to it"};
}

}  // namespace
}  // namespace details

CSteadyFile::CSteadyFile(const std::string& path) : path_(path), size_(LocalFileSize(path)), time_(Time()) {
  if (const int error = HostSystem::OpenFileForReading(path, file_); error != 0) {
    throw FailureOfFile(path, error);
  }
}

std::string CSteadyFile::Read(std::uint64_t offset, std::uint64_t size) const {
  std::string bytes(static_cast<std::size_t>(size), '\0');
  std::size_t done = 0;
  if (const int error = file_->ReadAt(bytes.data(), bytes.size(), offset, done); error != 0) {
    throw FailureOfFile(path_, error);
  }
  if (done < bytes.size()) {
    throw details::Changed(path_);
  }
  return bytes;
}

void CSteadyFile::CheckUnchanged() const {
  std::uint64_t size = 0;
  if (file_->GetSize(size) != 0 || size != size_ || Time() != time_) {
    throw details::Changed(path_);
  }
}

std::filesystem::file_time_type CSteadyFile::Time() const {
  std::error_code error;
  const std::filesystem::file_time_type time = std::filesystem::last_write_time(NativePath(path_), error);
  if (error) {
    throw FailureOfFile(path_, error.default_error_condition().value());
  }
  return time;
}

}  // namespace Tansy::Cli
