#ifndef TANSY_CLI_STEADY_FILE_H
#define TANSY_CLI_STEADY_FILE_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "HostSystem/Files.h"

namespace Tansy::Cli {

// A local file that is read for an upload, and that must not change meanwhile. Threads: any.
class CSteadyFile {
 public:
  // Throws CFailure when the file cannot be opened, is no regular file, or is too large for an object.
  explicit CSteadyFile(const std::string& path);

  std::uint64_t Size() const { return size_; }
  // Reads exactly this range. Throws CFailure when the file has become shorter or cannot be read.
  std::string Read(std::uint64_t offset, std::uint64_t size) const;
  // Throws CFailure when size or time of the file are others than at the beginning.
  void CheckUnchanged() const;

 private:
  std::filesystem::file_time_type Time() const;

  const std::string path_;
  std::uint64_t size_ = 0;
  std::filesystem::file_time_type time_;
  std::unique_ptr<HostSystem::IFile> file_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_STEADY_FILE_H
